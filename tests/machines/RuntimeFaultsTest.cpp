// What the pattern of the machines withstands: children that are held too long, listeners that
// throw, switch, release or claim the same ifIndex, keys that came unheard; and what is told of it
// all by name, in traces and to the scheduler.
#include "TunnelIntfSnmp/IpsecTunnelIfTableSm.h"
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include "tests/machines/InetConfigWorld.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr std::uint32_t gre = 3; // IANAtunnelType
RunMode const & synchronous = runModes[0];
RunMode const & alwaysYield = runModes[2];

// Each of the three machines over one world.
template <class Machine>
Zel::Ptr<Machine> make(World const & world) {
  Zel::Ptr<Machine> made;
  if constexpr (std::is_same_v<Machine, IpsecTunnelIfTableSm>)
    made = Zel::makePtr<Machine>(world.mib, world.dir, world.ifMib, world.ikeStatus, world.control);
  else
    made = Zel::makePtr<Machine>(world.mib, world.dir, world.ifMib, world.control);
  made->hasNotificationActiveIs(true);
  return made;
}

// A tunnel that has a row in each of the three tables.
Zel::Ptr<Interface::TunnelIntfStatus> addEverywhere(World & world, std::uint32_t id) {
  auto status = InetConfigWorld::status(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  status->ipsecIs(true);
  world.addIfIndex(id, id);
  world.dir->intfStatusIs(IntfId(id), status);
  return status;
}

// Rows from before, in each of the three tables.
void addRowsFromBefore(World & world, std::uint32_t first, std::uint32_t last) {
  for (auto i = first; i <= last; ++i) {
    world.mib->tunnelIfTableIs(i, nullptr);
    world.mib->ipsecTunnelIfTableIs(i, nullptr, nullptr);
    world.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(
        inetConfigKey("10.0.0.1", fmt::format("10.0.1.{}", i), gre), i));
  }
}

template <class Machine>
std::size_t rowsOf(World const & world) {
  if constexpr (std::is_same_v<Machine, TunnelIfTableSm>)
    return world.mib->tunnelIfTable().size();
  else if constexpr (std::is_same_v<Machine, TunnelInetConfigTableSm>)
    return world.mib->tunnelInetConfigTable().size();
  else
    return world.mib->ipsecTunnelIfTable().size();
}

template <class Machine>
std::string outputName() {
  if constexpr (std::is_same_v<Machine, TunnelIfTableSm>)
    return "mibTunnelIfTableOutput";
  else if constexpr (std::is_same_v<Machine, TunnelInetConfigTableSm>)
    return "mibTunnelInetConfigTableOutput";
  else
    return "mibIpsecTunnelIfTableOutput";
}

template <class Machine>
class EachMachine : public ::testing::Test {
protected:
  Zel::Ptr<InputSm> ifIndexChild(Machine const & machine) {
    if constexpr (std::is_same_v<Machine, TunnelIfTableSm>)
      return machine.ifIndexByIntfIdSm1();
    else
      return machine.ifIndexByIntfIdSm2();
  }
};
using Machines = ::testing::Types<TunnelIfTableSm, TunnelInetConfigTableSm, IpsecTunnelIfTableSm>;
TYPED_TEST_SUITE(EachMachine, Machines);

// Children that outlive their machine

