// What each event means to tunnelInetConfigTable and to the store behind it. The trace lines are in
// TunnelInetConfigTraceTest.cpp.
#include "tests/machines/InetConfigWorld.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using Plexa::TunnelIntfMode;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t other = 1, direct = 2, gre = 3; // IANAtunnelType
auto const keyAB = inetConfigKey("10.0.0.1", "10.0.0.2", gre);
auto const keyAC = inetConfigKey("10.0.0.1", "10.0.0.3", gre);

// In every way that a machine can run

class InetConfig : public ::testing::TestWithParam<RunMode> {
protected:
  InetConfig() {
    machine_ = world_.machine();
    world_.settle();
  }
  ~InetConfig() override {
    if (machine_ && agrees_)
      expectStoreAndTableAgree(*machine_);
  }

  std::size_t slots() const {
    return machine_->localAttrStore()->tunnelInetConfigByIfIndex().size();
  }
  bool hasSlot(std::uint32_t ifIndex) const {
    return machine_->localAttrStore()->tunnelInetConfigByIfIndex().find(ifIndex) != nullptr;
  }
  // Releases the machine and starts another over what it left.
  void restart() {
    machine_ = nullptr;
    machine_ = world_.machine();
    world_.settle();
  }

  InetConfigWorld world_{GetParam(), testSeed()};
  Zel::Ptr<TunnelInetConfigTableSm> machine_;
  bool agrees_ = true; ///< false where a row is left behind by what the inputs did
};
INSTANTIATE_TEST_SUITE_P(Modes, InetConfig, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

// Rows come

TEST_P(InetConfig, AddsTheRowWhenAStatusMeetsItsIfIndex) {
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
}

TEST_P(InetConfig, AddsTheRowWhenTheIfIndexArrivesAfterTheStatus) {
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty());
  world_.addIfIndex(1, 10);
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
}

TEST_P(InetConfig, TakesTheAddressTypeFromTheSourceAndTheOctetsOfBothAddresses) {
  for (std::uint32_t id = 1; id <= 4; ++id)
    world_.addIfIndex(id, id);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(2, "2001:db8::1", "2001:db8::2");
  world_.addEndpoints(3, "10.0.0.1", "2001:db8::2");
  world_.addEndpoints(4, "2001:db8::1", "10.0.0.2");
  std::vector<std::uint32_t> order;
  for (auto const & [key, row] : world_.mib->tunnelInetConfigTable()) {
    order.push_back(row->ifIndex());
    EXPECT_EQ(row->addrType(), row->ifIndex() % 2 == 1 ? 1u : 2u);
    EXPECT_EQ(row->localAddr().size(), row->ifIndex() % 2 == 1 ? 4u : 16u);
    EXPECT_EQ(row->remoteAddr().size(), row->ifIndex() % 3 == 1 ? 4u : 16u);
  }
  EXPECT_THAT(order, ElementsAre(1, 3, 4, 2)) << "by type, local address, length of the remote one";
}

TEST_P(InetConfig, WritesTheModesNumberAndAlwaysConfigIdOne) {
  TunnelIntfMode const modes[] = {TunnelIntfMode::unknown, TunnelIntfMode::gre,
                                  TunnelIntfMode::direct, TunnelIntfMode::vti,
                                  TunnelIntfMode::wireguard};
  std::uint32_t const numbers[] = {other, gre, direct, other, other};
  for (std::uint32_t i = 0; i != 5; ++i) {
    world_.addIfIndex(i, 100 + i);
    world_.addEndpoints(i, fmt::format("10.0.0.{}", i + 1), "10.0.1.1", modes[i]);
  }
  ASSERT_EQ(world_.inetConfigRows().size(), 5u);
  for (auto const & [key, row] : world_.mib->tunnelInetConfigTable()) {
    EXPECT_EQ(row->encapsMethod(), numbers[row->ifIndex() - 100]) << row->ifIndex();
    EXPECT_EQ(row->configId(), 1u);
  }
}

TEST_P(InetConfig, TakesAnyUnsignedIfIndex) {
  world_.addIfIndex(1, 4294967295);
  world_.addIfIndex(2, 0);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.3");
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 4294967295}, {keyAC, 0}}));
}

