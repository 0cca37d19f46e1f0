// The pattern of the table state machines, shown on TunnelIfTableSm: passes, yielding,
// reconciliation, readiness, input loss, destruction.
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include "tests/machines/World.h"
#include "tests/support/TraceRecorder.h"
#include <algorithm>
#include <gmock/gmock.h>
#include <iterator>
#include <utility>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr char const * reconciliationTask = "TunnelIfTableSm-mibTunnelIfTableOutputTask";
constexpr char const * statusTask = "TunnelIntfSnmp::TunnelIfTableSm-IntfStatusSm0InputScanTask";
constexpr char const * ifIndexTask =
    "TunnelIntfSnmp::TunnelIfTableSm-IfIndexByIntfIdSm1InputScanTask";

Zel::Ptr<TunnelIfTableSm> machineIn(World & world) {
  auto machine =
      TunnelIfTableSm::TunnelIfTableSmIs(world.mib, world.dir, world.ifMib, world.control);
  machine->hasNotificationActiveIs(true);
  return machine;
}

std::vector<std::string> taskNames(World const & world) {
  std::vector<std::string> names;
  for (auto const * task : world.scheduler->tasks())
    names.push_back(task->name());
  return names;
}

RunMode const & synchronous = runModes[0];
RunMode const & neverYield = runModes[1];
RunMode const & alwaysYield = runModes[2];

// In every way that a machine can run

class Runtime : public ::testing::TestWithParam<RunMode> {
protected:
  World world_{GetParam(), testSeed()};
};
INSTANTIATE_TEST_SUITE_P(Modes, Runtime, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

TEST_P(Runtime, IsReadyOverEmptyInputsAndAnEmptyTable) {
  auto const machine = machineIn(world_);
  EXPECT_TRUE(machine->ready()) << "nothing to scan, nothing to yield for";
  EXPECT_TRUE(machine->idle());
}

TEST_P(Runtime, WritesARowForEachKeyOfTheInputs) {
  Rows expected;
  for (std::uint32_t i = 1; i <= 50; ++i) {
    world_.addTunnel(i, 1000 - i);
    expected.emplace(1000 - i, i);
  }
  auto const machine = machineIn(world_);
  world_.settle();
  EXPECT_EQ(world_.tunnelIfRows(), expected);
  EXPECT_TRUE(machine->ready());
  EXPECT_TRUE(machine->idle());
  EXPECT_TRUE(machine->initialScanDone());
}

TEST_P(Runtime, DeletesEveryRowFromBeforeThatTheInputsDoNotProduce) {
  for (std::uint32_t ifIndex = 1; ifIndex <= 5; ++ifIndex)
    world_.mib->tunnelIfTableIs(
        ifIndex, Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(100 + ifIndex)));
  TraceRecorder traces{{"TunnelIfTableSm", "7"}};
  auto const machine = machineIn(world_);
  world_.settle();
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
  EXPECT_TRUE(machine->ready());
  EXPECT_FALSE(machine->mibOutputReconciling());
  EXPECT_THAT(traces.texts(),
              ElementsAre("into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1=1",
                          "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1=2",
                          "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1=3",
                          "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1=4",
                          "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1=5"));
}

TEST_P(Runtime, KeepsARowFromBeforeThatTheInputsProduceAgain) {
  world_.addTunnel(7, 70);
  world_.addTunnel(8, 80);
  world_.mib->tunnelIfTableIs(70, *world_.dir->intfStatus().find(Plexa::IntfId(7)));
  world_.mib->tunnelIfTableIs(71, nullptr);
  auto const kept = world_.mib->tunnelIfTable(70);
  auto const machine = machineIn(world_);
  world_.settle();
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{70, 7}, {80, 8}}));
  EXPECT_EQ(world_.mib->tunnelIfTable(70), kept) << "the very same row object";
}

TEST_P(Runtime, FollowsChangesOnceItIsReady) {
  auto const machine = machineIn(world_);
  world_.settle();
  world_.addTunnel(5, 50);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{50, 5}})) << "at once, in no task";
}

TEST_P(Runtime, ShowsWhatChangedDuringTheFirstPassInTheSecond) {
  for (std::uint32_t i = 1; i <= 10; ++i)
    world_.addTunnel(i, i);
  auto const machine = machineIn(world_);
  world_.addTunnel(11, 11);
  world_.dir->intfStatusDel(Plexa::IntfId(3));
  world_.settle();
  EXPECT_EQ(world_.tunnelIfRows().size(), 10u);
  EXPECT_TRUE(world_.tunnelIfRows().contains(11));
  EXPECT_FALSE(world_.tunnelIfRows().contains(3));
}

