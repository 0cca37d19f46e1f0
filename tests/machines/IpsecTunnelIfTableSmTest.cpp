// What each event means to ipsecTunnelIfTable.
#include "TunnelIntfSnmp/IpsecTunnelIfTableSm.h"
#include "tests/machines/World.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>
#include <sstream>

namespace TunnelIntfSnmp {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Zel::Ptr<IpsecTunnelIfTableSm> machineIn(World & world) {
  auto machine = ipsecTunnelIfTableSmFactory(world.mib, world.dir, world.ifMib, world.ikeStatus,
                                             world.control);
  machine->hasNotificationActiveIs(true);
  return machine;
}

std::set<std::uint32_t> rowsOf(TunnelMib const & mib) {
  std::set<std::uint32_t> ifIndexes;
  for (auto const & [ifIndex, row] : mib.ipsecTunnelIfTable())
    ifIndexes.insert(ifIndex);
  return ifIndexes;
}

class IpsecSm : public ::testing::TestWithParam<RunMode> {
protected:
  IpsecSm() : machine_(machineIn(world_)) { world_.settle(); }

  Zel::Ptr<Interface::TunnelIntfStatus> addProtected(std::uint64_t id, std::uint32_t ifIndex) {
    world_.addIfIndex(id, ifIndex);
    auto status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(id));
    status->ipsecIs(true);
    world_.dir->intfStatusIs(Plexa::IntfId(id), status);
    return status;
  }

  World world_{GetParam(), testSeed()};
  Zel::Ptr<IpsecTunnelIfTableSm> machine_;
};
INSTANTIATE_TEST_SUITE_P(Modes, IpsecSm, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

std::string const stream = "tisIpsecStream = from( tunnelIntfStatusDir.intfStatus[].ipsec ): ";
std::string const update = "updateStream = merge( tisIpsecStream, ifMibStream ): ";
std::string const inserting = "into( mib.ipsecTunnelIfTable[ ifIndex ] ): inserting k1=";
std::string const deleting = "into( mib.ipsecTunnelIfTable[ ifIndex ] ): deleting k1=";

TEST_P(IpsecSm, WritesARowWhileTheFlagIsSet) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addStatus(1);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
  {
    TraceRecorder traces{{"IpsecTunnelIfTableSm", "6-7"}};
    status->ipsecIs(true);
    EXPECT_THAT(traces.texts(),
                ElementsAre(stream + "intfId=1",
                            update + "ifIndex=10 intfStatusOpt=Optional( "
                                     "Interface::TunnelIntfStatus( 1 ) )",
                            inserting + "10, value=Tuple( 10, Interface::TunnelIntfStatus( 1 ), "
                                        "Ipsec::Ike::Status( ikeStatus ) )"));
  }
  auto const row = world_.mib->ipsecTunnelIfTable(10);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->tunnelIntfStatus(), status);
  EXPECT_EQ(row->ikeStatus(), world_.ikeStatus);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "6-7"}};
  status->ipsecIs(false);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
  EXPECT_THAT(traces.texts(), ElementsAre(stream + "intfId=1",
                                          update + "ifIndex=10 intfStatusOpt=Optional( "
                                                   "Interface::TunnelIntfStatus( 1 ) )",
                                          deleting + "10"));
}

TEST_P(IpsecSm, DeletesTheRowWhenTheStatusGoes) {
  addProtected(1, 10);
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10));
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "6-7"}};
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
  EXPECT_THAT(
      traces.texts(),
      ElementsAre(stream + "intfId=1", update + "ifIndex=10 intfStatusOpt=None", deleting + "10"));
  EXPECT_EQ(machine_->intfStatusSm0()->childSm(Plexa::IntfId(1)), nullptr);
}

TEST_P(IpsecSm, DeletesTheRowBeforeTheChild) {
  addProtected(1, 10);
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    EXPECT_NE(machine_->intfStatusSm0()->childSm(Plexa::IntfId(1)), nullptr);
  });
  world_.dir->intfStatusDel(Plexa::IntfId(1));
}

TEST_P(IpsecSm, WaitsForTheIfIndex) {
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "6-7"}};
  auto const status = world_.addStatus(1);
  status->ipsecIs(true);
  EXPECT_THAT(traces.texts(6), ElementsAre("filter( ifIndexOpt ) failed, terminating pipeline",
                                           "filter( ifIndexOpt ) failed, terminating pipeline"));
  traces.clear();
  world_.addIfIndex(1, 10);
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10));
  EXPECT_EQ(traces.texts().front(), "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId=1 "
                                    "ifIndexOpt=Optional( 10 )");
}

