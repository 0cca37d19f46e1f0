// What each event means to tunnelIfTable.
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include "tests/machines/World.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>
#include <sstream>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TunnelIfTableSm : public ::testing::TestWithParam<RunMode> {
protected:
  TunnelIfTableSm()
      : machine_(::TunnelIntfSnmp::TunnelIfTableSm::TunnelIfTableSmIs(
            world_.mib, world_.dir, world_.ifMib, world_.control)) {
    machine_->hasNotificationActiveIs(true);
    world_.settle();
  }

  World world_{GetParam(), testSeed()};
  Zel::Ptr<::TunnelIntfSnmp::TunnelIfTableSm> machine_;
};
INSTANTIATE_TEST_SUITE_P(Modes, TunnelIfTableSm, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

std::string const inserting = "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): inserting k1=";
std::string const deleting = "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1=";

TEST_P(TunnelIfTableSm, CreatesTheRowWhenAStatusMeetsItsIfIndex) {
  world_.addIfIndex(1, 10);
  TraceRecorder traces{{"TunnelIfTableSm", "6-7"}};
  auto const status = world_.addStatus(1);
  EXPECT_EQ(world_.mib->tunnelIfTable(10)->tunnelIntfStatus(), status);
  EXPECT_THAT(traces.texts(),
              ElementsAre("tisStream = from( tunnelIntfStatusDir.intfStatus[] ): intfId=1 "
                          "tisOpt=Optional( Interface::TunnelIntfStatus( 1 ) )",
                          inserting + "10, value=Tuple( 10, Interface::TunnelIntfStatus( 1 ) )"));
  EXPECT_EQ(traces.lines()[0].function, "eventToTisStream");
}

TEST_P(TunnelIfTableSm, CreatesTheRowWhenTheIfIndexArrivesAfterTheStatus) {
  {
    TraceRecorder traces{{"TunnelIfTableSm", "6-7"}};
    world_.addStatus(1);
    EXPECT_EQ(traces.texts(6),
              std::vector<std::string>{"filter( ifIndexOpt ) failed, terminating pipeline"});
  }
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
  TraceRecorder traces{{"TunnelIfTableSm", "6-7"}};
  world_.addIfIndex(1, 10);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}}));
  EXPECT_THAT(traces.texts(),
              ElementsAre("ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId=1 "
                          "ifIndexOpt=Optional( 10 )",
                          inserting + "10, value=Tuple( 10, Interface::TunnelIntfStatus( 1 ) )"));
}

TEST_P(TunnelIfTableSm, IgnoresAnIfIndexWithoutStatus) {
  TraceRecorder traces{{"TunnelIfTableSm", "6"}};
  world_.addIfIndex(1, 10);
  world_.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1));
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
  EXPECT_THAT(traces.texts(), ElementsAre("filter( tisOpt ) failed, terminating pipeline",
                                          "filter( tisOpt ) failed, terminating pipeline"));
}

TEST_P(TunnelIfTableSm, DeletesTheRowUnderTheCurrentIfIndexWhenTheStatusGoes) {
  world_.addTunnel(1, 10);
  TraceRecorder traces{{"TunnelIfTableSm", "6-7"}};
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty());
  EXPECT_THAT(traces.texts(), ElementsAre("tisStream = from( tunnelIntfStatusDir.intfStatus[] ): "
                                          "intfId=1 tisOpt=None",
                                          deleting + "10"));
}

TEST_P(TunnelIfTableSm, TracesADeletionWhereNoRowWas) {
  world_.addTunnel(1, 10);
  world_.mib->tunnelIfTableDel(10);
  TraceRecorder traces{{"TunnelIfTableSm", "7"}};
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_EQ(traces.texts().back(), deleting + "10");
}

TEST_P(TunnelIfTableSm, ReplacesTheRowOfAStatusThatWasReplaced) {
  world_.addTunnel(1, 10);
  auto const oldRow = world_.mib->tunnelIfTable(10);
  std::size_t told = 0;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { ++told; });
  auto const status = world_.addStatus(1);
  EXPECT_NE(world_.mib->tunnelIfTable(10), oldRow);
  EXPECT_EQ(world_.mib->tunnelIfTable(10)->tunnelIntfStatus(), status);
  EXPECT_EQ(told, 2u) << "one deletion, one insertion";
}

TEST_P(TunnelIfTableSm, LeavesTheRowOfTheSameRecordUntouchedButTracesIt) {
  world_.addTunnel(1, 10);
  auto const row = world_.mib->tunnelIfTable(10);
  std::size_t told = 0;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { ++told; });
  TraceRecorder traces{{"TunnelIfTableSm", "7"}};
  machine_->eventToTisStream(Plexa::IntfId(1),
                             StatusPtr(*world_.dir->intfStatus().find(Plexa::IntfId(1))));
  EXPECT_EQ(world_.mib->tunnelIfTable(10), row);
  EXPECT_EQ(told, 0u);
  EXPECT_EQ(traces.texts().back(),
            inserting + "10, value=Tuple( 10, Interface::TunnelIntfStatus( 1 ) )");
}

