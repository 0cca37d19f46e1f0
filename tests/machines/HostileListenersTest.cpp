// What the pattern of the machines withstands of the listeners of rows, stores and flags: some
// throw, some release the machine, some change in the middle of an event what it is about.
#include "tests/machines/EachMachine.h"
#include <functional>
#include <gmock/gmock.h>
#include <utility>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::IsEmpty;

TYPED_TEST_SUITE(EachMachine, Machines);

// Listeners that throw

TYPED_TEST(EachMachine, BecomesReadyThoughAListenerThrowsAtEveryFlag) {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id)
    addEverywhere(world, id);
  auto const machine = make<TypeParam>(world);
  auto const thrower = [](auto const &) { throw std::runtime_error("listener"); };
  auto const ofScans = Zel::makePtr<OnChange>(*machine->inputSmScanState(), thrower);
  auto const ofOutputs = Zel::makePtr<OnChange>(*machine->outputState(), thrower);
  std::vector<std::string> told;
  auto const ready = Zel::makePtr<OnChange>(*machine->outputState(), [&](auto const & change) {
    told.emplace_back(change.attribute().name);
  });
  world.settle();
  EXPECT_TRUE(machine->ready());
  EXPECT_TRUE(machine->idle());
  EXPECT_EQ(rowsOf<TypeParam>(world), 3u);
  EXPECT_EQ(told.back(), outputName<TypeParam>() + "Ready");
}

TYPED_TEST(EachMachine, ReplaysTheWholeLossOfItsStatusesThoughAListenerThrows) {
  World world(synchronous);
  for (std::uint32_t id = 1; id <= 3; ++id)
    addEverywhere(world, id);
  auto const machine = make<TypeParam>(world);
  std::size_t heard = 0;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    ++heard;
    throw std::runtime_error("listener");
  });
  machine->intfStatusSm0()->doDeleteAll();
  if constexpr (std::is_same_v<TypeParam, TunnelIfTableSm>) {
    EXPECT_EQ(rowsOf<TypeParam>(world), 0u);
  }
  if constexpr (std::is_same_v<TypeParam, TunnelInetConfigTableSm>) {
    EXPECT_EQ(heard, 6u) << "each row went and was added again by the rescan";
  }
}

TEST(Store, ContainsWhatItsListenersAndThoseOfItsSlotsThrow) {
  InetConfigWorld world(synchronous);
  auto const machine = world.machine();
  auto const & slots = machine->localAttrStore()->tunnelInetConfigByIfIndex();
  Zel::Ptr<OnChange> ofSlot;
  auto const ofStore = Zel::makePtr<OnChange>(*machine->localAttrStore(), [&](auto const &) {
    ofSlot = Zel::makePtr<OnChange>(
        **slots.find(1), [](auto const &) { throw std::runtime_error("listener of a slot"); });
    throw std::runtime_error("listener of the store");
  });
  auto const contained = Lumo::counter("zel-exceptions-contained");
  EXPECT_NO_THROW(addEverywhere(world, 1));
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained + 2);
  EXPECT_EQ(world.inetConfigRows().size(), 1u);
  expectStoreAndTableAgree(*machine);
}

// A slot without an entry is somebody else's fault; the scan that comes upon it goes on.
TEST(Scan, GoesOnWhenTheEventOfOneKeyRaises) {
  InetConfigWorld world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id)
    addEverywhere(world, id);
  auto const machine = world.machine();
  while (!machine->initialScanDone() || !machine->inputSmScanState()->scan(0))
    ASSERT_TRUE(world.scheduler->runOne());
  machine->localAttrStore()->tunnelInetConfigByIfIndexIs(2)->valueIs(nullptr);
  auto const contained = Lumo::counter("zel-exceptions-contained");
  world.settle();
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained + 1);
  EXPECT_TRUE(machine->ready());
  EXPECT_TRUE(world.inetConfigRows().contains(inetConfigKey("10.0.0.1", "10.0.1.3", gre)));
}

// Listeners that release the machine