TEST_P(Runtime, TakesANullValueForAMissingKey) {
  world_.addIfIndex(1, 1);
  world_.addIfIndex(2, 2);
  world_.dir->intfStatusIs(Plexa::IntfId(1), nullptr);
  world_.addStatus(2);
  auto const machine = machineIn(world_);
  world_.settle();
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{2, 2}}));
  world_.dir->intfStatusIs(Plexa::IntfId(2), nullptr);
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
}

TEST_P(Runtime, MaySeeItsInputsChangedByWhoeverHearsOfARow) {
  for (std::uint32_t i = 1; i <= 20; ++i)
    world_.addTunnel(i, i);
  auto const meddler = Zel::makePtr<OnChange>(*world_.mib, [&](auto const & change) {
    auto const ifIndex = change.template key<std::uint32_t>();
    if (ifIndex % 2 == 0)
      world_.dir->intfStatusDel(Plexa::IntfId(ifIndex + 1));
  });
  auto const machine = machineIn(world_);
  world_.settle();
  EXPECT_TRUE(machine->ready());
  for (auto const & [ifIndex, id] : world_.tunnelIfRows())
    EXPECT_NE(world_.dir->intfStatus().find(Plexa::IntfId(id)), nullptr) << ifIndex;
}

TEST_P(Runtime, MayBeReleasedByWhoeverHearsOfARow) {
  for (std::uint32_t i = 1; i <= 5; ++i)
    world_.addIfIndex(i, i);
  auto machine = machineIn(world_);
  world_.settle();
  auto const meddler =
      Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { machine = nullptr; });
  world_.addStatus(1);
  world_.addStatus(2);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{1, 1}}));
}

TEST_P(Runtime, LeavesItsRowsBehindAndStopsWhenItIsReleased) {
  world_.addTunnel(1, 1);
  auto machine = machineIn(world_);
  world_.settle();
  machine = nullptr;
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{1, 1}}));
  world_.addTunnel(2, 2);
  world_.settle();
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{1, 1}}));
  EXPECT_THAT(world_.scheduler->tasks(), IsEmpty());
}

TEST_P(Runtime, CanBeReleasedInTheMiddleOfItsScans) {
  for (std::uint32_t i = 1; i <= 10; ++i)
    world_.addTunnel(i, i);
  auto machine = machineIn(world_);
  world_.scheduler->runOne();
  machine = nullptr;
  world_.settle();
  EXPECT_THAT(world_.scheduler->tasks(), IsEmpty());
}

TEST_P(Runtime, ReplaysEveryKeyAsGoneWhenItsInputsAreLost) {
  world_.addIfIndex(1, 10);
  world_.addIfIndex(2, 20);
  world_.addStatus(3);
  auto const machine = machineIn(world_);
  world_.settle();
  TraceRecorder traces{{"TunnelIfTableSm", "6-7"}};
  machine->doDeleteAll();
  EXPECT_EQ(traces.texts(7).size(), 3u);
  EXPECT_EQ(traces.texts(6).size(), 3u) << "no key has both inputs";
}

TEST_P(Runtime, DeletesEveryRowWhenTheStatusesAreLost) {
  world_.addTunnel(1, 10);
  world_.addTunnel(2, 20);
  auto const machine = machineIn(world_);
  world_.settle();
  machine->intfStatusSm0()->doDeleteAll();
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
}

TEST_P(Runtime, DoesNothingWhenItIsInitializedAgain) {
  world_.addTunnel(1, 10);
  auto const machine = machineIn(world_);
  world_.settle();
  auto const scanState = machine->inputSmScanState();
  TraceRecorder traces{{"TunnelIfTableSm", "all"}};
  machine->handleInitialized();
  EXPECT_EQ(machine->inputSmScanState(), scanState);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST_P(Runtime, OnlySaysSoWhenItIsReadyAlready) {
  auto const machine = machineIn(world_);
  world_.settle();
  TraceRecorder traces{{"TunnelIfTableSm", "all"}};
  machine->handleOutputsInputReady();
  EXPECT_THAT(traces.texts(), ElementsAre("", " already ready, not reconciling."));
}

TEST_P(Runtime, EndsTheFirstPassOnlyOnce) {
  auto const machine = machineIn(world_);
  world_.settle();
  TraceRecorder traces{{"TunnelIfTableSm", "all"}};
  machine->handleInitialScanDone();
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST_P(Runtime, HoldsChangesWhileItsNotificationIsOff) {
  auto const machine = machineIn(world_);
  world_.settle();
  machine->hasNotificationActiveIs(false);
  world_.addTunnel(1, 10);
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
  machine->hasNotificationActiveIs(true);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}}));
}

