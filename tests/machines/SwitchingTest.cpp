// A machine whose notification is switched off and on, by its owner or by a listener in the middle
// of an event: what is held, and what is delivered afterwards.
#include "tests/machines/EachMachine.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TYPED_TEST_SUITE(EachMachine, Machines);

TYPED_TEST(EachMachine, BecomesReadyThoughItWasSwitchedOffInTheMiddleOfItsLastScan) {
  for (std::uint32_t atRow = 1; atRow <= 8; ++atRow) {
    World world(alwaysYield);
    for (std::uint32_t id = 1; id <= 4; ++id)
      addEverywhere(world, id);
    auto const machine = make<TypeParam>(world);
    while (!machine->initialScanDone() || !machine->inputSmScanState()->scan(0))
      ASSERT_TRUE(world.scheduler->runOne());
    world.mib->tunnelIfTableDelAll(); // so that the scan of the statuses writes rows
    world.mib->ipsecTunnelIfTableDelAll();
    std::uint32_t rows = 0;
    auto const switcher = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
      if (++rows == atRow)
        machine->hasNotificationActiveIs(false);
    });
    world.settle();
    machine->hasNotificationActiveIs(true);
    world.settle();
    EXPECT_TRUE(machine->ready()) << atRow;
  }
}

TYPED_TEST(EachMachine, IsOffWhenAListenerOfWhatWasHeldSwitchesItOffAgain) {
  World world(synchronous);
  auto const first = addEverywhere(world, 1);
  auto const machine = make<TypeParam>(world);
  world.dir->intfStatusIs(IntfId(4), InetConfigWorld::status(4, "10.0.0.1", "10.0.1.4"));
  (*world.dir->intfStatus().find(IntfId(4)))->ipsecIs(true);
  machine->hasNotificationActiveIs(false);
  world.addIfIndex(4, 4);
  addEverywhere(world, 5);
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (std::exchange(meddles, false))
      machine->hasNotificationActiveIs(false);
  });
  machine->hasNotificationActiveIs(true);
  ASSERT_FALSE(meddles);
  TraceRecorder traces{{std::string(TypeParam::unitName), "all"}};
  first->ipsecIs(false);
  first->modeIs(Plexa::TunnelIntfMode::vti);
  addEverywhere(world, 6);
  EXPECT_THAT(traces.lines(), IsEmpty()) << "no part of it hears";
  machine->hasNotificationActiveIs(true);
  EXPECT_EQ(rowsOf<TypeParam>(world), (std::is_same_v<TypeParam, IpsecTunnelIfTableSm> ? 3u : 4u));
}

TYPED_TEST(EachMachine, IsOffWhenAListenerOfARunThatWasHeldSwitchesItOffAgain) {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 4; ++id)
    addEverywhere(world, id);
  auto const machine = make<TypeParam>(world);
  while (!machine->initialScanDone() || !machine->inputSmScanState()->scan(0))
    ASSERT_TRUE(world.scheduler->runOne());
  machine->hasNotificationActiveIs(false);
  world.settle();                   // the run is held
  world.mib->tunnelIfTableDelAll(); // so that it writes a row
  world.mib->ipsecTunnelIfTableDelAll();
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (std::exchange(meddles, false))
      machine->hasNotificationActiveIs(false);
  });
  machine->hasNotificationActiveIs(true);
  ASSERT_FALSE(meddles);
  {
    TraceRecorder traces{{std::string(TypeParam::unitName), "all"}};
    addEverywhere(world, 6);
    EXPECT_THAT(traces.lines(), IsEmpty()) << "no part of it hears";
  }
  machine->hasNotificationActiveIs(true);
  world.settle();
  EXPECT_TRUE(machine->ready());
}