TYPED_TEST(EachMachine, MayBeReleasedInAnyNotificationOfItsStart) {
  for (auto const yield : {Yield::never, Yield::always, Yield::random}) {
    auto wasReleased = true;
    for (std::size_t released = 1; wasReleased; ++released) {
      World world({"", false, Yield::always}, testSeed());
      for (std::uint32_t id = 1; id <= 3; ++id)
        addEverywhere(world, id);
      addRowsFromBefore(world, 3, 5);
      auto machine = make<TypeParam>(world);
      world.scheduler->yieldIs(yield);
      std::size_t told = 0;
      auto const release = [&](auto const &) {
        if (++told == released)
          machine = nullptr;
      };
      auto const ofRows = Zel::makePtr<OnChange>(*world.mib, release);
      auto const ofScans = Zel::makePtr<OnChange>(*machine->inputSmScanState(), release);
      auto const ofOutputs = Zel::makePtr<OnChange>(*machine->outputState(), release);
      world.settle();
      wasReleased = !machine;
      EXPECT_GE(released, wasReleased ? 1u : 8u) << "so many things are told";
      EXPECT_TRUE(wasReleased || machine->ready());
      EXPECT_THAT(world.scheduler->tasks(), IsEmpty());
    }
  }
}

TYPED_TEST(EachMachine, MayBeReleasedInAnyNotificationOfACallFromOutside) {
  using Call = void (*)(TypeParam &);
  Call const calls[] = {
      [](TypeParam & machine) { machine.handleOutputsInputReady(); },
      [](TypeParam & machine) { machine.handleInitialScanDone(); },
      [](TypeParam & machine) { machine.zelDoZombieReactors(true); },
      [](TypeParam & machine) { machine.hasNotificationActiveIs(true); },
      [](TypeParam & machine) { machine.intfStatusSm0()->doInputScan(); },
      [](TypeParam & machine) { machine.intfStatusSm0()->zelDoZombieReactors(true); },
      [](TypeParam & machine) { machine.intfStatusSm0()->hasNotificationActiveIs(true); },
      [](TypeParam & machine) { machine.intfStatusSm0()->doDeleteAll(); },
      [](TypeParam & machine) {
        try {
          machine.doDeleteAll();
        } catch (Zel::BadOptionalAccess const &) { // an ifIndex lost before its status
        }
      }};
  for (auto const call : calls)
    for (auto const progress : {0, 2, 5, 8, 10, 11, 12, 13, 100}) {
      World world(alwaysYield);
      for (std::uint32_t id = 1; id <= 3; ++id)
        addEverywhere(world, id);
      addRowsFromBefore(world, 3, 5);
      auto machine = make<TypeParam>(world);
      for (int run = 0; run != progress; ++run)
        world.scheduler->runOne();
      auto * const raw = machine.get();
      Zel::Ptr<InputSm> const child = machine->intfStatusSm0();
      if (call == calls[2] || call == calls[3] || call == calls[5] || call == calls[6]) {
        machine->hasNotificationActiveIs(false); // now there is something to deliver
        addEverywhere(world, 2);
        world.dir->intfStatusDel(IntfId(1));
        addEverywhere(world, 7);
      }
      auto const release = [&](auto const &) { machine = nullptr; };
      auto const ofRows = Zel::makePtr<OnChange>(*world.mib, release);
      auto const ofScans = Zel::makePtr<OnChange>(*machine->inputSmScanState(), release);
      auto const ofOutputs = Zel::makePtr<OnChange>(*machine->outputState(), release);
      call(*raw);
      machine = nullptr;
      world.settle();
      EXPECT_THAT(world.scheduler->tasks(), IsEmpty());
    }
}

// Two claims on one ifIndex

TEST(SharedIfIndex, OfTunnelIfTableGoesToWhoClaimedItInsideTheOthersReplacement) {
  World world(synchronous);
  world.addTunnel(1, 10);
  auto const machine = make<TunnelIfTableSm>(world);
  auto claims = true;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (std::exchange(claims, false))
      world.addTunnel(2, 10);
  });
  auto const contained = Lumo::counter("zel-exceptions-contained");
  EXPECT_NO_THROW(world.addStatus(1));
  EXPECT_EQ(world.tunnelIfRows(), (Rows{{10, 2}})) << "the later claim";
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained);
}