TEST_P(Runtime, DeliversWhatItHoldsBeforeItGoes) {
  auto machine = machineIn(world_);
  world_.settle();
  machine->hasNotificationActiveIs(false);
  world_.addTunnel(1, 10);
  machine = nullptr;
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}}));
}

TEST_P(Runtime, SurvivesAPipelineThatRaisesWhileItGoes) {
  world_.addTunnel(1, 10);
  auto machine = machineIn(world_);
  world_.settle();
  machine->hasNotificationActiveIs(false);
  world_.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1));
  auto const before = Lumo::counter("zel-exceptions-contained");
  machine = nullptr;
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), before + 1);
}

// The order of things, line by line

TEST(RuntimeTrace, TellsTheStartOfASynchronousMachine) {
  World world(synchronous);
  world.addTunnel(1, 10);
  TraceRecorder traces{{"TunnelIfTableSm", "all"}};
  auto const machine = machineIn(world);
  EXPECT_THAT(
      traces.texts(),
      ElementsAre(
          "", "Reconciling mibTunnelIfTableOutput: false", "create local SMs",
          "create non-public arg SMs", "", " scan complete: false resumed: false scan: 0",
          "IfIndexByIntfIdSm1 initial scan, and parent scan, complete.", "",
          " scan complete: false resumed: false scan: 0",
          "IntfStatusSm0 initial scan, and parent scan, complete.", "initialized", "",
          // second pass: each cleared flag is told, and finds nothing to do
          "", "", "", " scan complete: false resumed: false scan: 3",
          "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId=1 ifIndexOpt=Optional( 10 )",
          "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): inserting k1=10, value=Tuple( 10, "
          "Interface::TunnelIntfStatus( 1 ) )",
          "", "IfIndexByIntfIdSm1 scan, and parent scan, complete.", "",
          " scan complete: false resumed: false scan: 3",
          "tisStream = from( tunnelIntfStatusDir.intfStatus[] ): intfId=1 tisOpt=Optional( "
          "Interface::TunnelIntfStatus( 1 ) )",
          "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): inserting k1=10, value=Tuple( 10, "
          "Interface::TunnelIntfStatus( 1 ) )",
          "", "Input scans for mibTunnelIfTableOutput complete",
          "IntfStatusSm0 scan, and parent scan, complete.",
          "Initial scan done for child SMs. Now scanning with events triggered.", "",
          " already ready, not reconciling."));
}

TEST(RuntimeTrace, SaysWhichScanTheFirstPassWaitsFor) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  {
    TraceRecorder traces{{"TunnelIfTableSm", "9"}};
    machine->handleInitialScanDone();
    EXPECT_THAT(traces.texts(), ElementsAre(" ifMibStream scan is false"));
  }
  while (!machine->inputSmScanState()->scan(0))
    ASSERT_TRUE(world.scheduler->runOne());
  if (!machine->inputSmScanState()->scan(1)) {
    TraceRecorder traces{{"TunnelIfTableSm", "9"}};
    machine->handleInitialScanDone();
    EXPECT_THAT(traces.texts(), ElementsAre(" tisStream scan is false"));
  } else {
    ADD_FAILURE() << "both scans ended at once";
  }
}

TEST(RuntimeTrace, SaysHowFarAScanCameWhenItYields) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addStatus(i);
  TraceRecorder traces{{"TunnelIfTableSm", "8"}};
  auto const machine = machineIn(world);
  EXPECT_TRUE(
      traces.has(8, "TunnelIfTableSm IntfStatusSm0 yielding after 1 iterations (2 remaining)"));
  world.scheduler->runOne();
  EXPECT_TRUE(
      traces.has(8, "TunnelIfTableSm IntfStatusSm0 yielding after 1 iterations (1 remaining)"));
}