template <class Machine>
void expectNoStatusIsHeardOnceAListenerSwitchedOff() {
  World world(synchronous);
  auto const first = addEverywhere(world, 1);
  auto const last = addEverywhere(world, 2);
  auto const machine = make<Machine>(world);
  machine->hasNotificationActiveIs(false);
  first->ipsecIs(false);
  first->modeIs(Plexa::TunnelIntfMode::vti);
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (std::exchange(meddles, false))
      machine->hasNotificationActiveIs(false);
  });
  machine->hasNotificationActiveIs(true);
  ASSERT_FALSE(meddles);
  TraceRecorder traces{{std::string(Machine::unitName), "all"}};
  last->ipsecIs(false);
  last->modeIs(Plexa::TunnelIntfMode::vti);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST(StatusChild, IsOffWhenAListenerOfAnEarlierOnesEventSwitchedTheMachineOff) {
  expectNoStatusIsHeardOnceAListenerSwitchedOff<TunnelInetConfigTableSm>();
  expectNoStatusIsHeardOnceAListenerSwitchedOff<IpsecTunnelIfTableSm>();
}

// A run goes on though the machine is switched off in its middle.
template <class Machine>
void expectAChildThatIsMadeWhileItIsOffHearsNothing() {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id)
    addEverywhere(world, id);
  auto const machine = make<Machine>(world);
  while (!machine->initialScanDone() || machine->intfStatusSm0()->scanned() != 1)
    ASSERT_TRUE(world.scheduler->runOne());
  world.mib->ipsecTunnelIfTableDelAll(); // so that the scan of the statuses writes rows
  world.scheduler->yieldIs(Yield::never);
  Zel::Ptr<Interface::TunnelIntfStatus> replacement;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (replacement)
      return;
    machine->hasNotificationActiveIs(false);
    replacement = addEverywhere(world, 3);
  });
  world.settle();
  auto const child = machine->intfStatusSm0()->childSm(IntfId(3));
  ASSERT_TRUE(child);
  ASSERT_EQ(child->status(), replacement) << "the run made it";
  auto const rows = rowsOf<Machine>(world);
  {
    TraceRecorder traces{{std::string(Machine::unitName), "all"}};
    replacement->ipsecIs(false);
    replacement->dstAddrIs({});
    EXPECT_THAT(traces.lines(), IsEmpty());
  }
  EXPECT_EQ(rowsOf<Machine>(world), rows);
  machine->hasNotificationActiveIs(true);
  EXPECT_EQ(rowsOf<Machine>(world), rows - 1) << "it was held";
}

TEST(StatusChild, IsAsDeafAsItsMachineWhenItIsMade) {
  expectAChildThatIsMadeWhileItIsOffHearsNothing<TunnelInetConfigTableSm>();
  expectAChildThatIsMadeWhileItIsOffHearsNothing<IpsecTunnelIfTableSm>();
}

TEST(StatusChild, DeliversOneEventForEachAttributeThatItHeld) {
  InetConfigWorld world(synchronous);
  auto const status = addEverywhere(world, 1);
  auto const machine = world.machine();
  machine->hasNotificationActiveIs(false);
  status->dstAddrIs(address("10.0.1.9"));
  status->dstAddrIs(address("10.0.1.8"));
  status->modeIs(Plexa::TunnelIntfMode::vti);
  TraceRecorder traces{{"TunnelInetConfigTableSm", "7"}};
  machine->hasNotificationActiveIs(true);
  EXPECT_EQ(std::ranges::count_if(traces.texts(),
                                  [](auto const & text) { return text.starts_with("tisStream"); }),
            2);
}

TEST(StatusChild, DeliversNothingOfARecordThatWentMeanwhile) {
  InetConfigWorld world(synchronous);
  auto const status = addEverywhere(world, 1);
  auto const machine = world.machine();
  machine->hasNotificationActiveIs(false);
  status->dstAddrIs(address("10.0.1.9"));
  status->modeIs(Plexa::TunnelIntfMode::vti); // two events are held
  auto const listener = Zel::makePtr<OnChange>(
      *world.mib, [&](auto const &) { world.dir->intfStatusDel(IntfId(1)); });
  machine->hasNotificationActiveIs(true);
  EXPECT_THAT(world.inetConfigRows(), IsEmpty());
}

