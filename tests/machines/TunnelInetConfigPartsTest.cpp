// The parts of tunnelInetConfigTable's machine apart from what events mean: first pass, children,
// the private store, readiness, task names, the output key, and what the machine dies of.
#include "tests/machines/InetConfigWorld.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>
#include <sstream>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Store = FlowaCode::TunnelInetConfigTableSm::LocalAttrStore;

constexpr std::uint32_t gre = 3; // IANAtunnelType
auto const keyAB = inetConfigKey("10.0.0.1", "10.0.0.2", gre);
auto const keyAC = inetConfigKey("10.0.0.1", "10.0.0.3", gre);
RunMode const & synchronous = runModes[0];
RunMode const & neverYield = runModes[1];
RunMode const & alwaysYield = runModes[2];

// The first pass

TEST(InetConfigEvents, AreDroppedWithoutTraceDuringTheFirstPass) {
  InetConfigWorld world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id) {
    world.addIfIndex(id, id);
    world.addEndpoints(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  }
  StatusPtr const status = world.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  auto const machine = world.machine();
  ASSERT_FALSE(machine->initialScanDone());
  TraceRecorder traces{{"TunnelInetConfigTableSm", "all"}};
  machine->eventToTisStream(IntfId(1), status);
  machine->eventToIfMibStream(IntfId(1), 1u);
  machine->eventToDeleteStream(1, status, true);
  machine->eventToAddStream(1, std::nullopt, true);
  machine->eventToRescanStream(1, status, true);
  EXPECT_THAT(traces.lines(), IsEmpty());
  EXPECT_THAT(world.inetConfigRows(), IsEmpty());
}

TEST(InetConfigEvents, OfTheFirstPassShowInTheSecond) {
  InetConfigWorld world(alwaysYield);
  for (std::uint32_t id = 1; id <= 4; ++id) {
    world.addIfIndex(id, id);
    world.addEndpoints(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  }
  auto const machine = world.machine();
  ASSERT_FALSE(machine->initialScanDone());
  world.dir->intfStatusDel(IntfId(1));
  world.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  world.settle();
  EXPECT_EQ(world.inetConfigRows(),
            (InetConfigRows{{keyAB, 2},
                            {inetConfigKey("10.0.0.1", "10.0.1.3", gre), 3},
                            {inetConfigKey("10.0.0.1", "10.0.1.4", gre), 4}}));
  expectStoreAndTableAgree(*machine);
}

// Reconciliation

class InetConfigReconciliation : public ::testing::Test {
protected:
  // Ten rows from before, and a machine that has deleted some of them.
  InetConfigReconciliation() {
    for (int last = 1; last <= 10; ++last)
      world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(
          inetConfigKey("10.0.0.1", fmt::format("10.0.0.{}", last), gre), 7));
    machine_ = world_.machine();
    while (world_.mib->tunnelInetConfigTable().size() > 5)
      world_.scheduler->runOne();
    EXPECT_TRUE(machine_->mibOutputReconciling());
  }

  InetConfigWorld world_{alwaysYield};
  Zel::Ptr<TunnelInetConfigTableSm> machine_;
  TunnelInetConfigTableKey const behind_ = inetConfigKey("10.0.0.9", "10.0.0.9", gre);
};

TEST_F(InetConfigReconciliation, KeepsARowThatAnEventWroteMeanwhile) {
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.9", "10.0.0.9");
  world_.settle();
  EXPECT_TRUE(machine_->ready());
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{behind_, 10}}));
}

TEST_F(InetConfigReconciliation, LeavesAKeyAloneThatAnEventDeletedMeanwhile) {
  auto const entry = tunnelInetConfigTableEntryFactory(behind_, 10);
  machine_->localAttrStore()->tunnelInetConfigByIfIndexIs(10)->valueIs(entry);
  machine_->eventToDeleteStream(10, std::nullopt, false);
  world_.mib->tunnelInetConfigTableIs(entry); // somebody else's, from now on
  world_.settle();
  EXPECT_TRUE(machine_->ready());
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{behind_, 10}}));
}