TEST(RuntimeTrace, SaysHowFarTheDeletionScanCame) {
  World world(alwaysYield);
  for (std::uint32_t ifIndex = 1; ifIndex <= 3; ++ifIndex)
    world.mib->tunnelIfTableIs(ifIndex, nullptr);
  TraceRecorder traces{{"TunnelIfTableSm", "9"}};
  auto const machine = machineIn(world);
  world.settle();
  EXPECT_TRUE(traces.has(9, "Reconciling mibTunnelIfTableOutput: true"));
  EXPECT_TRUE(traces.has(9, "Yielding in reconciliation processing after processing 1 items, "
                            "including 1 deletions ."));
  EXPECT_TRUE(traces.has(9, "Deletion scan for reconciliation is done, last task run processed 1 "
                            "items, deleting 1 items."));
}

TEST(RuntimeTrace, GoesToTheHandlerThatTheControlRecordNames) {
  World world(synchronous);
  world.control.traceHandlerName = "MyTrace";
  TraceRecorder traces{{"MyTrace", "9"}, {"TunnelIfTableSm", "all"}};
  auto const machine = machineIn(world);
  ASSERT_FALSE(traces.lines().empty());
  for (auto const & line : traces.lines())
    EXPECT_EQ(line.handler, "MyTrace");
}

// Tasks

TEST(RuntimeTasks, HaveTheNamesPriorityAndSchedulerOfTheMachine) {
  World world(alwaysYield);
  world.control.taskPriority = 5;
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  EXPECT_THAT(taskNames(world), ElementsAre(reconciliationTask, ifIndexTask, statusTask));
  for (auto const * task : world.scheduler->tasks())
    EXPECT_EQ(task->priority(), 5);
}

TEST(RuntimeTasks, AreReleasedWhenTheirWorkIsOver) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 4; ++i)
    world.addTunnel(i, i);
  world.mib->tunnelIfTableIs(99, nullptr);
  auto const machine = machineIn(world);
  world.settle();
  EXPECT_THAT(world.scheduler->tasks(), IsEmpty());
}

TEST(RuntimeTasks, DoNotExistInASynchronousMachine) {
  World world(synchronous);
  world.addTunnel(1, 1);
  world.mib->tunnelIfTableIs(99, nullptr);
  world.mib->tunnelIfTableIs(98, nullptr);
  auto const machine = machineIn(world);
  EXPECT_TRUE(machine->ready()) << "during construction";
  EXPECT_TRUE(machine->idle());
  EXPECT_THAT(world.scheduler->tasks(), IsEmpty());
  EXPECT_EQ(world.tunnelIfRows(), (Rows{{1, 1}}));
  EXPECT_FALSE(machine->intfStatusSm0()->shouldYield());
}

TEST(RuntimeTasks, HandleOneKeyARunWhenTheSchedulerAlwaysAsksToYield) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 4; ++i)
    world.addStatus(i);
  auto const machine = machineIn(world);
  auto const scan = machine->intfStatusSm0();
  for (std::uint64_t scanned = 1; scanned < 4; ++scanned) {
    EXPECT_EQ(scan->scanned(), scanned);
    EXPECT_EQ(scan->scanState(), InputSm::ScanState::yielded);
    world.scheduler->runOne();
  }
}

TEST(RuntimeTasks, ReportWorkDoneAndPending) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 4; ++i)
    world.addStatus(i);
  auto const machine = machineIn(world);
  auto const * task = world.scheduler->tasks().back();
  ASSERT_EQ(task->name(), statusTask);
  EXPECT_EQ(task->taskWorkCount(), 1u);
  EXPECT_EQ(task->taskWorkPending(), 4u);
  world.scheduler->runOne();
  EXPECT_EQ(task->taskWorkCount(), 2u);
}

TEST(RuntimeTasks, StartTheSecondPassInTheTaskThatHadToYieldInTheFirst) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 2; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  while (!machine->initialScanDone())
    ASSERT_TRUE(world.scheduler->runOne());
  EXPECT_THAT(world.tunnelIfRows(), IsEmpty()) << "the second pass waits for its tasks";
  EXPECT_EQ(world.scheduler->scheduled(), 2u);
  world.settle();
  EXPECT_EQ(world.tunnelIfRows().size(), 2u);
}