TEST_P(InetConfig, HasNoRowForATunnelWithoutTwoRealAddressesUntilItGetsThem) {
  char const * const none[] = {"", "0.0.0.0", "::"};
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "", "");
  for (char const * zero : none) {
    status->srcAddrIs(address(zero));
    status->dstAddrIs(address("10.0.0.2"));
    EXPECT_THAT(world_.inetConfigRows(), IsEmpty()) << "source " << zero;
    status->srcAddrIs(address("10.0.0.1"));
    EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
    status->dstAddrIs(address(zero));
    EXPECT_THAT(world_.inetConfigRows(), IsEmpty()) << "destination " << zero;
    EXPECT_EQ(slots(), 0u);
    status->dstAddrIs(address("10.0.0.2"));
    EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
  }
}

// Rows change and go

TEST_P(InetConfig, DeletesTheRowAndTheSlotWhenTheStatusGoes) {
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.dir->intfStatusDel(IntfId(1));
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty());
  EXPECT_EQ(slots(), 0u);
}

TEST_P(InetConfig, MovesTheRowToTheNewKeyInTheEventOfAnyOfTheThreeAttributes) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  status->srcAddrIs(address("10.0.0.9"));
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{inetConfigKey("10.0.0.9", "10.0.0.2", gre), 10}}));
  status->dstAddrIs(address("2001:db8::7"));
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{inetConfigKey("10.0.0.9", "2001:db8::7", gre), 10}}));
  status->modeIs(TunnelIntfMode::direct);
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{inetConfigKey("10.0.0.9", "2001:db8::7", direct), 10}}));
  EXPECT_EQ(slots(), 1u);
}

TEST_P(InetConfig, WritesTheSameKeyAgainWhenTheModeChangesWithoutANewNumber) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2", TunnelIntfMode::vti);
  auto const key = inetConfigKey("10.0.0.1", "10.0.0.2", other);
  auto const before = world_.mib->tunnelInetConfigTable()[key];
  ASSERT_TRUE(before);
  std::size_t told = 0;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { ++told; });
  status->modeIs(TunnelIntfMode::xfrm);
  auto const after = world_.mib->tunnelInetConfigTable()[key];
  ASSERT_TRUE(after);
  EXPECT_NE(after, before) << "a new entry";
  EXPECT_EQ(told, 2u) << "one deletion, one insertion";
}

TEST_P(InetConfig, HearsNothingOfTheOtherAttributes) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  auto const row = world_.mib->tunnelInetConfigTable()[keyAB];
  TraceRecorder traces{{"TunnelInetConfigTableSm", "all"}};
  status->hopLimitIs(7);
  status->tosIs(46);
  status->ipsecIs(true);
  EXPECT_THAT(traces.lines(), IsEmpty());
  EXPECT_EQ(world_.mib->tunnelInetConfigTable()[keyAB], row);
}

TEST_P(InetConfig, TakesAReplacedRecordForOneEventAndForgetsTheOldOne) {
  world_.addIfIndex(1, 10);
  auto const old = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  TraceRecorder traces{{"TunnelInetConfigTableSm", "7"}};
  auto const fresh = world_.addEndpoints(1, "10.0.0.1", "10.0.0.3");
  EXPECT_EQ(std::ranges::count_if(traces.texts(),
                                  [](auto const & text) { return text.starts_with("tisStream"); }),
            1);
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}}));
  EXPECT_EQ(machine_->intfStatusSm0()->childSm(IntfId(1))->status(), fresh);
  traces.clear();
  old->dstAddrIs(address("10.0.0.77"));
  EXPECT_THAT(traces.lines(), IsEmpty());
  fresh->dstAddrIs(address("10.0.0.2"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
}

TEST_P(InetConfig, TakesANullStatusForAnAbsentOne) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  world_.dir->intfStatusIs(IntfId(2), nullptr);
  EXPECT_FALSE(machine_->intfStatusSm0()->childSm(IntfId(2)));
  world_.addIfIndex(2, 21); // an event of its ifIndex
  auto const owner = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  owner->dstAddrIs(address("10.0.0.3")); // a rescan over the null
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}}));
  world_.dir->intfStatusIs(IntfId(1), nullptr);
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty());
  EXPECT_FALSE(machine_->intfStatusSm0()->childSm(IntfId(1)));
}

TEST_P(InetConfig, TakesANullStatusForAnAbsentOneInItsScans) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  world_.dir->intfStatusIs(IntfId(1), nullptr);
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  world_.mib->tunnelInetConfigTableDelAll();
  restart();
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 20}}));
}

// Contested keys

TEST_P(InetConfig, LeavesTheRowToWhoeverWasAddedFirst) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  auto const row = world_.mib->tunnelInetConfigTable()[keyAB];
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  EXPECT_EQ(world_.mib->tunnelInetConfigTable()[keyAB], row) << "untouched";
  EXPECT_EQ(row->ifIndex(), 20u);
  EXPECT_FALSE(hasSlot(10));
}