TYPED_TEST(EachMachine, HasChildrenThatMayBeHeldLongerThanItself) {
  for (auto const & mode : runModes) {
    World world(mode, testSeed());
    for (std::uint32_t id = 1; id <= 3; ++id)
      addEverywhere(world, id);
    auto machine = make<TypeParam>(world);
    world.scheduler->runOne();
    std::vector<Zel::Ptr<InputSm>> const children{machine->intfStatusSm0(),
                                                  this->ifIndexChild(*machine)};
    machine = nullptr;
    auto const rows = rowsOf<TypeParam>(world);
    TraceRecorder traces{{std::string(TypeParam::unitName), "all"}};
    addEverywhere(world, 4);
    (*world.dir->intfStatus().find(IntfId(2)))->ipsecIs(false);
    (*world.dir->intfStatus().find(IntfId(2)))->modeIs(Plexa::TunnelIntfMode::vti);
    world.dir->intfStatusDel(IntfId(1));
    for (auto const & child : children) {
      child->hasNotificationActiveIs(false);
      world.addIfIndex(5, 5);
      child->hasNotificationActiveIs(true);
      child->zelDoZombieReactors(true);
      child->doInputScan();
      child->doDeleteAll();
      child->doInitializeTask();
      EXPECT_FALSE(child->synchronous());
      EXPECT_FALSE(child->initialScanDone());
      EXPECT_GT(child->inputSize(), 0u);
    }
    world.settle();
    EXPECT_THAT(traces.lines(), IsEmpty()) << mode.name;
    EXPECT_EQ(rowsOf<TypeParam>(world), rows) << mode.name;
  }
}