// Children

TEST(InetConfigChildren, AreOneForEachStatusAndSayWhenTheyReact) {
  InetConfigWorld world(synchronous);
  auto const machine = world.machine();
  auto const children = machine->intfStatusSm0();
  world.addIfIndex(1, 10);
  auto const status = world.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  auto const child = children->childSm(IntfId(1));
  ASSERT_TRUE(child);
  EXPECT_EQ(child->intfId(), IntfId(1));
  EXPECT_EQ(child->status(), status);
  EXPECT_TRUE(child->inputScanComplete());
  EXPECT_FALSE(children->childSm(IntfId(2)));
  EXPECT_EQ(children->childSmIs(status, IntfId(1)), child) << "kept for the same record";
  std::size_t heard = 0;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    EXPECT_TRUE(child->inReactor());
    ++heard;
  });
  status->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(heard, 2u);
  EXPECT_FALSE(child->inReactor());
  children->childSmDel(IntfId(1));
  EXPECT_FALSE(children->childSm(IntfId(1)));
  children->childSmIs(status, IntfId(1));
  children->childSmDelAll();
  EXPECT_FALSE(children->childSm(IntfId(1)));
}

// The store

class InetConfigStore : public ::testing::Test {
protected:
  Zel::Ptr<Store> const store_ = Zel::makePtr<Store>();
  Zel::Ptr<TunnelInetConfigTableEntry const> const entry_ =
      tunnelInetConfigTableEntryFactory(keyAB, 10);
};

TEST_F(InetConfigStore, FindsOrCreatesAnEmptySlotAndTellsOfANewOne) {
  std::vector<std::uint32_t> told;
  auto const listener = Zel::makePtr<OnChange>(*store_, [&](auto const & change) {
    EXPECT_EQ(&change.attribute(), &Store::tunnelInetConfigByIfIndexAttribute());
    told.push_back(change.template key<std::uint32_t>());
  });
  auto const slot = store_->tunnelInetConfigByIfIndexIs(10);
  EXPECT_EQ(slot->ifIndex(), 10u);
  EXPECT_FALSE(slot->value());
  EXPECT_EQ(store_->tunnelInetConfigByIfIndexIs(10), slot);
  store_->tunnelInetConfigByIfIndexIs(20);
  EXPECT_THAT(told, ElementsAre(10, 20));
}

TEST_F(InetConfigStore, RemovesOneSlotOrAll) {
  for (std::uint32_t const ifIndex : {10, 20, 30})
    store_->tunnelInetConfigByIfIndexIs(ifIndex);
  store_->tunnelInetConfigByIfIndexDel(20);
  store_->tunnelInetConfigByIfIndexDel(99);
  EXPECT_EQ(store_->tunnelInetConfigByIfIndex().size(), 2u);
  EXPECT_EQ(store_->tunnelInetConfigByIfIndex().find(20), nullptr);
  store_->tunnelInetConfigByIfIndexDelAll();
  EXPECT_TRUE(store_->tunnelInetConfigByIfIndex().empty());
}

TEST_F(InetConfigStore, WrapsAnEntryAnewOnlyWhenItIsAnother) {
  auto const slot = store_->tunnelInetConfigByIfIndexIs(10);
  std::size_t told = 0;
  auto const listener = Zel::makePtr<OnChange>(*slot, [&](auto const & change) {
    EXPECT_EQ(&change.attribute(), &Store::Slot::valueAttribute());
    ++told;
  });
  slot->valueIs(entry_);
  auto const wrapper = slot->value();
  EXPECT_EQ(wrapper->mibEntry(), entry_);
  slot->valueIs(entry_);
  EXPECT_EQ(slot->value(), wrapper);
  EXPECT_EQ(told, 1u);
  slot->valueIs(tunnelInetConfigTableEntryFactory(keyAB, 10)); // equal, but not the same
  EXPECT_NE(slot->value(), wrapper);
  EXPECT_EQ(told, 2u);
}