TEST(RuntimeTasks, NeverYieldWhileTheNoYieldFlagIsSet) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 4; ++i)
    world.addStatus(i);
  auto const machine = machineIn(world);
  auto const scan = machine->intfStatusSm0();
  EXPECT_TRUE(scan->shouldYield());
  scan->noYieldIs(true);
  EXPECT_FALSE(scan->shouldYield());
  world.scheduler->runOne();
  EXPECT_EQ(scan->scanned(), 4u);
}

TEST(RuntimeTasks, AreKeptWhenNothingOfThemChangesAndReplacedOtherwise) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 4; ++i)
    world.addStatus(i);
  auto const machine = machineIn(world);
  auto const scan = machine->intfStatusSm0();
  auto const * before = world.scheduler->tasks().back();
  scan->taskIs(world.scheduler, 3, statusTask);
  EXPECT_EQ(world.scheduler->tasks().back(), before);
  EXPECT_EQ(scan->scanned(), 1u);
  scan->taskIs(world.scheduler, 4, statusTask);
  EXPECT_EQ(world.scheduler->tasks().back()->priority(), 4);
  EXPECT_EQ(scan->scanned(), 2u) << "a new task scans at once";
}

TEST(RuntimeTasks, AreOfTheDefaultSchedulerWhenTheControlRecordNamesNone) {
  World world(neverYield);
  auto const standard = Zel::makePtr<TestScheduler>(Yield::always);
  Kiln::TaskSchedulerRoot::schedulerIs(standard);
  world.control.taskScheduler = nullptr;
  world.addStatus(1);
  world.addStatus(2);
  auto const machine = machineIn(world);
  EXPECT_EQ(machine->flowaControl().taskScheduler, standard);
  EXPECT_EQ(standard->tasks().size(), 3u);
  Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
}

TEST(RuntimeScan, GoesOnBehindABookmarkThatWasDeletedBetweenTwoRuns) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 10; ++i)
    world.addStatus(i); // without ifIndex: what the scan emits shows in its traces only
  auto const machine = machineIn(world);
  std::vector<Plexa::IntfId> order;
  for (auto const & [id, status] : world.dir->intfStatus())
    order.push_back(id);
  auto const scan = machine->intfStatusSm0();
  while (!machine->initialScanDone() || scan->scanState() != InputSm::ScanState::yielded)
    ASSERT_TRUE(world.scheduler->runOne());
  ASSERT_EQ(scan->scanned(), 1u) << "the second pass has begun; order[1] is its bookmark";
  TraceRecorder traces{{"TunnelIfTableSm", "7"}};
  for (std::size_t next = 1; next < order.size(); next += 2) {
    world.dir->intfStatusDel(order[next]);
    traces.clear();
    if (next + 1 < order.size()) {
      ASSERT_TRUE(world.scheduler->runOne());
      EXPECT_EQ(
          traces.texts(7),
          std::vector<std::string>{"tisStream = from( tunnelIntfStatusDir.intfStatus[] ): intfId=" +
                                   order[next + 1].stringValue() +
                                   " tisOpt=Optional( Interface::TunnelIntfStatus( " +
                                   order[next + 1].stringValue() + " ) )"});
    }
  }
  world.settle();
  EXPECT_TRUE(machine->ready());
}

TEST(RuntimeScan, LosesNoKeyWhenTheCollectionGrowsBetweenTwoRuns) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 8; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  for (std::uint32_t next = 9; next <= 600; ++next) {
    world.scheduler->runOne();
    world.addTunnel(next, next);
  }
  world.settle();
  EXPECT_TRUE(machine->ready());
  EXPECT_EQ(world.tunnelIfRows().size(), 600u);
}

TEST(RuntimeScan, GoesOnFromItsKeyWhenWhoeverHearsOfARowAddsMore) {
  World world(neverYield);
  for (std::uint32_t i = 1; i <= 20; ++i)
    world.addTunnel(i, i);
  auto const & ifIndexes = world.ifMib->ifIndexByIntfId();
  auto const first = ifIndexes.begin()->first;
  auto more = true;
  auto const meddler = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (std::exchange(more, false))
      for (std::uint32_t i = 21; i <= 320; ++i)
        world.addTunnel(i, i);
  });
  auto const machine = machineIn(world);
  world.settle();
  EXPECT_TRUE(machine->ready());
  EXPECT_EQ(world.tunnelIfRows().size(), 320u);
  auto const fromFirst = std::distance(ifIndexes.seek(first), ifIndexes.end());
  EXPECT_EQ(machine->ifIndexByIntfIdSm1()->scanned(), static_cast<std::uint64_t>(fromFirst));
}