template <class Child>
void expectAHeldChildDoesNothing(World & world, Zel::Ptr<Child> const & child) {
  ASSERT_TRUE(child);
  TraceRecorder traces{{"TunnelInetConfigTableSm", "all"}, {"IpsecTunnelIfTableSm", "all"}};
  child->doInputScan();
  child->doDeleteAll();
  child->hasNotificationActiveIs(false);
  (*world.dir->intfStatus().find(IntfId(1)))->ipsecIs(false);
  (*world.dir->intfStatus().find(IntfId(1)))->modeIs(Plexa::TunnelIntfMode::vti);
  child->hasNotificationActiveIs(true);
  child->zelDoZombieReactors(true);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST(StatusChild, MayBeHeldLongerThanItsMachine) {
  World world(synchronous);
  addEverywhere(world, 1);
  auto inetConfig = make<TunnelInetConfigTableSm>(world);
  auto ipsec = make<IpsecTunnelIfTableSm>(world);
  auto const inetConfigChild = inetConfig->intfStatusSm0()->childSm(IntfId(1));
  auto const ipsecChild = ipsec->intfStatusSm0()->childSm(IntfId(1));
  inetConfig = nullptr;
  ipsec = nullptr;
  expectAHeldChildDoesNothing(world, inetConfigChild);
  expectAHeldChildDoesNothing(world, ipsecChild);
}

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

// Listeners that switch

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

// The order of a deletion and its line

TYPED_TEST(EachMachine, TracesADeletionAndThenDeletes) {
  for (bool const reconciles : {true, false}) {
    World world(synchronous);
    std::size_t lines = 0;
    std::size_t rowsAtLine = 0;
    if (reconciles)
      addRowsFromBefore(world, 1, 1);
    else
      addEverywhere(world, 1);
    auto const before = Lumo::traceSinkIs([&](Lumo::TraceMessage const & message) {
      if (message.text.starts_with("into( mib.") &&
          message.text.find("deleting") != std::string_view::npos) {
        ++lines;
        rowsAtLine += rowsOf<TypeParam>(world);
      }
    });
    Lumo::traceLevelsIs(TypeParam::unitName, 1u << 7);
    auto const machine = make<TypeParam>(world);
    if (!reconciles) {
      lines = rowsAtLine = 0;
      world.dir->intfStatusDel(IntfId(1));
    }
    Lumo::traceLevelsIs(TypeParam::unitName, 0);
    Lumo::traceSinkIs(before);
    EXPECT_EQ(lines, 1u);
    EXPECT_EQ(rowsAtLine, 1u) << "the row is still there";
    EXPECT_EQ(rowsOf<TypeParam>(world), 0u);
  }
}

// The loss of an input

TYPED_TEST(EachMachine, TracesItsLossUnderTheNamesOfItsChildren) {
  World world(synchronous);
  addEverywhere(world, 1);
  auto const machine = make<TypeParam>(world);
  TraceRecorder traces{{std::string(TypeParam::unitName), "9"}};
  machine->intfStatusSm0()->doDeleteAll();
  std::vector<std::string> objects;
  for (auto const & line : traces.lines())
    if (line.function == "doDeleteAll") {
      EXPECT_EQ(line.text, "");
      objects.push_back(line.object);
    }
  std::vector<std::string> expected{"IntfStatusSm0"};
  if constexpr (std::is_same_v<TypeParam, TunnelInetConfigTableSm>)
    expected.emplace_back("SrcAddrMAdstAddrMAmodeSm1");
  if constexpr (std::is_same_v<TypeParam, IpsecTunnelIfTableSm>)
    expected.emplace_back("IpsecSm1");
  EXPECT_EQ(objects, expected);
}

TEST(LossDeathTest, OfTheStatusesIsFatalToTheInetConfigMachineThatMissedOne) {
  World world(synchronous);
  auto const machine = make<TunnelInetConfigTableSm>(world);
  machine->hasNotificationActiveIs(false);
  world.addStatus(1);
  EXPECT_DEATH(machine->intfStatusSm0()->doDeleteAll(),
               "We missed notifications that happened to intfStatus before the enclosing entity "
               "got deleted");
}

TEST(Loss, OfTheStatusesMayFindTheIpsecMachineBehind) {
  World world(synchronous);
  addEverywhere(world, 1);
  auto const machine = make<IpsecTunnelIfTableSm>(world);
  machine->hasNotificationActiveIs(false);
  world.dir->intfStatusDel(IntfId(1));
  machine->intfStatusSm0()->doDeleteAll();
  EXPECT_EQ(rowsOf<IpsecTunnelIfTableSm>(world), 0u) << "the child was what it had heard of";
}

// The stamp is noted before the event is emitted, whatever the event does.
TEST(Loss, MayComeBehindAnEventThatRaised) {
  World world(synchronous);
  world.addTunnel(1, 10);
  auto const machine = make<TunnelIfTableSm>(world);
  EXPECT_THROW(world.ifMib->ifIndexByIntfIdDel(IntfId(1)), Zel::BadOptionalAccess);
  machine->ifIndexByIntfIdSm1()->doDeleteAll();
}

TEST(Loss, MayComeBehindAScanThatFoundNothingLeft) {
  World world(synchronous);
  world.addIfIndex(1, 10);
  world.ifMib->ifIndexByIntfIdDel(IntfId(1));
  world.addStatus(1);
  world.dir->intfStatusDel(IntfId(1));
  make<TunnelIfTableSm>(world)->doDeleteAll();
}

TEST(Loss, MayComeWhileAScanHasYieldedThoughAKeyWentUnheard) {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 6; ++id)
    world.addTunnel(id, id);
  auto const machine = make<TunnelIfTableSm>(world);
  auto const child = machine->intfStatusSm0();
  while (!machine->inputSmScanState()->scan(0) || !machine->initialScanDone() ||
         child->scanState() != InputSm::ScanState::yielded)
    ASSERT_TRUE(world.scheduler->runOne());
  world.mib->tunnelIfTableDelAll(); // so that the next key of the scan writes a row
  auto meddled = false;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    meddled = true;
    machine->hasNotificationActiveIs(false);
    world.dir->intfStatusDel(IntfId(1));
  });
  ASSERT_TRUE(world.scheduler->runOne());
  ASSERT_TRUE(meddled);
  ASSERT_EQ(child->scanState(), InputSm::ScanState::yielded);
  child->doDeleteAll();
}

// Work that is reported

TEST(Work, OfADeletionScanIsReportedWhereItYields) {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 3; ++id)
    addEverywhere(world, id);
  addRowsFromBefore(world, 11, 13);
  auto const machine = make<TunnelIfTableSm>(world);
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  ASSERT_TRUE(machine->reconciliationTask());
  auto const task = machine->reconciliationTask()->task();
  auto const done = task->taskWorkCount();
  EXPECT_GT(done, 0u) << "the run that reached the table from outside handled a row";
  ASSERT_TRUE(world.scheduler->runOne());
  EXPECT_EQ(task->taskWorkCount(), done + 1);
  world.settle();
  EXPECT_EQ(task->taskWorkCount(), 6u) << "and where it ends";
}

