// The trace lines of tunnelInetConfigTable's machine: for one event of each kind every line, in
// order and at its level. Filters run in order; the first one that fails is the one that is traced.
#include "tests/machines/InetConfigWorld.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using Line = std::pair<int, std::string>;

constexpr std::uint32_t gre = 3; // IANAtunnelType

// The pieces that lines are made of. Tunnels run from 10.0.0.1 to 10.0.0.LAST.

std::string keyText(int last) {
  return fmt::format("Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** {{'localInetAddr': "
                     "Value('Snmp::InetAddress', ** {{'addressType': 1, 'address': '0a000001'}}), "
                     "'remoteAddrBytes': '0a0000{:02x}', 'encapsMethod': 3, 'configId': 1}})",
                     last);
}
std::string entryText(int last, int ifIndex) {
  return fmt::format(
      "Value('TunnelIntfSnmp::TunnelInetConfigTableEntry', ** {{'key': {}, 'ifIndex': {}}})",
      keyText(last), ifIndex);
}
std::string status(int id) {
  return fmt::format("Optional( Interface::TunnelIntfStatus( {} ) )", id);
}
Line tis(int id, std::string const & statusText) {
  return {7, fmt::format("tisStream = from( tunnelIntfStatusDir.intfStatus[].{{ srcAddr, dstAddr, "
                         "mode }} ): intfId={} intfStatusOpt={}",
                         id, statusText)};
}
Line ifMib(int id, std::string const & ifIndexText) {
  return {7, fmt::format("ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId={} ifIndexOpt={}",
                         id, ifIndexText)};
}
Line deleteStream(int ifIndex) {
  return {7, fmt::format("deleteStream = merge( tisStream ): ifIndex={}", ifIndex)};
}
Line addStream(int ifIndex, std::string const & statusText, char const * isAdd = "true") {
  return {7, fmt::format("addStream = merge( tisStream, ifMibStream, rescanStream ): ifIndex={} "
                         "intfStatusOpt={} isAdd={}",
                         ifIndex, statusText, isAdd)};
}
Line rescanStream(std::string const & statusText) {
  return {7, "rescanStream = merge( tisStream ): processedTisOpt=" + statusText};
}
Line foreaching(int count) {
  return {6,
          fmt::format(" foreach( tunnelIntfStatusDir.intfStatus ) foreaching {} elements", count)};
}
Line element(int id) {
  return {9, fmt::format("Foreaching element: {}", id)};
}
Line failed(std::string const & filter) {
  return {6, "filter( " + filter + " ) failed, terminating pipeline"};
}
Line storeInserting(int last, int ifIndex) {
  return {7, fmt::format("into( tunnelInetConfigByIfIndex[ ifIndex ] ): inserting k1={}, value={}",
                         ifIndex, entryText(last, ifIndex))};
}
Line storeDeleting(int ifIndex) {
  return {7, fmt::format("into( tunnelInetConfigByIfIndex[ ifIndex ] ): deleting k1={}", ifIndex)};
}
Line inserting(int last, int ifIndex) {
  return {7, fmt::format("into( mib.tunnelInetConfigTable[ mibKey ] ): inserting k1={}, value={}",
                         keyText(last), entryText(last, ifIndex))};
}
Line deleting(int last) {
  return {7, "into( mib.tunnelInetConfigTable[ ( *( *wrapper ).mibEntry ).key ] ): deleting k1=" +
                 keyText(last)};
}
Line const processed = failed("( Optional( intfStatus ) != processedTisOpt )");
Line const existing = failed("( !existing )");
Line const none = {9, ""};

std::vector<Line> linesOf(TraceRecorder const & traces) {
  std::vector<Line> lines;
  for (auto const & line : traces.lines())
    lines.emplace_back(line.level, line.text);
  return lines;
}

class InetConfigTrace : public ::testing::TestWithParam<RunMode> {
protected:
  InetConfigTrace() : machine_(world_.machine()) { world_.settle(); }
  // What is traced of 10.0.0.1 -> 10.0.0.2 when it is added, changed, or gone, is all about
  // interface 1 with ifIndex 10.
  Zel::Ptr<Interface::TunnelIntfStatus> addOne() {
    world_.addIfIndex(1, 10);
    return world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  }
  template <class Event>
  std::vector<Line> traced(Event event) {
    TraceRecorder traces{{"TunnelInetConfigTableSm", "all"}};
    event();
    return linesOf(traces);
  }