TEST(RuntimeScan, GoesOnFromItsKeyWhenWhoeverHearsOfARowRemovesOthers) {
  World world(neverYield);
  constexpr std::uint32_t tunnels = 20;
  constexpr std::uint32_t last = 120; // of those behind the tunnels, which have no status
  for (std::uint32_t i = 1; i <= last; ++i)
    i <= tunnels ? world.addTunnel(i, i) : world.addIfIndex(i, i);
  auto const & ifIndexes = world.ifMib->ifIndexByIntfId();
  auto const first = std::ranges::find_if(
      ifIndexes, [](auto const & entry) { return entry.first.value() <= tunnels; });
  auto const toFirst = static_cast<std::uint64_t>(std::distance(ifIndexes.begin(), first)) + 1;
  auto const meddler = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    for (std::uint32_t i = tunnels + 1; i <= last; ++i)
      world.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(i));
  });
  auto const machine = machineIn(world);
  world.settle();
  EXPECT_EQ(world.tunnelIfRows().size(), tunnels);
  EXPECT_EQ(machine->ifIndexByIntfIdSm1()->scanned(), toFirst + tunnels - 1);
}

TEST(RuntimeReconciliation, HandlesOneRowAndYieldsToItsTaskWhenReachedFromAReactor) {
  World world(neverYield);
  for (std::uint32_t ifIndex = 1; ifIndex <= 5; ++ifIndex)
    world.mib->tunnelIfTableIs(ifIndex, nullptr);
  auto const machine = machineIn(world);
  // Twice from outside: by the second pass's flag, and at the end of handleInitialScanDone.
  EXPECT_EQ(world.mib->tunnelIfTable().size(), 3u);
  EXPECT_TRUE(machine->mibOutputReconciling());
  EXPECT_FALSE(machine->ready());
  EXPECT_EQ(world.scheduler->scheduled(), 1u);
  EXPECT_EQ(world.scheduler->runUntilQuiet(), 1u) << "the task does the rest in one run";
  EXPECT_TRUE(world.mib->tunnelIfTable().empty());
  EXPECT_TRUE(machine->ready());
}

TEST(RuntimeReconciliation, GoesOnBehindABookmarkThatWasDeletedBetweenTwoRuns) {
  World world(alwaysYield);
  for (std::uint32_t ifIndex = 1; ifIndex <= 6; ++ifIndex)
    world.mib->tunnelIfTableIs(ifIndex, nullptr);
  auto const machine = machineIn(world);
  while (world.mib->tunnelIfTable().size() > 3)
    world.scheduler->runOne();
  world.mib->tunnelIfTableDel(world.mib->tunnelIfTable().begin());
  world.settle();
  EXPECT_TRUE(world.mib->tunnelIfTable().empty());
  EXPECT_TRUE(machine->ready());
}

TEST(RuntimeReconciliation, KeepsARowThatAnEventWroteMeanwhile) {
  World world(alwaysYield);
  for (std::uint32_t ifIndex = 1; ifIndex <= 6; ++ifIndex)
    world.mib->tunnelIfTableIs(ifIndex, nullptr);
  auto const machine = machineIn(world);
  while (world.mib->tunnelIfTable().size() > 4)
    world.scheduler->runOne();
  world.addTunnel(55, 5);
  world.settle();
  EXPECT_EQ(world.tunnelIfRows(), (Rows{{5, 55}}));
}

TEST(RuntimeReconciliation, IsNotDisturbedByWhoAsksAgainMeanwhile) {
  World world(synchronous);
  for (std::uint32_t ifIndex = 1; ifIndex <= 4; ++ifIndex)
    world.mib->tunnelIfTableIs(ifIndex, nullptr);
  world.addTunnel(7, 7);
  world.addTunnel(8, 8);
  Zel::Ptr<TunnelIfTableSm> machine;
  TableSmBase * built = nullptr;
  auto const meddler = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    if (built != nullptr)
      built->handleOutputsInputReady();
  });
  world.control.synchronousMode = 2;
  machine = TunnelIfTableSm::TunnelIfTableSmIs(world.mib, world.dir, world.ifMib, world.control);
  built = machine.get();
  world.settle();
  EXPECT_EQ(world.tunnelIfRows(), (Rows{{7, 7}, {8, 8}}));
  EXPECT_TRUE(machine->ready());
}