TEST(Work, IsNotPendingBeforeTheFirstRunOfAScan) {
  World world({"", false, Yield::never});
  for (std::uint32_t id = 1; id <= 3; ++id)
    addEverywhere(world, id);
  auto const before = Lumo::traceSinkIs([&](Lumo::TraceMessage const & message) {
    if (!message.text.starts_with(" scan complete"))
      return;
    for (auto const * task : world.scheduler->tasks())
      EXPECT_EQ(task->taskWorkPending(), 0u);
  });
  Lumo::traceLevelsIs("TunnelIfTableSm", 1u << 9);
  auto const machine = make<TunnelIfTableSm>(world);
  world.settle();
  Lumo::traceLevelsIs("TunnelIfTableSm", 0);
  Lumo::traceSinkIs(before);
  EXPECT_TRUE(machine->ready());
}

template <class Table, class K0>
std::size_t rowsBehind(Table const & table, K0 const & k0) {
  return static_cast<std::size_t>(std::distance(table.findNotLess(k0), table.end()));
}

TYPED_TEST(EachMachine, CountsTheItemsOfTheLastRunOnly) {
  World world(alwaysYield);
  addEverywhere(world, 2);
  addRowsFromBefore(world, 1, 5);
  if constexpr (std::is_same_v<TypeParam, TunnelInetConfigTableSm>)
    world.mib->tunnelInetConfigTableDel(inetConfigKey("10.0.0.1", "10.0.1.2", gre));
  auto const machine = make<TypeParam>(world);
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  world.scheduler->yieldIs(Yield::never);
  std::size_t left = 0; // the row that stays is behind the bookmark no more
  if constexpr (std::is_same_v<TypeParam, TunnelInetConfigTableSm>)
    left = rowsBehind(world.mib->tunnelInetConfigTable(), machine->outputBookmark().k0);
  else if constexpr (std::is_same_v<TypeParam, TunnelIfTableSm>)
    left = rowsBehind(world.mib->tunnelIfTable(), machine->outputBookmark().k0);
  else
    left = rowsBehind(world.mib->ipsecTunnelIfTable(), machine->outputBookmark().k0);
  ASSERT_GE(left, 2u);
  TraceRecorder traces{{std::string(TypeParam::unitName), "9"}};
  world.settle();
  EXPECT_THAT(traces.texts(),
              Contains(fmt::format("Deletion scan for reconciliation is done, last task run "
                                   "processed {} items, deleting {} items.",
                                   left, left)));
  EXPECT_EQ(rowsOf<TypeParam>(world), 1u);
}

TYPED_TEST(EachMachine, SaysHowManyOfTheItemsItDeleted) {
  World world(synchronous);
  addEverywhere(world, 2);
  addRowsFromBefore(world, 1, 5);
  if constexpr (std::is_same_v<TypeParam, TunnelInetConfigTableSm>)
    world.mib->tunnelInetConfigTableDel(inetConfigKey("10.0.0.1", "10.0.1.2", gre));
  TraceRecorder traces{{std::string(TypeParam::unitName), "9"}};
  auto const machine = make<TypeParam>(world);
  EXPECT_THAT(traces.texts(),
              Contains("Deletion scan for reconciliation is done, last task run processed 5 items, "
                       "deleting 4 items."));
}

TYPED_TEST(EachMachine, SaysWhereItYieldsHowManyOfTheItemsItDeleted) {
  World world(alwaysYield);
  addEverywhere(world, 2);
  addRowsFromBefore(world, 1, 5);
  if constexpr (std::is_same_v<TypeParam, TunnelInetConfigTableSm>)
    world.mib->tunnelInetConfigTableDel(inetConfigKey("10.0.0.1", "10.0.1.2", gre));
  TraceRecorder traces{{std::string(TypeParam::unitName), "9"}};
  auto const machine = make<TypeParam>(world);
  world.settle();
  std::string const yields = "Yielding in reconciliation processing after processing 1 items, ";
  EXPECT_THAT(traces.texts(), Contains(yields + "including 0 deletions ."));
  EXPECT_THAT(traces.texts(), Contains(yields + "including 1 deletions ."));
}