TEST_F(InetConfigStore, TellsThatAValueWentOnlyIfThereWasOne) {
  auto const slot = store_->tunnelInetConfigByIfIndexIs(10);
  slot->valueIs(entry_);
  std::size_t told = 0;
  auto const listener = Zel::makePtr<OnChange>(*slot, [&](auto const &) { ++told; });
  slot->valueDel();
  EXPECT_FALSE(slot->value());
  slot->valueDel();
  EXPECT_EQ(told, 1u);
}

TEST_F(InetConfigStore, ClearsASlotsValueBeforeTheSlotGoes) {
  store_->tunnelInetConfigByIfIndexIs(10)->valueIs(entry_);
  std::size_t told = 0;
  auto const listener =
      Zel::makePtr<OnChange>(*store_->tunnelInetConfigByIfIndexIs(10), [&](auto const & change) {
        told += &change.attribute() == &Store::Slot::valueAttribute();
      });
  store_->tunnelInetConfigByIfIndexDel(10);
  EXPECT_EQ(told, 1u);
}

// Readiness

TEST(InetConfigReadiness, TellsTheStoreFirstThenReadyThenTheTable) {
  InetConfigWorld world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id)
    world.addTunnel(id, id);
  auto const machine = world.machine();
  std::vector<std::string> told;
  auto const listener = Zel::makePtr<OnChange>(*machine->outputState(), [&](auto const & change) {
    told.push_back(fmt::format("{} {}", change.attribute().name, machine->ready()));
  });
  world.settle();
  EXPECT_THAT(told, ElementsAre("tunnelInetConfigByIfIndexOutputReady false", "ready true",
                                "mibTunnelInetConfigTableOutputReady true"));
}

TEST(InetConfigReadiness, OfTheStoreDoesNotWaitForTheReconciliation) {
  InetConfigWorld world(neverYield);
  for (char const * destination : {"10.0.1.1", "10.0.1.2", "10.0.1.3", "10.0.1.4"})
    world.mib->tunnelInetConfigTableIs(
        tunnelInetConfigTableEntryFactory(inetConfigKey("10.0.0.1", destination, gre), 7));
  auto const machine = world.machine();
  EXPECT_TRUE(machine->outputState()->outputReady(0));
  EXPECT_FALSE(machine->outputState()->outputReady(1)) << "the deletion scan yielded to its task";
  EXPECT_FALSE(machine->ready());
  EXPECT_FALSE(machine->idle());
  world.settle();
  EXPECT_TRUE(machine->outputState()->outputReady(1));
  EXPECT_TRUE(machine->ready());
  EXPECT_TRUE(machine->idle());
}

TEST(InetConfigReadiness, IsReachedInConstructionByASynchronousMachine) {
  InetConfigWorld world(synchronous);
  world.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAB, 7));
  world.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAC, 8));
  auto const machine = world.machine();
  EXPECT_TRUE(machine->ready());
  EXPECT_TRUE(machine->idle());
  EXPECT_THAT(world.inetConfigRows(), IsEmpty());
  EXPECT_THAT(world.scheduler->tasks(), IsEmpty());
}

TEST(InetConfigTasks, HaveTheirNames) {
  InetConfigWorld world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id)
    world.addTunnel(id, id);
  auto const machine = world.machine();
  std::vector<std::string> names;
  for (auto const * task : world.scheduler->tasks()) {
    names.push_back(task->name());
    EXPECT_EQ(task->priority(), world.control.taskPriority);
  }
  EXPECT_THAT(names,
              ElementsAre("TunnelInetConfigTableSm-mibTunnelInetConfigTableOutputTask",
                          "TunnelIntfSnmp::TunnelInetConfigTableSm-IfIndexByIntfIdSm2InputScanTask",
                          "TunnelIntfSnmp::TunnelInetConfigTableSm-IntfStatusSm0InputScanTask"));
}

// The output key

using OutputKey = MibTunnelInetConfigTableOutputKeyType;