TEST_P(IpsecSm, KeepsTheRowWhenItsIfIndexGoes) {
  auto const status = addProtected(1, 10);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "6"}};
  world_.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1));
  EXPECT_THAT(traces.texts(), ElementsAre("filter( ifIndexOpt ) failed, terminating pipeline"));
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10));
  status->ipsecIs(false);
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10)) << "no ifIndex, no key to delete";
}

TEST_P(IpsecSm, IgnoresAnIfIndexWithoutStatus) {
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "6"}};
  world_.addIfIndex(1, 10);
  EXPECT_THAT(traces.texts(), ElementsAre("filter( intfStatusOpt ) failed, terminating pipeline"));
}

TEST_P(IpsecSm, ReplacesChildAndRowOfAStatusThatWasReplaced) {
  auto const oldStatus = addProtected(1, 10);
  auto const oldRow = world_.mib->ipsecTunnelIfTable(10);
  auto const status = addProtected(1, 10);
  EXPECT_EQ(machine_->intfStatusSm0()->childSm(Plexa::IntfId(1))->status(), status);
  EXPECT_NE(world_.mib->ipsecTunnelIfTable(10), oldRow);
  EXPECT_EQ(world_.mib->ipsecTunnelIfTable(10)->tunnelIntfStatus(), status);
  // The old record is heard no more.
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "all"}};
  oldStatus->ipsecIs(false);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST_P(IpsecSm, LeavesTheRowOfTheSameStatusUntouchedAndUntraced) {
  addProtected(1, 10);
  auto const row = world_.mib->ipsecTunnelIfTable(10);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "7"}};
  world_.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1));
  world_.addIfIndex(1, 10);
  EXPECT_EQ(world_.mib->ipsecTunnelIfTable(10), row);
  for (auto const & text : traces.texts())
    EXPECT_NE(text.substr(0, 4), "into") << text;
}

TEST_P(IpsecSm, LeavesARowOfTheSameStatusEvenWithAnotherIkeStatus) {
  auto const status = world_.addStatus(1);
  status->ipsecIs(true);
  auto const other = Zel::makePtr<Ipsec::Ike::Status>("other");
  world_.mib->ipsecTunnelIfTableIs(10, status, other);
  world_.addIfIndex(1, 10);
  EXPECT_EQ(world_.mib->ipsecTunnelIfTable(10)->ikeStatus(), other);
}

TEST_P(IpsecSm, HearsOfNoOtherAttribute) {
  auto const status = addProtected(1, 10);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "all"}};
  status->hopLimitIs(3);
  status->modeIs(Plexa::TunnelIntfMode::gre);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST_P(IpsecSm, LetsTheLastEventDecideOverASharedIfIndex) {
  addProtected(1, 10);
  world_.addTunnel(2, 10);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty()) << "the unprotected one deletes the row";
}

TEST_P(IpsecSm, ReaffirmsTheRowsOfStatusesThatAreStillThereWhenAllIsDeleted) {
  addProtected(1, 10);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "7,9"}};
  machine_->doDeleteAll();
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10));
  EXPECT_TRUE(traces.has(7, stream + "intfId=1"));
  EXPECT_EQ(traces.texts(9).size(), 3u) << "each sub-machine says so, without text";
}

TEST_P(IpsecSm, TakesANullStatusForAMissingOne) {
  addProtected(1, 10);
  world_.dir->intfStatusIs(Plexa::IntfId(1), nullptr);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

TEST_P(IpsecSm, SaysInItsChildThatItHandlesAChange) {
  auto const status = addProtected(1, 10);
  auto const child = machine_->intfStatusSm0()->childSm(Plexa::IntfId(1));
  EXPECT_EQ(child->intfId(), Plexa::IntfId(1));
  bool seen = false;
  auto const listener =
      Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { seen = child->inReactor(); });
  EXPECT_FALSE(child->inReactor());
  status->ipsecIs(false);
  EXPECT_TRUE(seen);
  EXPECT_FALSE(child->inReactor());
}

TEST_P(IpsecSm, HoldsTheFlagsChangeWhileItsNotificationIsOff) {
  auto const status = addProtected(1, 10);
  machine_->hasNotificationActiveIs(false);
  status->ipsecIs(false);
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10));
  machine_->hasNotificationActiveIs(true);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