TEST(SharedIfIndex, OfIpsecTunnelIfTableGoesToWhoClaimedItInsideTheOthersReplacement) {
  World world(synchronous);
  auto const protect = [&](std::uint64_t id) {
    auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(IntfId(id));
    status->ipsecIs(true);
    world.addIfIndex(id, 10);
    world.dir->intfStatusIs(IntfId(id), status);
    return status;
  };
  protect(1);
  auto const machine = make<IpsecTunnelIfTableSm>(world);
  auto claims = true;
  StatusPtr second;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (std::exchange(claims, false))
      second = protect(2);
  });
  EXPECT_NO_THROW(protect(1));
  ASSERT_TRUE(world.mib->ipsecTunnelIfTable(10));
  EXPECT_EQ(world.mib->ipsecTunnelIfTable(10)->tunnelIntfStatus(), second) << "the later claim";
}

// A listener that hears of a slot whose row is still to be written, and changes what it is made of

auto const keyAB = inetConfigKey("10.0.0.1", "10.0.0.2", gre);
auto const keyAC = inetConfigKey("10.0.0.1", "10.0.0.3", gre);

enum class Told { slot, value };

class NewSlot : public ::testing::TestWithParam<Told> {
protected:
  using Answer = std::function<void()>;

  /// Does `answer` when the store tells of a slot, or the slot of its value, for the first time.
  void answerIs(Answer answer) {
    answer_ = std::move(answer);
    ofStore_ = Zel::makePtr<OnChange>(*machine_->localAttrStore(), [this](auto const & change) {
      if (GetParam() == Told::slot)
        return answerOnce();
      if (auto const & slot = slotOf(change.template key<std::uint32_t>()); !ofValue_)
        ofValue_ = Zel::makePtr<OnChange>(slot, [this](auto const &) { answerOnce(); });
    });
  }
  void tunnelComes() {
    auto const contained = Lumo::counter("zel-exceptions-contained");
    world_.addIfIndex(1, 10);
    world_.dir->intfStatusIs(IntfId(1), record_);
    EXPECT_FALSE(answer_) << "it was told";
    EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained) << "nothing raises";
    EXPECT_EQ(machine_->rescan().flaw(), "");
    EXPECT_LE(machine_->rescan().remembered(), world_.dir->intfStatus().size());
  }
  void expectRows(InetConfigRows const & rows) const {
    EXPECT_EQ(world_.inetConfigRows(), rows);
    expectStoreAndTableAgree(*machine_);
  }
  FlowaCode::TunnelInetConfigTableSm::LocalAttrStore::Slot const & slotOf(std::uint32_t ifIndex) {
    return **machine_->localAttrStore()->tunnelInetConfigByIfIndex().find(ifIndex);
  }

  InetConfigWorld world_{synchronous};
  Zel::Ptr<TunnelInetConfigTableSm> machine_ = world_.machine();
  Zel::Ptr<Interface::TunnelIntfStatus> const record_ =
      InetConfigWorld::status(1, "10.0.0.1", "10.0.0.2");

private:
  void answerOnce() {
    if (auto const answer = std::exchange(answer_, nullptr))
      answer();
  }

  Answer answer_;
  Zel::Ptr<OnChange> ofStore_;
  Zel::Ptr<OnChange> ofValue_;
};
INSTANTIATE_TEST_SUITE_P(Listeners, NewSlot, ::testing::Values(Told::slot, Told::value),
                         [](auto const & told) {
                           return told.param == Told::slot ? "OfStore" : "OfSlot";
                         });

TEST_P(NewSlot, GetsNoRowWhenItsTunnelIsRemoved) {
  answerIs([&] { world_.dir->intfStatusDel(IntfId(1)); });
  tunnelComes();
  expectRows({});
}

