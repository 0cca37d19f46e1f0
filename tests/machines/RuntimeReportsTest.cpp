// What the pattern of the machines says of itself: traces, work reported to the scheduler, what it
// remembers while it reconciles, and what can be read by name.
#include "tests/machines/EachMachine.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::Contains;
using ::testing::ElementsAre;

TYPED_TEST_SUITE(EachMachine, Machines);

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
