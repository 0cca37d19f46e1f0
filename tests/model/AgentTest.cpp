// The root and the agent: finding, replacing, removing, and the order of the start.
#include "TunnelIntfSnmp/TunnelIntfSnmpAgent.h"
#include "tests/machines/World.h"
#include "tests/support/TraceRecorder.h"
#include <array>
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RootTest : public ::testing::Test {
protected:
  RootTest() { Kiln::TaskSchedulerRoot::schedulerIs(world_.scheduler); }
  ~RootTest() override { Kiln::TaskSchedulerRoot::schedulerIs(nullptr); }

  Zel::Ptr<TunnelIntfSnmpAgent> setAgent() {
    return root_->tunnelIntfSnmpAgentIs(world_.mib, world_.dir, world_.ifMib, world_.ikeStatus);
  }

  World world_{runModes[1]};
  Zel::Ptr<Root> root_ = Root::RootIs("root");
  std::size_t told_ = 0;
  Zel::Ptr<OnChange> listener_ = Zel::makePtr<OnChange>(*root_, [this](auto const & change) {
    EXPECT_EQ(&change.attribute(), &Root::tunnelIntfSnmpAgentAttribute());
    ++told_;
  });
};

TEST_F(RootTest, HasNoAgentAtFirst) {
  EXPECT_EQ(root_->name(), "root");
  EXPECT_EQ(root_->tunnelIntfSnmpAgent(), nullptr);
}

TEST_F(RootTest, KeepsItsAgentForTheSameInputs) {
  auto const agent = setAgent();
  EXPECT_EQ(setAgent(), agent);
  EXPECT_EQ(root_->tunnelIntfSnmpAgent(), agent);
  EXPECT_EQ(told_, 1u);
  EXPECT_TRUE(agent->hasNotificationActive());
  EXPECT_TRUE(agent->tunnelIfTableSm()->hasNotificationActive());
}

TEST_F(RootTest, ReplacesItsAgentWhenAnyInputDiffers) {
  auto const inputs = [&](int which) {
    return root_->tunnelIntfSnmpAgentIs(
        which == 0 ? Zel::makePtr<TunnelMib>("other") : world_.mib,
        which == 1 ? Zel::makePtr<Interface::TunnelIntfStatusDir>("other") : world_.dir,
        which == 2 ? Zel::makePtr<IntfSnmp::IfMib>("other") : world_.ifMib,
        which == 3 ? Zel::makePtr<Ipsec::Ike::Status>("other") : world_.ikeStatus);
  };
  for (int which = 0; which != 4; ++which) {
    auto const before = setAgent();
    auto const machine = before->tunnelIfTableSm();
    auto const after = inputs(which);
    EXPECT_NE(after, before) << which;
    EXPECT_NE(after->tunnelIfTableSm(), machine) << which;
  }
  EXPECT_EQ(told_, 8u);
}

TEST_F(RootTest, TearsTheOldMachinesDown) {
  setAgent();
  root_->tunnelIntfSnmpAgentIs(Zel::makePtr<TunnelMib>("other"), world_.dir, world_.ifMib,
                               world_.ikeStatus);
  world_.addTunnel(1, 10);
  EXPECT_TRUE(world_.mib->tunnelIfTable().empty());
}

TEST_F(RootTest, HasTheAgentWhenItSaysSo) {
  std::vector<Zel::Ptr<TunnelIntfSnmpAgent>> heard;
  auto const listener = Zel::makePtr<OnChange>(
      *root_, [&](auto const &) { heard.push_back(root_->tunnelIntfSnmpAgent()); });
  auto const agent = setAgent();
  root_->tunnelIntfSnmpAgentDel();
  EXPECT_THAT(heard, testing::ElementsAre(agent, nullptr));
}

TEST_F(RootTest, RemovesItsAgentAndSaysSo) {
  auto const agent = setAgent();
  EXPECT_EQ(root_->tunnelIntfSnmpAgentDel(), agent);
  EXPECT_EQ(root_->tunnelIntfSnmpAgent(), nullptr);
  EXPECT_EQ(told_, 2u);
}

TEST_F(RootTest, RemovesNothingWhereThereIsNoAgent) {
  EXPECT_EQ(root_->tunnelIntfSnmpAgentDel(), nullptr);
  EXPECT_EQ(told_, 0u);
}

TEST_F(RootTest, RemovesItsAgentWhenItGoes) {
  setAgent();
  root_ = nullptr;
  EXPECT_EQ(told_, 2u);
  EXPECT_TRUE(world_.scheduler->tasks().empty());
}