TEST_P(InetConfig, HandsTheRowOverWhenItsOwnerIsRemoved) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  world_.dir->intfStatusDel(IntfId(1));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 20}}));
  EXPECT_TRUE(hasSlot(20));
  EXPECT_FALSE(hasSlot(10));
}

TEST_P(InetConfig, KeepsTheOwnersRowWhenAWaitingTunnelIsRemoved) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  auto const row = world_.mib->tunnelInetConfigTable()[keyAB];
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  world_.dir->intfStatusDel(IntfId(2));
  EXPECT_EQ(world_.mib->tunnelInetConfigTable()[keyAB], row);
}

TEST_P(InetConfig, PassesARowOfThreeClaimantsOnUntilNobodyIsLeft) {
  std::set<std::uint32_t> waiting{10, 20, 30};
  for (std::uint32_t const ifIndex : waiting) {
    world_.addIfIndex(ifIndex / 10, ifIndex);
    world_.addEndpoints(ifIndex / 10, "10.0.0.1", "10.0.0.2");
  }
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
  while (!waiting.empty()) {
    auto const row = world_.mib->tunnelInetConfigTable()[keyAB];
    ASSERT_TRUE(row);
    EXPECT_EQ(waiting.erase(row->ifIndex()), 1u) << "one that had it not yet";
    expectStoreAndTableAgree(*machine_);
    world_.dir->intfStatusDel(IntfId(row->ifIndex() / 10));
  }
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty());
}

TEST_P(InetConfig, HandsTheRowOverWhenItsOwnerIsReaddressed) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  auto const owner = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  owner->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 20}, {keyAC, 10}}));
}

TEST_P(InetConfig, LeavesATunnelReaddressedOntoAHeldKeyWithoutRowUntilThatRowGoes) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  auto const moving = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.3");
  moving->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 20}}));
  EXPECT_FALSE(hasSlot(10));
  world_.dir->intfStatusDel(IntfId(2));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}}));
}

TEST_P(InetConfig, GivesBothTunnelsTheirRowsWhenTheOwnerKeepsItsKeyAndTheOtherMoves) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  auto const waiting = world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  waiting->modeIs(TunnelIntfMode::direct);
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{keyAB, 10}, {inetConfigKey("10.0.0.1", "10.0.0.2", direct), 20}}));
}

// The ifIndex changes, goes, is taken by another

TEST_P(InetConfig, KeepsTheRowWithTheOldIfIndexWhenTheIfIndexChanges) {
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addIfIndex(1, 11);
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
  EXPECT_FALSE(hasSlot(11));
}

TEST_P(InetConfig, LeavesTheOldRowToItsOldIfIndexWhenAddressesChangeUnderANewOne) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addIfIndex(1, 11);
  status->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}, {keyAC, 11}}));
  world_.dir->intfStatusDel(IntfId(1));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}})) << "nobody has ifIndex 10";
  world_.addIfIndex(2, 10);
  world_.addEndpoints(2, "", "");
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty()) << "its next owner's first event deletes it";
}

TEST_P(InetConfig, KeepsTheRowOfAnInterfaceWhoseIfIndexWentFirst) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.ifMib->ifIndexByIntfIdDel(IntfId(1));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
  status->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
  world_.dir->intfStatusDel(IntfId(1));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}})) << "the status is gone as well";
}

TEST_P(InetConfig, ReplacesTheRowOfThePreviousOwnerOfAnIfIndexWhenItsNewOnesStatusComes) {
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.ifMib->ifIndexByIntfIdDel(IntfId(1));
  world_.addIfIndex(2, 10);
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.3");
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}}));
}

TEST_P(InetConfig, OrphansTheRowOfThePreviousOwnerWhenTheIfIndexComesAfterTheStatus) {
  agrees_ = false;
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.ifMib->ifIndexByIntfIdDel(IntfId(1));
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.3");
  world_.addIfIndex(2, 10);
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}, {keyAC, 10}}));
  EXPECT_EQ(slots(), 1u);
  expectEverySlotHasItsRow(*machine_);
  world_.dir->intfStatusDel(IntfId(2));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}})) << "no slot leads to it";
}

TEST_P(InetConfig, HasOneRowAtATimeForTwoInterfacesOnOneIfIndex) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 10);
  auto const first = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.3");
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}})) << "the last event's";
  first->modeIs(TunnelIntfMode::direct);
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{inetConfigKey("10.0.0.1", "10.0.0.2", direct), 10}}));
  world_.dir->intfStatusDel(IntfId(1));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}})) << "by the rescan";
}

