// The root and the agent: finding, replacing, removing, and the order of the start.
#include "TunnelIntfSnmp/TunnelIntfSnmpAgent.h"
#include "tests/machines/World.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;

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

TEST_F(RootTest, StartsItsMachinesWithTheDefaultControlRecord) {
  auto const agent = setAgent();
  EXPECT_EQ(agent->smControl().taskScheduler, nullptr);
  EXPECT_EQ(agent->smControl().taskPriority, 3);
  EXPECT_EQ(agent->smControl().traceHandlerName, "");
  EXPECT_EQ(agent->smControl().synchronousMode, 0);
  EXPECT_EQ(agent->smControl().version, 0u);
  auto const & used = agent->tunnelIfTableSm()->flowaControl();
  EXPECT_EQ(used.taskScheduler, world_.scheduler);
  EXPECT_EQ(used.taskPriority, 3);
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

TEST_F(RootTest, ReleasesAMachine) {
  auto const agent = setAgent();
  agent->tunnelIfTableSmDel();
  EXPECT_EQ(agent->tunnelIfTableSm(), nullptr);
  agent->tunnelIfTableSmDel();
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