// The first pass and the control record

TYPED_TEST(EachMachine, HasEndedItsFirstPassWhenItClearsTheFlags) {
  World world(alwaysYield);
  addEverywhere(world, 1);
  addEverywhere(world, 2);
  auto const machine = make<TypeParam>(world);
  std::size_t cleared = 0;
  auto const listener = Zel::makePtr<OnChange>(*machine->inputSmScanState(), [&](auto const &) {
    if (machine->inputSmScanState()->everyScan() || machine->inputSmScanState()->idle())
      return;
    cleared += machine->initialScanDone() ? 1 : 0;
  });
  world.settle();
  EXPECT_EQ(cleared, 2u);
}

TEST(ControlRecord, KeepsTheSchedulerThatWasFoundWhenANewOneNamesNone) {
  World world(alwaysYield);
  auto const machine = make<TunnelIfTableSm>(world);
  Flowa::SmControl control;
  control.version = 7;
  machine->flowaControlIs(control);
  EXPECT_EQ(machine->flowaControl().taskScheduler, world.scheduler);
  EXPECT_EQ(machine->flowaControl().version, 7u);
  control.taskScheduler = Zel::makePtr<TestScheduler>(Yield::never, 1);
  machine->flowaControlIs(control);
  EXPECT_EQ(machine->flowaControl().taskScheduler, control.taskScheduler);
}

// Levels

TYPED_TEST(EachMachine, TracesTheEntriesOfHandlersAtEightAndThoseOfChildrenAtNine) {
  World world(synchronous);
  addEverywhere(world, 1);
  TraceRecorder traces{{std::string(TypeParam::unitName), "all"}};
  auto const machine = make<TypeParam>(world);
  machine->intfStatusSm0()->doDeleteAll();
  std::set<std::string> handlers, children;
  for (auto const & line : traces.lines()) {
    if (!line.text.empty())
      continue;
    (line.object == TypeParam::unitName ? handlers : children).insert(line.function);
    EXPECT_EQ(line.level, line.object == TypeParam::unitName ? 8 : 9) << line.function;
  }
  EXPECT_THAT(handlers, ElementsAre("handleInitialized", "handleOutputInputReady"));
  EXPECT_THAT(children, ElementsAre("doDeleteAll", "doInputScan"));
}

TEST(IpsecStream, LooksForTheIfIndexBeforeTheStatus) {
  World world(synchronous);
  auto const machine = make<IpsecTunnelIfTableSm>(world);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "6"}};
  machine->eventToIfMibStream(IntfId(1), std::nullopt);
  EXPECT_THAT(traces.texts(), ElementsAre("filter( ifIndexOpt ) failed, terminating pipeline"));
}

// The seen set and the bookmark

TYPED_TEST(EachMachine, RemembersWhatItProducedUntilItIsReady) {
  World world(alwaysYield);
  addEverywhere(world, 1);
  addRowsFromBefore(world, 11, 15);
  auto const machine = make<TypeParam>(world);
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  EXPECT_EQ(machine->outputSeen().size(), 1u);
  addEverywhere(world, 2);
  EXPECT_EQ(machine->outputSeen().size(), 2u);
  world.addStatus(3);
  world.settle();
  EXPECT_TRUE(machine->ready());
  EXPECT_TRUE(machine->outputSeen().empty());
  EXPECT_FALSE(machine->outputUseBookmark());
  EXPECT_FALSE(machine->outputBookmark().k0Valid);
  addEverywhere(world, 4);
  EXPECT_TRUE(machine->outputSeen().empty()) << "nothing is remembered once it is ready";
}