  InetConfigWorld world_{GetParam(), testSeed()};
  Zel::Ptr<TunnelInetConfigTableSm> machine_;
};
INSTANTIATE_TEST_SUITE_P(Modes, InetConfigTrace, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

// Events of a status

TEST_P(InetConfigTrace, TellsOfANewStatus) {
  world_.addIfIndex(1, 10);
  EXPECT_THAT(traced([&] { world_.addEndpoints(1, "10.0.0.1", "10.0.0.2"); }),
              ElementsAre(Line{9, "k: 1"}, tis(1, status(1)), deleteStream(10), failed("wrapper"),
                          addStream(10, status(1)), storeInserting(2, 10), inserting(2, 10),
                          rescanStream(status(1)), foreaching(1), element(1), processed,
                          Line{9, "SrcAddrMAdstAddrMAmodeSm1 scan complete. "}));
}

TEST_P(InetConfigTrace, TellsOfAChangedAttributeTheDeletionBeforeTheAddition) {
  auto const one = addOne();
  EXPECT_THAT(traced([&] { one->dstAddrIs(address("10.0.0.3")); }),
              ElementsAre(tis(1, status(1)), deleteStream(10), storeDeleting(10), deleting(2),
                          addStream(10, status(1)), storeInserting(3, 10), inserting(3, 10),
                          rescanStream(status(1)), foreaching(1), element(1), processed));
}

TEST_P(InetConfigTrace, TellsOfAStatusThatIsGone) {
  addOne();
  EXPECT_THAT(traced([&] { world_.dir->intfStatusDel(IntfId(1)); }),
              ElementsAre(Line{9, "k: 1"}, none, tis(1, "None"), deleteStream(10),
                          storeDeleting(10), deleting(2), addStream(10, "None", "false"),
                          failed("isAdd"), rescanStream("None"), foreaching(0)));
}

TEST_P(InetConfigTrace, TellsOfAReplacedStatus) {
  addOne();
  EXPECT_THAT(traced([&] { world_.addEndpoints(1, "10.0.0.1", "10.0.0.3"); }),
              ElementsAre(Line{9, "k: 1"}, tis(1, status(1)), deleteStream(10), storeDeleting(10),
                          deleting(2), addStream(10, status(1)), storeInserting(3, 10),
                          inserting(3, 10), rescanStream(status(1)), foreaching(1), element(1),
                          processed, Line{9, "SrcAddrMAdstAddrMAmodeSm1 scan complete. "}));
}

TEST_P(InetConfigTrace, TellsOfAStatusWithoutIfIndex) {
  EXPECT_THAT(traced([&] { world_.addEndpoints(1, "10.0.0.1", "10.0.0.2"); }),
              ElementsAre(Line{9, "k: 1"}, tis(1, status(1)), failed("ifIndexOpt"),
                          Line{9, "SrcAddrMAdstAddrMAmodeSm1 scan complete. "}));
  EXPECT_THAT(traced([&] { world_.dir->intfStatusDel(IntfId(1)); }),
              ElementsAre(Line{9, "k: 1"}, none, tis(1, "None"), failed("ifIndexOpt")));
}

TEST_P(InetConfigTrace, TellsOfAnUnusableSourceBeforeAnUnusableDestination) {
  auto const one = addOne();
  auto const changedTo = [&](char const * source, char const * destination) {
    one->srcAddrIs(address("10.9.9.9"));
    one->dstAddrIs(address(destination));
    TraceRecorder traces{{"TunnelInetConfigTableSm", "6"}};
    one->srcAddrIs(address(source));
    return linesOf(traces).at(destination[0] == '1' ? 0 : 1); // behind "wrapper", where none was
  };
  auto const noSource = failed("( !intfStatus.srcAddr.isAddrZero )");
  auto const noDestination = failed("( !intfStatus.dstAddr.isAddrZero )");
  for (char const * zero : {"", "0.0.0.0", "::"}) {
    EXPECT_EQ(changedTo(zero, "10.0.0.2"), noSource);
    EXPECT_EQ(changedTo("10.0.0.1", zero), noDestination);
    EXPECT_EQ(changedTo(zero, zero), noSource);
  }
}

TEST_P(InetConfigTrace, TellsOfAHandover) {
  addOne();
  world_.addIfIndex(2, 20);
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  EXPECT_THAT(traced([&] { world_.dir->intfStatusDel(IntfId(1)); }),
              ElementsAre(Line{9, "k: 1"}, none, tis(1, "None"), deleteStream(10),
                          storeDeleting(10), deleting(2), addStream(10, "None", "false"),
                          failed("isAdd"), rescanStream("None"), foreaching(1), element(2),
                          addStream(20, status(2)), storeInserting(2, 20), inserting(2, 20)));
}

// Events of an ifIndex

TEST_P(InetConfigTrace, TellsOfANewIfIndex) {
  world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  EXPECT_THAT(traced([&] { world_.addIfIndex(1, 10); }),
              ElementsAre(ifMib(1, "Optional( 10 )"), addStream(10, status(1)),
                          storeInserting(2, 10), inserting(2, 10)));
}

TEST_P(InetConfigTrace, TellsOfAChangedIfIndex) {
  addOne();
  EXPECT_THAT(traced([&] { world_.addIfIndex(1, 11); }),
              ElementsAre(ifMib(1, "Optional( 11 )"), addStream(11, status(1)), existing));
}

TEST_P(InetConfigTrace, TellsOfAnIfIndexThatIsGone) {
  addOne();
  EXPECT_THAT(traced([&] { world_.ifMib->ifIndexByIntfIdDel(IntfId(1)); }),
              ElementsAre(ifMib(1, "None"), failed("ifIndexOpt")));
}

TEST_P(InetConfigTrace, TellsOfAMissingStatusBeforeAMissingIfIndex) {
  EXPECT_THAT(traced([&] { world_.addIfIndex(1, 10); }),
              ElementsAre(ifMib(1, "Optional( 10 )"), failed("intfStatusOpt")));
  EXPECT_THAT(traced([&] { world_.ifMib->ifIndexByIntfIdDel(IntfId(1)); }),
              ElementsAre(ifMib(1, "None"), failed("intfStatusOpt")));
  world_.dir->intfStatusIs(IntfId(1), nullptr);
  EXPECT_THAT(traced([&] { world_.addIfIndex(1, 10); }),
              ElementsAre(ifMib(1, "Optional( 10 )"), failed("intfStatusOpt")));
}

// The rescan's filters, in order

TEST_P(InetConfigTrace, PassesOverTheProcessedStatusBeforeItLooksForItsIfIndex) {
  StatusPtr const one = world_.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  EXPECT_THAT(traced([&] { machine_->eventToRescanStream(10, one, true); }),
              ElementsAre(rescanStream(status(1)), foreaching(1), element(1), processed));
  EXPECT_THAT(traced([&] { machine_->eventToRescanStream(10, std::nullopt, false); }),
              ElementsAre(rescanStream("None"), foreaching(1), element(1), failed("ifIndexOpt")));
}

TEST_P(InetConfigTrace, PassesOverAnInterfaceThatHasARow) {
  addOne();
  EXPECT_THAT(traced([&] { machine_->eventToRescanStream(10, std::nullopt, false); }),
              ElementsAre(rescanStream("None"), foreaching(1), element(1),
                          failed("( !tunnelInetConfigByIfIndex[ ifIndex ] )")));
}

TEST_P(InetConfigTrace, TriesAnInterfaceThatWaitsInVain) {
  world_.mib->tunnelInetConfigTableIs(
      tunnelInetConfigTableEntryFactory(inetConfigKey("10.0.0.1", "10.0.0.2", gre), 77));
  addOne();
  EXPECT_THAT(traced([&] { machine_->eventToRescanStream(10, std::nullopt, false); }),
              ElementsAre(rescanStream("None"), foreaching(1), element(1), addStream(10, status(1)),
                          existing));
}

// Delete-all

TEST_P(InetConfigTrace, TellsOfADeleteAllFirstTheIfIndexesThenTheStatuses) {
  addOne();
  EXPECT_THAT(traced([&] { machine_->doDeleteAll(); }),
              ElementsAre(none, ifMib(1, "None"), failed("ifIndexOpt"), none, none, tis(1, "None"),
                          deleteStream(10), storeDeleting(10), deleting(2),
                          addStream(10, "None", "false"), failed("isAdd"), rescanStream("None"),
                          foreaching(1), element(1), addStream(10, status(1)),
                          storeInserting(2, 10), inserting(2, 10)));
}

// Statements that support more than the streams ask of them

TEST_P(InetConfigTrace, HasATextForEachStatementWithAndWithoutAValue) {
  auto const key = inetConfigKey("10.0.0.1", "10.0.0.2", gre);
  auto const entry = tunnelInetConfigTableEntryFactory(key, 10);
  EXPECT_THAT(
      traced([&] {
        machine_->intoMibTable(
            "into( mib.tunnelInetConfigTable[ ( *( *wrapper ).mibEntry ).key ] )", key, entry);
      }),
      ElementsAre(Line{7, "into( mib.tunnelInetConfigTable[ ( *( *wrapper ).mibEntry ).key ] ): "
                          "inserting k1=" +
                              keyText(2) + ", value=" + entryText(2, 10)}));
  EXPECT_EQ(world_.mib->tunnelInetConfigTable()[key], entry);
  EXPECT_THAT(traced([&] {
                machine_->intoMibTable("into( mib.tunnelInetConfigTable[ mibKey ] )", key, nullptr);
              }),
              ElementsAre(Line{7, "into( mib.tunnelInetConfigTable[ mibKey ] ): deleting k1=" +
                                      keyText(2)}));
  EXPECT_FALSE(world_.mib->tunnelInetConfigTable()[key]);
}

TEST(InetConfigTraceDeathTest, DiesOfAnEntryUnderAnotherKey) {
  InetConfigWorld world(runModes[0]);
  auto const machine = world.machine();
  auto const entry =
      tunnelInetConfigTableEntryFactory(inetConfigKey("10.0.0.1", "10.0.0.3", gre), 10);
  for (std::string const statement :
       {"into( mib.tunnelInetConfigTable[ mibKey ] )",
        "into( mib.tunnelInetConfigTable[ ( *( *wrapper ).mibEntry ).key ] )"})
    EXPECT_DEATH(
        machine->intoMibTable(statement, inetConfigKey("10.0.0.1", "10.0.0.2", gre), entry),
        HasSubstr("In \"" + statement +
                  "\" the value inserted in the into statement has internal key: " + keyText(3) +
                  ", but the key specified in the into is: " + keyText(2)));
}

// The start

Line const entryOf8{8, ""};
Line const alreadyReady{9, " already ready, not reconciling."};

TEST(InetConfigStartTrace, TellsTheStartOfASynchronousMachine) {
  InetConfigWorld world(runModes[0]);
  world.addIfIndex(1, 10);
  world.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  TraceRecorder traces{{"TunnelInetConfigTableSm", "all"}};
  auto const machine =
      tunnelInetConfigTableSmFactory(world.mib, world.dir, world.ifMib, world.control);
  std::vector<Line> const expected{
      entryOf8,
      {9, "Reconciling mibTunnelInetConfigTableOutput: false"},
      {9, "create local SMs"},
      {9, "create non-public arg SMs"},
      none,
      {9, " scan complete: false resumed: false scan: 0"},
      {9, "IfIndexByIntfIdSm2 initial scan, and parent scan, complete."},
      none,
      {9, " scan complete: false resumed: false scan: 0"},
      {9, "k: 1"},
      {9, "SrcAddrMAdstAddrMAmodeSm1 initial scan complete. "},
      {9, "IntfStatusSm0 initial scan, and parent scan, complete."},
      {9, "initialized"},
      entryOf8, // of the first output: ends the first pass
      entryOf8, // each cleared flag is told to both outputs, and finds nothing to do
      entryOf8,
      entryOf8,
      entryOf8,
      none,
      {9, " scan complete: false resumed: false scan: 3"},
      ifMib(1, "Optional( 10 )"),
      addStream(10, status(1)),
      storeInserting(2, 10),
      inserting(2, 10),
      entryOf8,
      entryOf8,
      {9, "IfIndexByIntfIdSm2 scan, and parent scan, complete."},
      none,
      {9, " scan complete: false resumed: false scan: 3"},
      {9, "k: 1"},
      tis(1, status(1)),
      deleteStream(10),
      storeDeleting(10),
      deleting(2),
      addStream(10, status(1)),
      storeInserting(2, 10),
      inserting(2, 10),
      rescanStream(status(1)),
      foreaching(1),
      element(1),
      processed,
      {9, "SrcAddrMAdstAddrMAmodeSm1 scan complete. "},
      entryOf8,
      {9, "Input scans for tunnelInetConfigByIfIndexOutput complete"},
      entryOf8,
      {9, "Input scans for mibTunnelInetConfigTableOutput complete"},
      {9, "IntfStatusSm0 scan, and parent scan, complete."},
      {9, "Initial scan done for child SMs. Now scanning with events triggered."},
      entryOf8,
      alreadyReady,
      entryOf8,
      alreadyReady,
      entryOf8, // of the second output, back in construction
      alreadyReady};
  EXPECT_EQ(linesOf(traces), expected);
}

TEST(InetConfigStartTrace, SaysWhichScanTheFirstPassWaitsFor) {
  InetConfigWorld world(runModes[2]);
  for (std::uint32_t id = 1; id <= 3; ++id)
    world.addTunnel(id, id);
  auto const machine = world.machine();
  auto const waitsFor = [&] {
    TraceRecorder traces{{"TunnelInetConfigTableSm", "9"}};
    machine->handleInitialScanDone();
    return linesOf(traces);
  };
  EXPECT_THAT(waitsFor(), ElementsAre(Line{9, " ifMibStream scan is false"}));
  while (!machine->inputSmScanState()->scan(0))
    ASSERT_TRUE(world.scheduler->runOne());
  ASSERT_FALSE(machine->inputSmScanState()->scan(1));
  EXPECT_THAT(waitsFor(), ElementsAre(Line{9, " tisStream scan is false"}));
}

TEST(InetConfigStartTrace, TellsTheReconciliationRowByRow) {
  InetConfigWorld world(runModes[2]);
  for (int last = 2; last <= 4; ++last)
    world.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(
        inetConfigKey("10.0.0.1", fmt::format("10.0.0.{}", last), gre), 7));
  TraceRecorder traces{{"TunnelInetConfigTableSm", "7,9"}};
  auto const machine = world.machine();
  world.settle();
  std::string const statement = "into( mib.tunnelInetConfigTable[ mibKey ] ): deleting k1=";
  EXPECT_EQ(traces.texts(7),
            (std::vector{statement + keyText(2), statement + keyText(3), statement + keyText(4)}));
  EXPECT_THAT(
      linesOf(traces),
      IsSupersetOf({Line{9, "Reconciling mibTunnelInetConfigTableOutput: true"},
                    Line{9, "Yielding in reconciliation processing after processing 1 items, "
                            "including 1 deletions ."},
                    Line{9, "Deletion scan for reconciliation is done, last task run processed 1 "
                            "items, deleting 1 items."}}));
}

TEST(InetConfigStartTrace, SaysHowFarAScanCameWhenItYields) {
  InetConfigWorld world(runModes[2]);
  for (std::uint32_t id = 1; id <= 3; ++id)
    world.addIfIndex(id, id);
  TraceRecorder traces{{"TunnelInetConfigTableSm", "8"}};
  auto const machine = world.machine();
  EXPECT_TRUE(traces.has(
      8, "TunnelInetConfigTableSm IfIndexByIntfIdSm2 yielding after 1 iterations (2 remaining)"));
}

TEST(InetConfigStartTrace, GoesToTheHandlerThatTheControlRecordNames) {
  InetConfigWorld world(runModes[0]);
  world.control.traceHandlerName = "MyTrace";
  world.addIfIndex(1, 10);
  world.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  TraceRecorder traces{{"MyTrace", "all"}, {"TunnelInetConfigTableSm", "all"}};
  auto const machine = world.machine();
  ASSERT_FALSE(traces.lines().empty());
  for (auto const & line : traces.lines())
    EXPECT_EQ(line.handler, "MyTrace");
}

} // namespace
} // namespace TunnelIntfSnmp