TEST(ScanState, TellsWhatChangedWhileItWasSilentOnceItSpeaksAgain) {
  World world(synchronous);
  auto const machine = make<TunnelIfTableSm>(world);
  auto const & state = machine->inputSmScanState();
  std::vector<std::string> told;
  auto const listener = Zel::makePtr<OnChange>(
      *state, [&](auto const & change) { told.emplace_back(change.attribute().name); });
  state->hasNotificationActiveIs(false);
  state->scanIs(1, false);
  state->scanIs(1, true);
  state->scanIs(0, false);
  EXPECT_THAT(told, IsEmpty());
  state->hasNotificationActiveIs(true);
  EXPECT_THAT(told, ElementsAre("tisStreamScan", "ifMibStreamScan"));
  state->hasNotificationActiveIs(true);
  EXPECT_EQ(told.size(), 2u);
}

TEST(ScanState, KeepsTheRestForLaterWhenAListenerSilencesItAgain) {
  World world(synchronous);
  auto const machine = make<TunnelIfTableSm>(world);
  auto const & state = machine->inputSmScanState();
  std::vector<std::string> told;
  auto const listener = Zel::makePtr<OnChange>(*state, [&](auto const & change) {
    told.emplace_back(change.attribute().name);
    state->hasNotificationActiveIs(false);
  });
  state->hasNotificationActiveIs(false);
  state->scanIs(1, false);
  state->scanIs(0, false);
  state->hasNotificationActiveIs(true);
  EXPECT_THAT(told, ElementsAre("tisStreamScan"));
  state->hasNotificationActiveIs(true);
  EXPECT_THAT(told, ElementsAre("tisStreamScan", "ifMibStreamScan"));
}

TYPED_TEST(EachMachine, RestsWithItsTasksWhileItIsSwitchedOff) {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 4; ++id)
    addEverywhere(world, id);
  addRowsFromBefore(world, 11, 14);
  auto const machine = make<TypeParam>(world);
  auto const stepsTo = [&](auto const & reached) {
    while (!reached())
      ASSERT_TRUE(world.scheduler->runOne());
  };
  auto const restsNow = [&] {
    machine->hasNotificationActiveIs(false);
    auto const scanned = machine->intfStatusSm0()->scanned();
    auto const rows = rowsOf<TypeParam>(world);
    world.settle();
    EXPECT_EQ(machine->intfStatusSm0()->scanned(), scanned);
    EXPECT_EQ(rowsOf<TypeParam>(world), rows);
    machine->hasNotificationActiveIs(true);
  };
  stepsTo([&] { return machine->intfStatusSm0()->scanned() == 2; });
  restsNow();
  stepsTo([&] { return machine->outputUseBookmark(); });
  restsNow();
  world.settle();
  EXPECT_TRUE(machine->ready());
}

TYPED_TEST(EachMachine, SilencesItsRecordsWhileItIsSwitchedOff) {
  World world(synchronous);
  auto const machine = make<TypeParam>(world);
  for (bool const on : {false, true}) {
    machine->hasNotificationActiveIs(on);
    EXPECT_EQ(machine->inputSmScanState()->hasNotificationActive(), on);
    EXPECT_EQ(machine->outputState()->hasNotificationActive(), on);
  }
}

TYPED_TEST(EachMachine, DoesTheRunThatIsHeldBeforeItGoes) {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id)
    addEverywhere(world, id);
  auto machine = make<TypeParam>(world);
  auto const child = machine->intfStatusSm0();
  while (!machine->initialScanDone() || child->scanned() != 1)
    ASSERT_TRUE(world.scheduler->runOne());
  machine->hasNotificationActiveIs(false);
  world.settle(); // the run is held
  world.scheduler->yieldIs(Yield::never);
  ASSERT_EQ(child->scanned(), 1u);
  machine = nullptr;
  EXPECT_EQ(child->scanned(), 3u);
}

} // namespace
} // namespace TunnelIntfSnmp