TEST_P(IpsecSm, MayLoseTheInterfaceInsideItsOwnChange) {
  auto const status = addProtected(1, 10);
  auto const listener = Zel::makePtr<OnChange>(
      *world_.mib, [&](auto const &) { world_.dir->intfStatusDel(Plexa::IntfId(1)); });
  status->ipsecIs(false);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

TEST_P(IpsecSm, ForgetsAStatusThatWentThoughAListenerThrows) {
  auto const status = addProtected(1, 10);
  auto const listener = Zel::makePtr<OnChange>(
      *world_.mib, [](auto const &) { throw std::runtime_error("listener"); });
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_EQ(machine_->intfStatusSm0()->childSm(Plexa::IntfId(1)), nullptr);
  status->ipsecIs(false);
  status->ipsecIs(true);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

TEST_P(IpsecSm, KeepsTheChildOfAStatusThatCameWhileTheOldOneWent) {
  addProtected(1, 10);
  Zel::Ptr<Interface::TunnelIntfStatus> fresh;
  bool heard = false;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (!std::exchange(heard, true))
      fresh = addProtected(1, 10);
  });
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  ASSERT_TRUE(machine_->intfStatusSm0()->childSm(Plexa::IntfId(1)));
  EXPECT_EQ(machine_->intfStatusSm0()->childSm(Plexa::IntfId(1))->status(), fresh);
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10));
  fresh->ipsecIs(false);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

TEST_P(IpsecSm, WritesNoRowForAFlagThatWentWhileTheOldRowWasDeleted) {
  addProtected(1, 10);
  auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(1));
  status->ipsecIs(true);
  auto const listener =
      Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { status->ipsecIs(false); });
  world_.dir->intfStatusIs(Plexa::IntfId(1), status);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

// Whose event it is says the directory, not the record.
TEST_P(IpsecSm, WritesTheRowOfARecordUnderAnotherIdThoughThatOnesStatusComes) {
  auto const standsUnder5 = [&] {
    auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(2));
    status->ipsecIs(true);
    world_.dir->intfStatusIs(Plexa::IntfId(5), status);
    return status;
  };
  world_.addIfIndex(5, 10);
  standsUnder5();
  auto const listener =
      Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { world_.addStatus(2); });
  auto const status = standsUnder5();
  ASSERT_TRUE(world_.mib->ipsecTunnelIfTable(10));
  EXPECT_EQ(world_.mib->ipsecTunnelIfTable(10)->tunnelIntfStatus(), status);
}

TEST_P(IpsecSm, WritesNoRowOfARecordUnderAnotherIdThatWentWhileTheOldRowWasDeleted) {
  auto const standsUnder5 = [&] {
    auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(2));
    status->ipsecIs(true);
    world_.dir->intfStatusIs(Plexa::IntfId(5), status);
  };
  world_.addIfIndex(5, 10);
  standsUnder5();
  auto const listener = Zel::makePtr<OnChange>(
      *world_.mib, [&](auto const &) { world_.dir->intfStatusDel(Plexa::IntfId(5)); });
  standsUnder5();
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

TEST_P(IpsecSm, LetsAChildThatIsStillHeldHearNothingOnceItLeft) {
  auto const status = addProtected(1, 10);
  auto const child = machine_->intfStatusSm0()->childSm(Plexa::IntfId(1));
  machine_ = nullptr;
  status->ipsecIs(false);
  EXPECT_THAT(rowsOf(*world_.mib), ElementsAre(10)) << "nobody is there to delete it";
}

TEST_P(IpsecSm, DeletesTheRowOfAnUnprotectedStatusThatTakesItsIfIndex) {
  addProtected(1, 10);
  world_.addStatus(2);
  world_.addIfIndex(2, 10);
  EXPECT_THAT(rowsOf(*world_.mib), IsEmpty());
}

TEST(IpsecSmStart, ReconcilesRowsThatTheInputsDoNotProduce) {
  for (auto const & mode : runModes) {
    World world(mode, testSeed());
    for (std::uint32_t ifIndex = 1; ifIndex <= 4; ++ifIndex)
      world.mib->ipsecTunnelIfTableIs(ifIndex, nullptr, nullptr);
    world.addIfIndex(7, 2);
    auto status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(7));
    status->ipsecIs(true);
    world.dir->intfStatusIs(Plexa::IntfId(7), status);
    auto const machine = machineIn(world);
    world.settle();
    EXPECT_TRUE(machine->ready());
    EXPECT_THAT(rowsOf(*world.mib), ElementsAre(2)) << mode.name;
    EXPECT_EQ(world.mib->ipsecTunnelIfTable(2)->tunnelIntfStatus(), status);
  }
}

TEST(IpsecSmStart, TellsBothPassesOfAChild) {
  World world(runModes[0]);
  world.addTunnel(1, 10);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "all"}};
  auto const machine = machineIn(world);
  auto const texts = traces.texts();
  for (char const * text : {"k: 1", "IpsecSm1 initial scan complete. ", "IpsecSm1 scan complete. ",
                            "Reconciling mibIpsecTunnelIfTableOutput: false",
                            "Input scans for mibIpsecTunnelIfTableOutput complete",
                            "IfIndexByIntfIdSm2 initial scan, and parent scan, complete.",
                            "IntfStatusSm0 scan, and parent scan, complete.",
                            "Initial scan done for child SMs. Now scanning with events triggered.",
                            " already ready, not reconciling."})
    EXPECT_THAT(texts, Contains(text));
}