TEST_F(RootTest, IsSetUpByNamesAlone) {
  auto const root = Zel::createByTypeName("TunnelIntfSnmp::Root", "byName");
  std::vector<Zel::Ptr<Zel::PtrInterface>> const inputs{world_.mib, world_.dir, world_.ifMib,
                                                        world_.ikeStatus};
  auto const agent = Zel::attributeIs(*root, "tunnelIntfSnmpAgent", inputs);
  EXPECT_EQ(agent->type().name, "TunnelIntfSnmp::TunnelIntfSnmpAgent");
  auto const read = Zel::attribute(*root, "tunnelIntfSnmpAgent");
  EXPECT_EQ(std::get<Zel::Ptr<Zel::PtrInterface const>>(read.is), agent);
  world_.addTunnel(1, 10);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}}));
}

TEST_F(RootTest, LosesItsAgentAndTheTableItsRowsByNamesAlone) {
  setAgent();
  world_.mib->tunnelInetConfigTableIs(
      tunnelInetConfigTableEntryFactory(TunnelInetConfigTableKey(), 1));
  Zel::attributeDel(*world_.mib, "tunnelInetConfigTable");
  EXPECT_TRUE(world_.mib->tunnelInetConfigTable().empty());
  Zel::attributeDel(*root_, "tunnelIntfSnmpAgent");
  EXPECT_EQ(root_->tunnelIntfSnmpAgent(), nullptr);
  EXPECT_THROW(Zel::attributeDel(*root_, "name"), Zel::GenericAccessError);
}

TEST_F(RootTest, RefusesWrongInputsByName) {
  std::vector<Zel::Ptr<Zel::PtrInterface>> inputs{world_.mib, world_.dir, world_.ifMib};
  EXPECT_THROW(Zel::attributeIs(*root_, "tunnelIntfSnmpAgent", inputs), Zel::GenericAccessError);
  inputs.push_back(world_.mib);
  try {
    Zel::attributeIs(*root_, "tunnelIntfSnmpAgent", inputs);
    FAIL();
  } catch (Zel::GenericAccessError const & error) {
    EXPECT_STREQ(error.what(), "attribute tunnelIntfSnmpAgent: an argument is a "
                               "TunnelIntfSnmp::TunnelMib, which does not fit");
  }
  inputs = {world_.mib, world_.dir, world_.ifMib, world_.ikeStatus, nullptr};
  EXPECT_THROW(Zel::attributeIs(*root_, "tunnelIntfSnmpAgent", inputs), Zel::GenericAccessError);
  EXPECT_THROW(Zel::attributeIs(*root_, "name", inputs), Zel::GenericAccessError);
  EXPECT_THROW(Zel::attribute(*root_, "nonsense"), Zel::GenericAccessError);
  EXPECT_EQ(told_, 0u);
}

TEST_F(RootTest, TracesTheStartOfTheAgent) {
  TraceRecorder traces{{"TunnelIntfSnmpAgent", "8-9"}};
  setAgent();
  ASSERT_GE(traces.lines().size(), 2u);
  EXPECT_EQ(traces.texts(8),
            std::vector<std::string>{
                "Enter void TunnelIntfSnmp::TunnelIntfSnmpAgent::handleInitialized()"});
  EXPECT_THAT(traces.texts(9),
              ElementsAre("Creating TunnelIfTableSm", "Creating TunnelInetConfigTableSm",
                          "Creating IpsecTunnelIfTableSm"));
}

TEST_F(RootTest, TracesTheCreationOfAMachineBeforeItBegins) {
  TraceRecorder traces{{"TunnelIntfSnmpAgent", "9"},
                       {"TunnelIfTableSm", "0-9"},
                       {"TunnelInetConfigTableSm", "0-9"},
                       {"IpsecTunnelIfTableSm", "0-9"}};
  setAgent();
  std::vector<std::string> order; // each machine's first line, and the agent's between them
  for (auto const & line : traces.lines())
    if (line.handler == "TunnelIntfSnmpAgent")
      order.push_back(line.text);
    else if (order.empty() || order.back() != line.handler)
      order.push_back(line.handler);
  EXPECT_THAT(order, ElementsAre("Creating TunnelIfTableSm", "TunnelIfTableSm",
                                 "Creating TunnelInetConfigTableSm", "TunnelInetConfigTableSm",
                                 "Creating IpsecTunnelIfTableSm", "IpsecTunnelIfTableSm"));
}