TEST(SeenSet, TakesTheKeyOfAnIfMibEvent) {
  World world(alwaysYield);
  addRowsFromBefore(world, 11, 15);
  world.addStatus(9);
  auto const machine = make<TunnelIfTableSm>(world);
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  world.addIfIndex(9, 14);
  EXPECT_NE(machine->outputSeen().find({14, true}), nullptr);
  world.settle();
  EXPECT_EQ(world.tunnelIfRows(), (Rows{{14, 9}}));
}

TEST(SeenSet, OfAnIpsecEventTakesTheKeyWhetherOrNotThereIsARow) {
  World world(alwaysYield);
  addRowsFromBefore(world, 11, 15);
  auto const machine = make<IpsecTunnelIfTableSm>(world);
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  world.addTunnel(9, 77); // unprotected: no row
  EXPECT_NE(machine->outputSeen().find({77, true}), nullptr);
}

TYPED_TEST(EachMachine, RemembersAKeyBeforeItWritesTheRow) {
  World world(alwaysYield);
  addRowsFromBefore(world, 11, 15);
  auto const machine = make<TypeParam>(world);
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  std::size_t seenAtRow = 0;
  auto const listener = Zel::makePtr<OnChange>(
      *world.mib, [&](auto const &) { seenAtRow = machine->outputSeen().size(); });
  addEverywhere(world, 2);
  EXPECT_EQ(seenAtRow, 1u);
  world.dir->intfStatusDel(IntfId(2));
  EXPECT_EQ(machine->outputSeen().size(), 1u) << "a key stays though its row went";
}

// By name

std::vector<std::string> describedBy(Zel::Type const & type) {
  std::vector<std::string> lines;
  for (auto const * attribute : type.attributes)
    lines.push_back(fmt::format("{}: {}", attribute->name, attribute->typeName));
  return lines;
}

TEST(MachineType, OfTunnelIfTableHasItsAttributesInOrder) {
  std::string const ns = "TunnelIntfSnmp::FlowaCode::TunnelIfTableSm::";
  EXPECT_THAT(
      describedBy(TunnelIfTableSm::typeDescription()),
      ElementsAre(
          "mib: TunnelIntfSnmp::TunnelMib", "tunnelIntfStatusDir: Interface::TunnelIntfStatusDir",
          "ifMib: IntfSnmp::IfMib", "inputSmScanState: " + ns + "InputSmScanState",
          "outputState: " + ns + "OutputState", "ifIndexByIntfIdSm1: " + ns + "IfIndexByIntfIdSm1",
          "intfStatusSm0: " + ns + "IntfStatusSm0", "mibTunnelIfTableOutputReconciling: bool",
          "mibTunnelIfTableOutputSeen: Zel::HashMap2018",
          "mibTunnelIfTableOutputBookmark: "
          "TunnelIntfSnmp::TunnelIfTableSm::MibTunnelIfTableOutputKeyType",
          "mibTunnelIfTableOutputUseBookmark: bool",
          "mibTunnelIfTableOutputReconciliationTask: " + ns +
              "ZelMibTunnelIfTableOutputReconciliationTask",
          "flowaControl: Flowa::SmControl", "synchronous: bool", "initialScanDone: bool",
          "initialized: bool", "ready: bool", "idle: bool"));
}

TEST(MachineType, OfTunnelInetConfigTableHasItsAttributesInOrder) {
  std::vector<std::string> names;
  for (auto const * attribute : TunnelInetConfigTableSm::typeDescription().attributes)
    names.emplace_back(attribute->name);
  EXPECT_THAT(names, ElementsAre("mib", "tunnelIntfStatusDir", "ifMib", "flowaControl",
                                 "localAttrStore", "inputSmScanState", "outputState",
                                 "intfStatusSm0", "ifIndexByIntfIdSm2", "initialized",
                                 "initialScanDone", "mibTunnelInetConfigTableOutputReconciling",
                                 "mibTunnelInetConfigTableOutputSeen",
                                 "mibTunnelInetConfigTableOutputBookmark",
                                 "mibTunnelInetConfigTableOutputUseBookmark",
                                 "mibTunnelInetConfigTableOutputReconciliationTask", "qtHandle",
                                 "synchronous", "ready", "idle", "rescanWalks", "rescanUnheard"));
}