TEST(IpsecSmStart, MayTraceItsStreamInTheFirstPassButWritesNothing) {
  World world(runModes[2]);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "6-7"}};
  machine->eventToTisIpsecStream(Plexa::IntfId(1), true);
  machine->eventToIfMibStream(Plexa::IntfId(1), 1);
  EXPECT_THAT(traces.texts(), ElementsAre(stream + "intfId=1"));
  EXPECT_THAT(rowsOf(*world.mib), IsEmpty());
}

TEST(IpsecSmStart, SaysWhichScanItWaitsFor) {
  World world(runModes[2]);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  while (!machine->inputSmScanState()->scan(0))
    ASSERT_TRUE(world.scheduler->runOne());
  TraceRecorder traces{{"IpsecTunnelIfTableSm", "9"}};
  machine->handleInitialScanDone();
  EXPECT_THAT(traces.texts(), ElementsAre(" tisIpsecStream scan is false"));
}

TEST(IpsecSmStart, NamesItsTasksAndFlags) {
  World world(runModes[2]);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = machineIn(world);
  std::vector<std::string> names;
  for (auto const * task : world.scheduler->tasks())
    names.push_back(task->name());
  EXPECT_THAT(names,
              ElementsAre("IpsecTunnelIfTableSm-mibIpsecTunnelIfTableOutputTask",
                          "TunnelIntfSnmp::IpsecTunnelIfTableSm-IfIndexByIntfIdSm2InputScanTask",
                          "TunnelIntfSnmp::IpsecTunnelIfTableSm-IntfStatusSm0InputScanTask"));
  std::set<std::string> told;
  auto const listener =
      Zel::makePtr<OnChange>(*machine->inputSmScanState(),
                             [&](auto const & change) { told.emplace(change.attribute().name); });
  auto const ready = Zel::makePtr<OnChange>(
      *machine->outputState(), [&](auto const & change) { told.emplace(change.attribute().name); });
  world.settle();
  EXPECT_THAT(told, ElementsAre("idle", "ifMibStreamScan", "mibIpsecTunnelIfTableOutputReady",
                                "ready", "tisIpsecStreamScan"));
}

TEST(IpsecSmDeathTest, DiesOfANullInput) {
  World world(runModes[0]);
  constexpr char const * text = "Pointer SM args cannot be null unless they are marked Optional";
  auto const build = [&](auto mib, auto dir, auto ifMib, auto ike) {
    IpsecTunnelIfTableSm::IpsecTunnelIfTableSmIs(mib, dir, ifMib, ike, world.control);
  };
  EXPECT_DEATH(build(nullptr, world.dir, world.ifMib, world.ikeStatus),
               std::string("fatal: mib\\(\\): ") + text);
  EXPECT_DEATH(build(world.mib, nullptr, world.ifMib, world.ikeStatus),
               std::string("fatal: tunnelIntfStatusDir\\(\\): ") + text);
  EXPECT_DEATH(build(world.mib, world.dir, nullptr, world.ikeStatus),
               std::string("fatal: ifMib\\(\\): ") + text);
  EXPECT_DEATH(build(world.mib, world.dir, world.ifMib, nullptr),
               std::string("fatal: ikeStatus\\(\\): ") + text);
}

TEST(IpsecSmDeathTest, DiesOfAChildWithoutRecord) {
  World world(runModes[0]);
  auto const machine = machineIn(world);
  auto const child = Zel::makePtr<FlowaCode::IpsecTunnelIfTableSm::IpsecSm1>(
      *machine, Plexa::IntfId(1), StatusPtr());
  EXPECT_DEATH(child->doInputScan(), "fatal: en\\(\\): Sm args can only be null if marked as "
                                     "Optional in the SM type declaration");
}

TEST(MibIpsecTunnelIfTableOutputKeyType, PrintsAndParses) {
  std::string const text = "Value('TunnelIntfSnmp::IpsecTunnelIfTableSm::"
                           "MibIpsecTunnelIfTableOutputKeyType', ** {'k0': 7, 'k0Valid': False})";
  MibIpsecTunnelIfTableOutputKeyType const key{7, false};
  EXPECT_EQ(Zel::valueToStrep(key), text);
  EXPECT_EQ(Zel::strepToValue<MibIpsecTunnelIfTableOutputKeyType>(text), key);
}

} // namespace
} // namespace TunnelIntfSnmp