TEST_F(RootTest, StartsItsMachinesWithTheDefaultControlRecord) {
  auto const agent = setAgent();
  EXPECT_EQ(agent->smControl().taskScheduler, nullptr);
  EXPECT_EQ(agent->smControl().taskPriority, 3);
  EXPECT_EQ(agent->smControl().traceHandlerName, "");
  EXPECT_EQ(agent->smControl().synchronousMode, 0);
  EXPECT_EQ(agent->smControl().version, 0u);
  auto const expectUsed = [&](Flowa::SmControl const & used) {
    EXPECT_EQ(used.taskScheduler, world_.scheduler);
    EXPECT_EQ(used.taskPriority, 3);
  };
  expectUsed(agent->tunnelIfTableSm()->flowaControl());
  expectUsed(agent->tunnelInetConfigTableSm()->flowaControl());
  expectUsed(agent->ipsecTunnelIfTableSm()->flowaControl());
}

TEST_F(RootTest, ShowsTheControlRecordsByName) {
  auto const agent = setAgent();
  auto const textOf = [](Zel::PtrInterface const & object, std::string_view name) {
    return std::get<std::string>(Zel::attribute(object, name).is);
  };
  auto const text = Zel::valueToStrep(agent->smControl());
  EXPECT_THAT(text, testing::HasSubstr("'taskPriority': 3"));
  EXPECT_EQ(textOf(*agent, "smControl"), text);
  EXPECT_EQ(textOf(*agent->tunnelIfTableSm(), "flowaControl"), text);
}

TEST_F(RootTest, KeepsAMachineAndUpdatesItsControlRecord) {
  auto const agent = setAgent();
  auto const machine = agent->tunnelIfTableSm();
  Flowa::SmControl changed;
  changed.taskPriority = 9;
  EXPECT_EQ(agent->tunnelIfTableSmIs(world_.mib, world_.dir, world_.ifMib, changed), machine);
  EXPECT_EQ(machine->flowaControl().taskPriority, 9);
  auto const other = Zel::makePtr<IntfSnmp::IfMib>("other");
  changed.taskPriority = 1;
  EXPECT_NE(agent->tunnelIfTableSmIs(world_.mib, world_.dir, other, changed), machine);
  EXPECT_EQ(machine->flowaControl().taskPriority, 1) << "the one that goes is told, too";
}

TEST_F(RootTest, ReleasesAMachineWhichStopsItsWork) {
  auto const agent = setAgent();
  auto const rows = [this] {
    auto const status = world_.addStatus(1);
    status->ipsecIs(true);
    status->srcAddrIs(*Plexa::IpGenAddr::fromString("10.0.0.1"));
    status->dstAddrIs(*Plexa::IpGenAddr::fromString("10.0.0.2"));
    world_.addIfIndex(1, 10);
    std::array const sizes{world_.mib->tunnelIfTable().size(),
                           world_.mib->tunnelInetConfigTable().size(),
                           world_.mib->ipsecTunnelIfTable().size()};
    world_.dir->intfStatusDel(Plexa::IntfId(1));
    world_.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1));
    return sizes;
  };
  EXPECT_THAT(rows(), ElementsAre(1, 1, 1));
  for (int round = 0; round != 2; ++round)
    agent->tunnelInetConfigTableSmDel();
  EXPECT_EQ(agent->tunnelInetConfigTableSm(), nullptr);
  EXPECT_THAT(rows(), ElementsAre(1, 0, 1));
  agent->ipsecTunnelIfTableSmDel();
  EXPECT_EQ(agent->ipsecTunnelIfTableSm(), nullptr);
  EXPECT_THAT(rows(), ElementsAre(1, 0, 0));
  agent->tunnelIfTableSmDel();
  EXPECT_EQ(agent->tunnelIfTableSm(), nullptr);
  EXPECT_THAT(rows(), ElementsAre(0, 0, 0));
}

// The inputs of a machine; number `other` of them, counted from 0, is another object than the
// world's.
struct Inputs {
  Inputs(World const & world, int other)
      : mib(other == 0 ? Zel::makePtr<TunnelMib>("other") : world.mib),
        dir(other == 1 ? Zel::makePtr<Interface::TunnelIntfStatusDir>("other") : world.dir),
        ifMib(other == 2 ? Zel::makePtr<IntfSnmp::IfMib>("other") : world.ifMib),
        ikeStatus(other == 3 ? Zel::makePtr<Ipsec::Ike::Status>("other") : world.ikeStatus) {}

  Zel::Ptr<TunnelMib> mib;
  StatusDirPtr dir;
  IfMibPtr ifMib;
  IkeStatusPtr ikeStatus;
};