TEST(MachineType, OfIpsecTunnelIfTableHasItsAttributesInOrder) {
  std::vector<std::string> names;
  for (auto const * attribute : IpsecTunnelIfTableSm::typeDescription().attributes)
    names.emplace_back(attribute->name);
  EXPECT_THAT(names,
              ElementsAre("mib", "tunnelIntfStatusDir", "ifMib", "ikeStatus", "inputSmScanState",
                          "outputState", "ifIndexByIntfIdSm2", "intfStatusSm0",
                          "mibIpsecTunnelIfTableOutputReconciling",
                          "mibIpsecTunnelIfTableOutputSeen", "mibIpsecTunnelIfTableOutputBookmark",
                          "mibIpsecTunnelIfTableOutputUseBookmark",
                          "mibIpsecTunnelIfTableOutputReconciliationTask", "flowaControl",
                          "synchronous", "initialScanDone", "initialized", "ready", "idle"));
}

TYPED_TEST(EachMachine, NamesOnlyTypesThatAreThere) {
  std::set<std::string_view> known{"bool",         "U8", "U32", "U64", "String", "Zel::HashMap2018",
                                   "Plexa::IntfId"};
  auto const modules = Zel::modules();
  auto const module = std::ranges::find(modules, TypeParam::unitName, &Zel::Module::name);
  ASSERT_NE(module, modules.end());
  EXPECT_EQ((*module)->namespacePrefix, "ns-");
  EXPECT_EQ((*module)->types.front(), &TypeParam::typeDescription());
  known.insert((*module)->outsideTypes.begin(), (*module)->outsideTypes.end());
  for (auto const * type : (*module)->types)
    known.insert(type->name);
  for (auto const * type : (*module)->types)
    for (auto const * attribute : type->attributes)
      EXPECT_TRUE(known.contains(attribute->typeName))
          << type->name << "." << attribute->name << " is a " << attribute->typeName;
}

TYPED_TEST(EachMachine, ShowsByNameHowFarItsReconciliationIs) {
  World world(alwaysYield);
  addEverywhere(world, 1);
  addRowsFromBefore(world, 11, 15);
  auto const machine = make<TypeParam>(world);
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  auto const output = outputName<TypeParam>();
  auto const value = [&](std::string const & name) { return Zel::attribute(*machine, name).is; };
  auto const seen = std::get<Zel::Value::Collection>(value(output + "Seen"));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen.front().first, Zel::valueToStrep(machine->outputSeen().begin()->first));
  EXPECT_EQ(std::get<std::string>(value(output + "Bookmark")),
            Zel::valueToStrep(machine->outputBookmark()));
  EXPECT_TRUE(std::get<bool>(value(output + "UseBookmark")));
  EXPECT_TRUE(std::get<bool>(value(output + "Reconciling")));
  using Object = Zel::Ptr<Zel::PtrInterface const>;
  auto const task = std::get<Object>(value(output + "ReconciliationTask"));
  EXPECT_EQ(std::get<Object>(Zel::attribute(*task, "task").is),
            machine->reconciliationTask()->task());
  auto const scans = std::get<Object>(value("inputSmScanState"));
  EXPECT_TRUE(std::get<bool>(Zel::attribute(*scans, "ifMibStreamScan").is));
  EXPECT_TRUE(std::get<bool>(Zel::attribute(*scans, "idle").is));
  auto const outputs = std::get<Object>(value("outputState"));
  EXPECT_FALSE(std::get<bool>(Zel::attribute(*outputs, output + "Ready").is));
  EXPECT_FALSE(std::get<bool>(Zel::attribute(*outputs, "ready").is));
  world.settle();
  EXPECT_TRUE(std::get<bool>(Zel::attribute(*outputs, output + "Ready").is));
  EXPECT_TRUE(std::get<bool>(Zel::attribute(*outputs, "ready").is));
}

} // namespace
} // namespace TunnelIntfSnmp