TEST_P(NewSlot, GetsNoRowWhenItsTunnelIsRemovedInAnIfIndexEvent) {
  answerIs([&] { world_.dir->intfStatusDel(IntfId(1)); });
  world_.dir->intfStatusIs(IntfId(1), record_);
  tunnelComes();
  world_.dir->intfStatusDel(IntfId(1));
  expectRows({});
  EXPECT_EQ(machine_->rescan().remembered(), 0u);
}

TEST_P(NewSlot, GetsTheRowOfTheAddressThatItsTunnelIsGiven) {
  answerIs([&] { record_->dstAddrIs(address("10.0.0.3")); });
  tunnelComes();
  expectRows({{keyAC, 10}});
}

TEST_P(NewSlot, MakesWayForTheSlotOfAnIfIndexThatItsTunnelIsGiven) {
  answerIs([&] { world_.addIfIndex(1, 11); });
  tunnelComes();
  expectRows({{keyAB, 11}});
}

TEST_P(NewSlot, MakesWayForTheRecordThatReplacesItsTunnels) {
  answerIs([&] { world_.addEndpoints(1, "10.0.0.1", "10.0.0.3"); });
  tunnelComes();
  expectRows({{keyAC, 10}});
}

TEST_P(NewSlot, StaysWithTheTunnelThatTakesItsIfIndex) {
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.3");
  answerIs([&] { world_.addIfIndex(2, 10); });
  tunnelComes();
  expectRows({{keyAC, 10}});
  EXPECT_EQ(slotOf(10).holder(), IntfId(2));
  world_.dir->intfStatusDel(IntfId(2));
  expectRows({{keyAB, 10}});
}

TEST_P(NewSlot, GetsItsRowInThePlaceOfOneThatSomebodyElseWrites) {
  answerIs(
      [&] { world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAB, 77)); });
  tunnelComes();
  expectRows({{keyAB, 10}});
}

TEST_P(NewSlot, MakesWayForTheRowThatAnotherTunnelIsGivenUnderItsKey) {
  world_.addIfIndex(2, 20);
  answerIs([&] { world_.addEndpoints(2, "10.0.0.1", "10.0.0.2"); });
  tunnelComes();
  expectRows({{keyAB, 20}});
  world_.dir->intfStatusDel(IntfId(2));
  expectRows({{keyAB, 10}});
}

TEST_P(NewSlot, TakesNoRowAwayFromTheTunnelThatWasGivenItsKeyWhenItGoes) {
  world_.addIfIndex(2, 20);
  answerIs([&] {
    world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
    record_->dstAddrIs(address("10.0.0.3"));
  });
  tunnelComes();
  expectRows({{keyAB, 20}, {keyAC, 10}});
}

TEST_P(NewSlot, MayFindTheStoreEmptied) {
  answerIs([&] { machine_->localAttrStore()->tunnelInetConfigByIfIndexDelAll(); });
  tunnelComes();
  expectRows({});
  record_->modeIs(Plexa::TunnelIntfMode::vti);
  EXPECT_EQ(world_.inetConfigRows().size(), 1u) << "it is tried again";
}

TEST(Store, MayBeChangedByAListenerOfASlotThatGoes) {
  InetConfigWorld world(synchronous);
  for (std::uint32_t id = 1; id <= 20; ++id)
    addEverywhere(world, id);
  auto const machine = world.machine();
  auto const & slots = machine->localAttrStore()->tunnelInetConfigByIfIndex();
  std::uint32_t next = 100;
  auto const addMore = [&](auto const &) {
    for (auto const last = next + 20; next != last; ++next)
      addEverywhere(world, next);
  };
  auto const ofOne = Zel::makePtr<OnChange>(**slots.find(10), addMore);
  world.dir->intfStatusDel(IntfId(10));
  EXPECT_EQ(slots.size(), 39u);
  expectStoreAndTableAgree(*machine);
  auto const ofAnother = Zel::makePtr<OnChange>(**slots.find(11), addMore);
  machine->localAttrStore()->tunnelInetConfigByIfIndexDelAll();
  EXPECT_EQ(slots.size(), 20u);
}

} // namespace
} // namespace TunnelIntfSnmp