TEST_P(InetConfig, AddsTheRowAgainUnderTheNewIfIndexOnceTheOldRowIsGone) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.addIfIndex(1, 11);
  world_.addIfIndex(1, 10);
  status->modeIs(TunnelIntfMode::direct);
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{inetConfigKey("10.0.0.1", "10.0.0.2", direct), 10}}));
}

// Rows from before

TEST_P(InetConfig, RemovesEveryRowFromBeforeAndLetsTheNextEventBringThemBack) {
  for (std::uint32_t id = 1; id <= 5; ++id) {
    world_.addIfIndex(id, id * 10);
    world_.addEndpoints(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  }
  auto const before = world_.inetConfigRows();
  ASSERT_EQ(before.size(), 5u);
  restart();
  EXPECT_TRUE(machine_->ready());
  EXPECT_FALSE(machine_->mibOutputReconciling());
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty());
  EXPECT_EQ(slots(), 0u);
  world_.addIfIndex(2, 21); // an ifMib event adds one row only
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{inetConfigKey("10.0.0.1", "10.0.1.2", gre), 21}}));
  world_.addEndpoints(1, "10.0.0.1", "10.0.1.1"); // a tis event, by its rescan, all
  auto after = before;
  after[inetConfigKey("10.0.0.1", "10.0.1.2", gre)] = 21;
  EXPECT_EQ(world_.inetConfigRows(), after);
}

TEST_P(InetConfig, KeepsWhatItsOwnScansWroteWhileItReconciles) {
  for (std::uint32_t id = 1; id <= 3; ++id) {
    world_.addIfIndex(id, id * 10);
    world_.addEndpoints(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  }
  world_.mib->tunnelInetConfigTableDelAll();
  world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAB, 77));
  restart();
  EXPECT_EQ(world_.inetConfigRows().size(), 3u);
  EXPECT_FALSE(world_.inetConfigRows().contains(keyAB));
}

TEST_P(InetConfig, DoesNotReconcileAnEmptyTable) {
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world_.mib->tunnelInetConfigTableDelAll();
  TraceRecorder traces{{"TunnelInetConfigTableSm", "9"}};
  restart();
  EXPECT_TRUE(traces.has(9, "Reconciling mibTunnelInetConfigTableOutput: false"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
}

TEST_P(InetConfig, AddsNothingUnderTheKeyOfARowThatSomebodyElseWrote) {
  auto const foreign = tunnelInetConfigTableEntryFactory(keyAB, 77);
  world_.mib->tunnelInetConfigTableIs(foreign);
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  EXPECT_EQ(world_.mib->tunnelInetConfigTable()[keyAB], foreign);
  EXPECT_EQ(slots(), 0u);
  world_.mib->tunnelInetConfigTableDel(keyAB);
}

// Where the row belongs was sought before the slot was made.
TEST_P(InetConfig, WritesItsRowThoughWhoHearsOfTheSlotChangesTheTable) {
  auto const before = inetConfigKey("10.0.0.0", "10.0.0.2", gre);
  world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(before, 70));
  world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAC, 71));
  auto const listener =
      Zel::makePtr<OnChange>(*machine_->localAttrStore(), [&](Zel::Notification const &) {
        world_.mib->tunnelInetConfigTableDel(before);
        world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAB, 72));
      });
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}, {keyAC, 71}}));
  world_.mib->tunnelInetConfigTableDel(keyAC);
}

TEST_P(InetConfig, LeavesItsRowsBehindAndStopsWhenItIsReleased) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  machine_ = nullptr;
  status->dstAddrIs(address("10.0.0.3"));
  world_.settle();
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
  EXPECT_THAT(world_.scheduler->tasks(), IsEmpty());
}

// Inputs are lost

