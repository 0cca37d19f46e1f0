// What the pattern of the machines withstands of the listeners of rows, stores and flags: some
// throw, some release the machine, some claim the same ifIndex in the middle of an event.
#include "tests/machines/EachMachine.h"
#include <gmock/gmock.h>

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

} // namespace
} // namespace TunnelIntfSnmp