TEST(MibTunnelInetConfigTableOutputKeyType, OrdersByKeyAndThenByValidity) {
  EXPECT_LT((OutputKey{keyAB, true}), (OutputKey{keyAC, false}));
  EXPECT_LT((OutputKey{keyAB, false}), (OutputKey{keyAB, true}));
  EXPECT_EQ((OutputKey{keyAB, true}), (OutputKey{keyAB, true}));
}

TEST(MibTunnelInetConfigTableOutputKeyType, HashesBothFieldsFromTheSeed) {
  auto const hash = OutputKey{keyAB, true}.hash(7);
  EXPECT_EQ(hash, Zel::Hash(7).mix(keyAB.hash(0)).mix(std::uint8_t{1}).result());
  EXPECT_NE((OutputKey{keyAB, true}.hash(8)), hash);
  EXPECT_NE((OutputKey{keyAB, false}.hash(7)), hash);
  EXPECT_NE((OutputKey{keyAC, true}.hash(7)), hash);
}

TEST(MibTunnelInetConfigTableOutputKeyType, IsNoKeyUntilItIsSet) {
  EXPECT_FALSE(OutputKey());
  EXPECT_TRUE((OutputKey{TunnelInetConfigTableKey(), true}));
  EXPECT_TRUE((OutputKey{keyAB, false}));
  OutputKey key;
  key.validate();
  EXPECT_TRUE(key.k0Valid);
}

TEST(MibTunnelInetConfigTableOutputKeyType, PrintsAndParses) {
  std::string const text =
      "Value('TunnelIntfSnmp::TunnelInetConfigTableSm::MibTunnelInetConfigTableOutputKeyType', ** "
      "{'k0': Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** {'localInetAddr': "
      "Value('Snmp::InetAddress', ** {'addressType': 1, 'address': '0a000001'}), "
      "'remoteAddrBytes': '0a000002', 'encapsMethod': 3, 'configId': 1}), 'k0Valid': True})";
  OutputKey const key{keyAB, true};
  std::ostringstream out;
  out << key;
  EXPECT_EQ(out.str(), text);
  EXPECT_EQ(Zel::strepToValue<OutputKey>(text), key);
  EXPECT_THROW(Zel::strepToValue<OutputKey>(text + " "), Zel::StrepError);
}

// What a machine dies of

TEST(InetConfigDeathTest, DiesOfANullInput) {
  InetConfigWorld world(synchronous);
  std::string const text = "Pointer SM args cannot be null unless they are marked Optional";
  auto const build = [&](auto mib, auto dir, auto ifMib) {
    tunnelInetConfigTableSmFactory(mib, dir, ifMib, world.control);
  };
  EXPECT_DEATH(build(nullptr, world.dir, world.ifMib), HasSubstr("fatal: mib(): " + text));
  EXPECT_DEATH(build(world.mib, nullptr, world.ifMib),
               HasSubstr("fatal: tunnelIntfStatusDir(): " + text));
  EXPECT_DEATH(build(world.mib, world.dir, nullptr), HasSubstr("fatal: ifMib(): " + text));
}

TEST(InetConfigDeathTest, DiesOfAChildWithoutInput) {
  InetConfigWorld world(synchronous);
  auto const machine = world.machine();
  auto const child = Zel::makePtr<FlowaCode::TunnelInetConfigTableSm::SrcAddrMAdstAddrMAmodeSm1>(
      *machine, IntfId(1), nullptr);
  EXPECT_DEATH(child->doInputScan(),
               HasSubstr("fatal: en(): Sm args can only be null if marked as Optional in the SM "
                         "type declaration"));
}

TEST(InetConfigDeathTest, DiesOfIfIndexNotificationsThatItMissed) {
  InetConfigWorld world(synchronous);
  auto const machine = world.machine();
  machine->hasNotificationActiveIs(false);
  world.addIfIndex(1, 1);
  EXPECT_DEATH(machine->doDeleteAll(),
               HasSubstr("We missed notifications that happened to ifIndexByIntfId before the "
                         "enclosing entity got deleted"));
}

} // namespace
} // namespace TunnelIntfSnmp