// Listeners that throw

TEST_P(Runtime, GoesOnToItsEndWhenAListenerThrows) {
  for (std::uint32_t i = 1; i <= 10; ++i)
    world_.addTunnel(i, i);
  for (std::uint32_t ifIndex = 100; ifIndex <= 105; ++ifIndex)
    world_.mib->tunnelIfTableIs(ifIndex, nullptr);
  std::size_t thrown = 0;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    ++thrown;
    throw std::runtime_error("listener");
  });
  auto const contained = Lumo::counter("zel-exceptions-contained");
  auto const machine = machineIn(world_);
  world_.settle();
  EXPECT_TRUE(machine->ready());
  EXPECT_EQ(world_.tunnelIfRows().size(), 10u);
  EXPECT_EQ(thrown, 16u) << "ten rows came, six went";
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_EQ(world_.tunnelIfRows().size(), 9u);
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained + 17) << "each was reported";
}

TEST_P(Runtime, DeliversEverythingItHeldThoughOneDeliveryRaises) {
  for (std::uint32_t i = 1; i <= 3; ++i)
    world_.addTunnel(i, i);
  auto const machine = machineIn(world_);
  world_.settle();
  machine->hasNotificationActiveIs(false);
  world_.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1)); // raises when it is delivered
  world_.addIfIndex(2, 22);
  world_.addTunnel(4, 4);
  EXPECT_THROW(machine->hasNotificationActiveIs(true), Zel::BadOptionalAccess);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{1, 1}, {2, 2}, {22, 2}, {3, 3}, {4, 4}}));
  world_.addTunnel(5, 5);
  EXPECT_EQ(world_.tunnelIfRows().count(5), 1u) << "no part of it stayed deaf";
}

TEST_P(Runtime, MayBeReleasedWhileItDeliversWhatItHeld) {
  auto machine = machineIn(world_);
  world_.settle();
  machine->hasNotificationActiveIs(false);
  world_.addTunnel(1, 1);
  world_.addTunnel(2, 2);
  auto * const raw = machine.get();
  auto const listener =
      Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { machine = nullptr; });
  raw->hasNotificationActiveIs(true);
  EXPECT_EQ(machine, nullptr);
}

TEST_P(Runtime, GoesThoughEverybodyThrows) {
  world_.addTunnel(1, 1);
  auto machine = machineIn(world_);
  world_.settle();
  machine->hasNotificationActiveIs(false);
  world_.addTunnel(2, 2);
  world_.addTunnel(3, 3);
  auto const listener = Zel::makePtr<OnChange>(
      *world_.mib, [](auto const &) { throw std::runtime_error("listener"); });
  machine = nullptr;
  EXPECT_EQ(world_.tunnelIfRows().size(), 3u);
}

TEST_P(Runtime, WritesTheNewRowThoughSomebodyThrowsAtTheDeletionOfTheOld) {
  world_.addTunnel(1, 1);
  auto const machine = machineIn(world_);
  world_.settle();
  auto const listener = Zel::makePtr<OnChange>(
      *world_.mib, [](auto const &) { throw std::runtime_error("listener"); });
  auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(1));
  world_.dir->intfStatusIs(Plexa::IntfId(1), status);
  ASSERT_TRUE(world_.mib->tunnelIfTable(1));
  EXPECT_EQ(world_.mib->tunnelIfTable(1)->tunnelIntfStatus(), status);
}

TEST_P(Runtime, WritesNoRowForAStatusThatWentWhileTheOldRowWasDeleted) {
  world_.addTunnel(1, 1);
  auto const machine = machineIn(world_);
  world_.settle();
  auto const listener = Zel::makePtr<OnChange>(
      *world_.mib, [&](auto const &) { world_.dir->intfStatusDel(Plexa::IntfId(1)); });
  world_.addStatus(1);
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
}

// What is told of the state

TEST(RuntimeState, TellsReadyBeforeTheOutputsOwnFlag) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  std::vector<std::string> told;
  auto const listener = Zel::makePtr<OnChange>(*machine->outputState(), [&](auto const & change) {
    told.emplace_back(change.attribute().name);
    EXPECT_TRUE(machine->ready());
  });
  world.settle();
  EXPECT_THAT(told, ElementsAre("ready", "mibTunnelIfTableOutputReady"));
}