TEST_P(InetConfig, AddsEveryRowAgainWhenAllIsDeletedButTheStatusesStay) {
  for (std::uint32_t id = 1; id <= 4; ++id) {
    world_.addIfIndex(id, id * 10);
    world_.addEndpoints(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  }
  auto const before = world_.inetConfigRows();
  auto const key = before.begin()->first;
  auto const row = world_.mib->tunnelInetConfigTable()[key];
  machine_->doDeleteAll();
  EXPECT_EQ(world_.inetConfigRows(), before);
  EXPECT_NE(world_.mib->tunnelInetConfigTable()[key], row) << "deleted, and added by the rescan";
}

TEST_P(InetConfig, ChangesNothingByTheDeleteAllOfTheIfIndexes) {
  world_.addIfIndex(1, 10);
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  auto const row = world_.mib->tunnelInetConfigTable()[keyAB];
  machine_->ifIndexByIntfIdSm2()->doDeleteAll();
  EXPECT_EQ(world_.mib->tunnelInetConfigTable()[keyAB], row);
}

TEST_P(InetConfig, KeepsOneOwnerOfAContestedKeyWhenAllIsDeleted) {
  for (std::uint32_t id = 1; id <= 3; ++id) {
    world_.addIfIndex(id, id * 10);
    world_.addEndpoints(id, "10.0.0.1", "10.0.0.2");
  }
  machine_->doDeleteAll();
  ASSERT_EQ(world_.inetConfigRows().size(), 1u);
  EXPECT_EQ(world_.inetConfigRows().begin()->first, keyAB);
}

// Listeners that meddle

TEST_P(InetConfig, MaySeeItsInputsChangedByWhoeverHearsOfARow) {
  for (std::uint32_t id = 1; id <= 10; ++id) {
    world_.addIfIndex(id, id);
    world_.addEndpoints(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  }
  auto const meddler = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (auto const left = world_.dir->intfStatus().size(); left > 5)
      world_.dir->intfStatusDel(IntfId(left));
  });
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.9");
  EXPECT_EQ(world_.dir->intfStatus().size(), 5u);
  for (auto const & [key, ifIndex] : world_.inetConfigRows())
    EXPECT_NE(world_.dir->intfStatus().find(IntfId(ifIndex)), nullptr) << ifIndex;
}

TEST_P(InetConfig, MayBeReleasedByWhoeverHearsOfARow) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  auto const meddler =
      Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { machine_ = nullptr; });
  status->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}})) << "the event runs to its end";
  status->dstAddrIs(address("10.0.0.2"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}}));
}

TEST_P(InetConfig, MaySeeTheStatusReplacedByWhoeverHearsOfItsRow) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  bool replaced = false;
  auto const meddler = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (!std::exchange(replaced, true))
      world_.addEndpoints(1, "10.0.0.1", "10.0.0.9");
  });
  status->dstAddrIs(address("10.0.0.3"));
  EXPECT_TRUE(replaced);
  EXPECT_LE(slots(), 1u);
  agrees_ = false; // two writes for one ifIndex were under way at once
  expectEverySlotHasItsRow(*machine_);
}

TEST_P(InetConfig, HoldsChangesOfARecordWhileItsNotificationIsOff) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  machine_->hasNotificationActiveIs(false);
  status->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}}));
  machine_->hasNotificationActiveIs(true);
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}}));
}

TEST_P(InetConfig, DeliversTheChangesOfARecordThatItHoldsBeforeItGoes) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  machine_->hasNotificationActiveIs(false);
  status->dstAddrIs(address("10.0.0.3"));
  machine_ = nullptr;
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAC, 10}}));
}

// Streams, asked directly

TEST_P(InetConfig, RaisesForAnAdditionWithoutAStatus) {
  EXPECT_THROW(machine_->eventToAddStream(10, std::nullopt, true), Zel::BadOptionalAccess);
}

TEST_P(InetConfig, RaisesForAWrapperWithoutAnEntry) {
  auto const slot = machine_->localAttrStore()->tunnelInetConfigByIfIndexIs(10);
  slot->valueIs(nullptr);
  ASSERT_TRUE(slot->value());
  EXPECT_THROW(machine_->eventToDeleteStream(10, std::nullopt, false), Zel::BadOptionalAccess);
}

TEST_P(InetConfig, UsesOnlyTheIfIndexInItsDeleteStream) {
  world_.addIfIndex(1, 10);
  StatusPtr const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  machine_->eventToDeleteStream(10, status, true);
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty());
}

TEST_P(InetConfig, UsesOnlyTheProcessedStatusInItsRescanStream) {
  world_.addIfIndex(1, 10);
  StatusPtr const status = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  machine_->eventToDeleteStream(10, std::nullopt, false);
  machine_->eventToRescanStream(77, status, true);
  EXPECT_THAT(world_.inetConfigRows(), IsEmpty()) << "the processed one is passed over";
  machine_->eventToRescanStream(77, StatusPtr(world_.status(1, "10.0.0.1", "10.0.0.2")), true);
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}})) << "by identity, not by fields";
}

} // namespace
} // namespace TunnelIntfSnmp