TEST_F(RootTest, ReplacesAMachineWhenAnyOfItsInputsDiffers) {
  auto const agent = setAgent();
  auto const & control = agent->smControl();
  auto const first = [&](Inputs const & in) {
    return agent->tunnelIfTableSmIs(in.mib, in.dir, in.ifMib, control);
  };
  auto const second = [&](Inputs const & in) {
    return agent->tunnelInetConfigTableSmIs(in.mib, in.dir, in.ifMib, control);
  };
  auto const third = [&](Inputs const & in) {
    return agent->ipsecTunnelIfTableSmIs(in.mib, in.dir, in.ifMib, in.ikeStatus, control);
  };
  auto const expectReplaced = [&](auto const & smIs, int inputs) {
    for (int other = 0; other != inputs; ++other) {
      auto const before = smIs(Inputs(world_, -1));
      EXPECT_EQ(smIs(Inputs(world_, -1)), before);
      Inputs const changed(world_, other);
      auto const after = smIs(changed);
      EXPECT_NE(after, before) << other;
      EXPECT_TRUE(after->hasNotificationActive());
      EXPECT_EQ(after->mib(), changed.mib);
      EXPECT_EQ(after->tunnelIntfStatusDir(), changed.dir);
      EXPECT_EQ(after->ifMib(), changed.ifMib);
    }
  };
  expectReplaced(first, 3);
  expectReplaced(second, 3);
  expectReplaced(third, 4);
}

// What a machine holds because its notification is off it works off when it is torn down.
TEST_F(RootTest, TearsItsMachinesDownInTheOrderOfTheirCreation) {
  auto agent = setAgent();
  agent->tunnelIfTableSm()->hasNotificationActiveIs(false);
  agent->tunnelInetConfigTableSm()->hasNotificationActiveIs(false);
  agent->ipsecTunnelIfTableSm()->hasNotificationActiveIs(false);
  auto const status = world_.addStatus(1);
  status->ipsecIs(true);
  status->srcAddrIs(*Plexa::IpGenAddr::fromString("10.0.0.1"));
  status->dstAddrIs(*Plexa::IpGenAddr::fromString("10.0.0.2"));
  world_.addIfIndex(1, 10);
  std::vector<std::string_view> written;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const & change) {
    if (written.empty() || written.back() != change.attribute().name)
      written.push_back(change.attribute().name);
  });
  root_->tunnelIntfSnmpAgentDel();
  EXPECT_THAT(written, IsEmpty()) << "the test holds the agent";
  agent = nullptr;
  EXPECT_THAT(written, ElementsAre("tunnelIfTable", "tunnelInetConfigTable", "ipsecTunnelIfTable"));
}

TEST_F(RootTest, HasAnAgentThatItsFactoryMakesAsWell) {
  for (auto const & agent :
       {tunnelIntfSnmpAgentFactory(world_.mib, world_.dir, world_.ifMib, world_.ikeStatus),
        TunnelIntfSnmpAgent::TunnelIntfSnmpAgentIs(world_.mib, world_.dir, world_.ifMib,
                                                   world_.ikeStatus)}) {
    EXPECT_EQ(agent->tunnelMib(), world_.mib);
    EXPECT_EQ(agent->tunnelIntfStatusDir(), world_.dir);
    EXPECT_EQ(agent->ifMib(), world_.ifMib);
    EXPECT_EQ(agent->ikeStatus(), world_.ikeStatus);
    EXPECT_NE(agent->ipsecTunnelIfTableSm(), nullptr);
  }
}

TEST_F(RootTest, KeepsTheOldAgentWhenTheNewOneCannotStart) {
  auto const agent = setAgent();
  // The second machine traces when its construction begins: let that throw.
  TraceRecorder traces{{"TunnelInetConfigTableSm", "8"}};
  auto const before = Lumo::traceSinkIs([](auto const &) { throw std::runtime_error("no"); });
  auto const other = Zel::makePtr<TunnelMib>("other");
  EXPECT_THROW(root_->tunnelIntfSnmpAgentIs(other, world_.dir, world_.ifMib, world_.ikeStatus),
               std::runtime_error);
  Lumo::traceSinkIs(before);
  world_.addTunnel(1, 1);
  EXPECT_TRUE(other->tunnelIfTable().empty()) << "the first machine went with it";
  EXPECT_EQ(root_->tunnelIntfSnmpAgent(), agent);
  EXPECT_EQ(told_, 1u);
}

} // namespace
} // namespace TunnelIntfSnmp