TEST(RuntimeState, TellsEachScanFlagOfBothPassesAndIdle) {
  World world(alwaysYield);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  std::vector<std::string> told;
  auto const listener =
      Zel::makePtr<OnChange>(*machine->inputSmScanState(), [&](auto const & change) {
        told.emplace_back(change.attribute().name);
      });
  world.settle();
  // Set, cleared, set again; inner notifications overtake outer ones.
  EXPECT_THAT(told,
              UnorderedElementsAre("ifMibStreamScan", "ifMibStreamScan", "ifMibStreamScan",
                                   "tisStreamScan", "tisStreamScan", "tisStreamScan", "idle"));
}

TEST(RuntimeState, IsReachedByName) {
  World world(synchronous);
  world.addTunnel(1, 1);
  auto const machine = machineIn(world);
  for (char const * name : {"ready", "idle", "initialized", "initialScanDone", "synchronous"})
    EXPECT_TRUE(std::get<bool>(Zel::attribute(*machine, name).is)) << name;
  EXPECT_FALSE(std::get<bool>(Zel::attribute(*machine, "mibTunnelIfTableOutputReconciling").is));
  auto const child =
      std::get<Zel::Ptr<Zel::PtrInterface const>>(Zel::attribute(*machine, "intfStatusSm0").is);
  EXPECT_EQ(std::get<std::uint64_t>(Zel::attribute(*child, "scanState").is), 2u);
  EXPECT_EQ(std::get<std::uint64_t>(Zel::attribute(*child, "scanned").is), 1u);
  EXPECT_EQ(std::get<std::uint64_t>(Zel::attribute(*child, "inputSize").is), 1u);
  EXPECT_TRUE(std::get<bool>(Zel::attribute(*child, "scanComplete").is));
}

TEST(RuntimeState, ForwardsTheFastTraceHandleToItsControlRecord) {
  World world(synchronous);
  auto const machine = machineIn(world);
  machine->qtHandleIs({42});
  EXPECT_EQ(machine->flowaControl().qtHandle(), Skein::TraceHandle{42});
}

TEST(RuntimeState, ChoosesTasksUnlessTheControlRecordSaysSynchronous) {
  World world(neverYield);
  for (std::uint8_t const selector : {0, 2, 7}) {
    world.control.synchronousMode = selector;
    EXPECT_FALSE(machineIn(world)->synchronous()) << int{selector};
  }
  world.control.synchronousMode = 1;
  EXPECT_TRUE(machineIn(world)->synchronous());
}

// What a machine dies of

using RuntimeDeathTest = ::testing::Test;

TEST(RuntimeDeathTest, DiesOfANullInput) {
  World world(synchronous);
  constexpr char const * text = "Pointer SM args cannot be null unless they are marked Optional";
  auto const build = [&](auto mib, auto dir, auto ifMib) {
    TunnelIfTableSm::TunnelIfTableSmIs(mib, dir, ifMib, world.control);
  };
  EXPECT_DEATH(build(nullptr, world.dir, world.ifMib), std::string("fatal: mib\\(\\): ") + text);
  EXPECT_DEATH(build(world.mib, nullptr, world.ifMib),
               std::string("fatal: tunnelIntfStatusDir\\(\\): ") + text);
  EXPECT_DEATH(build(world.mib, world.dir, nullptr), std::string("fatal: ifMib\\(\\): ") + text);
}

TEST(RuntimeDeathTest, DiesOfAChildWithoutInput) {
  World world(synchronous);
  auto const machine = machineIn(world);
  auto const child =
      Zel::makePtr<FlowaCode::TunnelIfTableSm::IntfStatusSm0>(*machine, 1, StatusDirPtr());
  EXPECT_DEATH(child->start(), "fatal: en\\(\\): Sm args can only be null if marked as Optional in "
                               "the SM type declaration");
}

TEST(RuntimeDeathTest, DiesOfNotificationsThatItMissedBeforeItsInputWasLost) {
  World world(synchronous);
  auto const machine = machineIn(world);
  machine->hasNotificationActiveIs(false);
  world.addStatus(1);
  EXPECT_DEATH(machine->doDeleteAll(),
               "We missed notifications that happened to intfStatus before the enclosing entity "
               "got deleted");
  world.addIfIndex(1, 1);
  EXPECT_DEATH(machine->doDeleteAll(),
               "We missed notifications that happened to ifIndexByIntfId before the enclosing "
               "entity got deleted");
}

} // namespace
} // namespace TunnelIntfSnmp