TEST_P(TunnelIfTableSm, DoesNotHearOfTheStatussOwnAttributes) {
  world_.addIfIndex(1, 10);
  auto const status = world_.addStatus(1);
  TraceRecorder traces{{"TunnelIfTableSm", "all"}};
  status->hopLimitIs(7);
  EXPECT_THAT(traces.lines(), IsEmpty());
  EXPECT_EQ(world_.mib->tunnelIfTable(10)->hopLimit(), 7);
}

TEST_P(TunnelIfTableSm, LeavesTheRowUnderTheOldIfIndexWhenTheIfIndexChanges) {
  world_.addTunnel(1, 10);
  world_.addIfIndex(1, 11);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}, {11, 1}}));
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}})) << "until 10 is deleted or taken over";
  world_.addTunnel(2, 10);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 2}}));
}

TEST_P(TunnelIfTableSm, RaisesWhenAnIfIndexGoesWhileTheStatusStays) {
  world_.addTunnel(1, 10);
  std::size_t heard = 0;
  auto const other = Zel::makePtr<OnChange>(*world_.ifMib, [&](auto const &) { ++heard; });
  TraceRecorder traces{{"TunnelIfTableSm", "6-7"}};
  EXPECT_THROW(world_.ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1)), Zel::BadOptionalAccess);
  EXPECT_EQ(heard, 1u) << "whoever else listens";
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}}));
  EXPECT_THAT(
      traces.texts(),
      ElementsAre("ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId=1 ifIndexOpt=None"));
  machine_->intfStatusSm0()->doDeleteAll(); // leaves no stale change stamp behind
}

TEST_P(TunnelIfTableSm, RaisesAtTheFirstLostIfIndexThatStillHasAStatus) {
  world_.addTunnel(1, 10);
  EXPECT_THROW(machine_->doDeleteAll(), Zel::BadOptionalAccess);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 1}}));
}

TEST_P(TunnelIfTableSm, GivesAnIfIndexToTheInterfaceThatClaimedItLast) {
  world_.addTunnel(1, 10);
  world_.addTunnel(2, 10);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{10, 2}}));
  world_.dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_THAT(world_.tunnelIfRows(), IsEmpty()) << "as the row stands under the id's ifIndex";
}

TEST_P(TunnelIfTableSm, TakesAnyUnsignedIfIndex) {
  world_.addTunnel(1, 4294967295);
  world_.addTunnel(2, 0);
  EXPECT_EQ(world_.tunnelIfRows(), (Rows{{0, 2}, {4294967295, 1}}));
}

TEST(TunnelIfTableSmEvents, AreDroppedDuringTheFirstPass) {
  World world(runModes[2]);
  for (std::uint32_t i = 1; i <= 3; ++i)
    world.addTunnel(i, i);
  auto const machine = tunnelIfTableSmFactory(world.mib, world.dir, world.ifMib, world.control);
  TraceRecorder traces{{"TunnelIfTableSm", "6-7"}};
  machine->eventToTisStream(Plexa::IntfId(1), std::nullopt);
  machine->eventToIfMibStream(Plexa::IntfId(1), std::nullopt);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

// The output key

using Key = MibTunnelIfTableOutputKeyType;

TEST(MibTunnelIfTableOutputKeyType, OrdersByKeyAndThenByValidity) {
  EXPECT_LT((Key{1, true}), (Key{2, false}));
  EXPECT_LT((Key{2, false}), (Key{2, true}));
  EXPECT_EQ((Key{2, true}), (Key{2, true}));
  EXPECT_LT((Key{2147483647, true}), (Key{2147483648u, true}));
}

TEST(MibTunnelIfTableOutputKeyType, HashesBothFieldsFromTheSeed) {
  EXPECT_EQ((Key{2, true}.hash(7)),
            Zel::Hash(7).mix(std::uint32_t{2}).mix(std::uint8_t{1}).result());
  EXPECT_NE((Key{2, true}.hash(7)), (Key{2, true}.hash(8)));
  EXPECT_NE((Key{2, true}.hash(7)), (Key{2, false}.hash(7)));
  EXPECT_NE((Key{2, true}.hash(7)), (Key{3, true}.hash(7)));
}

TEST(MibTunnelIfTableOutputKeyType, IsNoKeyUntilItIsSet) {
  EXPECT_FALSE(Key());
  EXPECT_TRUE((Key{0, true}));
  Key key;
  key.validate();
  EXPECT_TRUE(key.k0Valid);
}

TEST(MibTunnelIfTableOutputKeyType, PrintsAndParses) {
  std::string const text = "Value('TunnelIntfSnmp::TunnelIfTableSm::MibTunnelIfTableOutputKeyType',"
                           " ** {'k0': 4294967295, 'k0Valid': True})";
  Key const key{4294967295, true};
  EXPECT_EQ(Zel::valueToStrep(key), text);
  std::ostringstream out;
  out << key;
  EXPECT_EQ(out.str(), text);
  EXPECT_EQ(Zel::strepToValue<Key>(text), key);
  EXPECT_THROW(Zel::strepToValue<Key>(text + " "), Zel::StrepError);
}

} // namespace
} // namespace TunnelIntfSnmp
