// The columns that are computed from the input records at the moment they are read.
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "tests/support/TraceRecorder.h"
#include <functional>
#include <gmock/gmock.h>
#include <set>
#include <utility>
#include <vector>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

Plexa::IpGenAddr address(char const * text) {
  return *Plexa::IpGenAddr::fromString(text);
}

class Columns : public ::testing::Test {
protected:
  Zel::Ptr<Interface::TunnelIntfStatus> status_ =
      Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(42));
  TunnelIfTableEntry row_{7, status_};
};

TEST(ModeToEncap, KnowsGreAndDirectAndCallsEveryOtherModeOther) {
  for (unsigned mode = 0; mode <= 255; ++mode) {
    auto const expected = mode == 1 ? 3u : mode == 2 ? 2u : 1u;
    EXPECT_EQ(modeToEncap(static_cast<Plexa::TunnelIntfMode>(mode)), expected) << mode;
  }
}

TEST_F(Columns, FollowTheStatus) {
  status_->modeIs(Plexa::TunnelIntfMode::gre);
  status_->hopLimitIs(255);
  status_->tosIs(63);
  status_->srcAddrIs(address("10.0.0.1"));
  status_->dstAddrIs(address("10.0.0.2"));
  EXPECT_EQ(row_.ifIndex(), 7u);
  EXPECT_EQ(row_.encapsMethod(), 3u);
  EXPECT_EQ(row_.hopLimit(), 255);
  EXPECT_EQ(row_.tos(), 63);
  EXPECT_EQ(row_.localAddr(), address("10.0.0.1"));
  EXPECT_EQ(row_.remoteAddr(), address("10.0.0.2"));
  status_->modeIs(Plexa::TunnelIntfMode::direct);
  EXPECT_EQ(row_.encapsMethod(), 2u);
}

TEST_F(Columns, SayWhetherIpsecProtectsTheTunnel) {
  EXPECT_EQ(row_.security(), 1u);
  status_->ipsecIs(true);
  EXPECT_EQ(row_.security(), 2u);
}

TEST_F(Columns, TakeTheFamilyOfTheSourceAndOfTheDestinationWhereThereIsNoSource) {
  EXPECT_EQ(row_.addrType(), 0u) << "both empty";
  status_->dstAddrIs(address("2001:db8::2"));
  EXPECT_EQ(row_.addrType(), 2u);
  status_->srcAddrIs(address("10.0.0.1"));
  EXPECT_EQ(row_.addrType(), 1u) << "the source decides";
  status_->srcAddrIs(address("0.0.0.0"));
  EXPECT_EQ(row_.addrType(), 1u) << "a zero address has a family";
  status_->srcAddrIs(Plexa::IpGenAddr(static_cast<Plexa::AddressFamily>(7)));
  EXPECT_EQ(row_.addrType(), 0u) << "one of an unknown family is no address, but is configured";
}

TEST(ColumnsWithoutStatus, AreZeroOrEmptyWhereTheyAreGuarded) {
  TunnelIfTableEntry const row(7, nullptr);
  EXPECT_EQ(row.hopLimit(), 0);
  EXPECT_EQ(row.tos(), 0);
  EXPECT_EQ(row.localAddr(), Plexa::IpGenAddr());
  EXPECT_EQ(row.remoteAddr(), Plexa::IpGenAddr());
}

TEST(ColumnsWithoutStatusDeathTest, AreFatalWhereTheyAreNot) {
  TunnelIfTableEntry const row(7, nullptr);
  EXPECT_DEATH(row.encapsMethod(), "fatal: object: null Zel::Ptr dereferenced");
  EXPECT_DEATH(row.security(), "null Zel::Ptr dereferenced");
  EXPECT_DEATH(row.addrType(), "null Zel::Ptr dereferenced");
}

class ConnState : public ::testing::Test {
protected:
  std::vector<std::string> traced(std::uint32_t expected) {
    TraceRecorder traces{{"TunnelIntfSnmp", "5"}};
    EXPECT_EQ(row_.connState(), expected);
    for (auto const & line : traces.lines()) {
      EXPECT_EQ(line.file, "TunnelIntfSnmp.cpp");
      EXPECT_EQ(line.object, "IpsecTunnelIfTableEntry");
      EXPECT_EQ(line.function, "connState");
    }
    return traces.texts();
  }

  Plexa::IntfId const id_{42};
  Zel::Ptr<Ipsec::Ike::Status> ike_ = Zel::makePtr<Ipsec::Ike::Status>("ikeStatus");
  Zel::Ptr<Interface::TunnelIntfStatus> status_ = Zel::makePtr<Interface::TunnelIntfStatus>(id_);
  IpsecTunnelIfTableEntry row_{7, status_, ike_};
};

TEST_F(ConnState, MapsEveryInputStateWithItsGap) {
  auto info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
  info->profileNameIs("p");
  ike_->ipsecTunnelInfoIs(id_, info);
  auto map = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
  ike_->appliedProfilesIs("p", map);
  auto applied = Zel::makePtr<Ipsec::Ike::IpsecTunnelProfileInfo>();
  map->appliedIntfIdIs(id_, applied);
  std::vector<std::uint32_t> const column{0, 1, 2, 3, 4, 0, 5, 6, 0, 0};
  for (unsigned state = 0; state <= 255; ++state) {
    applied->connStateIs(static_cast<Ipsec::Ike::ConnState>(state));
    EXPECT_EQ(row_.connState(), state < column.size() ? column[state] : 0u) << state;
  }
  EXPECT_THAT(traced(0), IsEmpty());
}

TEST_F(ConnState, TracesWhichLookUpFailed) {
  EXPECT_THAT(traced(0), ElementsAre("No tunnelInfo for 42"));
  auto info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
  info->profileNameIs("branch");
  ike_->ipsecTunnelInfoIs(id_, info);
  EXPECT_THAT(traced(0), ElementsAre("No appliedProfile profileConnectionMap for profile branch"));
  auto map = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
  ike_->appliedProfilesIs("branch", map);
  EXPECT_THAT(traced(0), ElementsAre("No appliedIntfId tunnelProfileInfo for intfId 42"));
}

TEST_F(ConnState, NamesTheLineOfTheLookUpThatFailed) {
  std::set<std::uint_least32_t> lines;
  TraceRecorder const traces{{"TunnelIntfSnmp", "5"}}; // gives the sink back
  Lumo::traceSinkIs([&](auto const & message) { lines.insert(message.place.line()); });
  row_.connState();
  auto info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
  info->profileNameIs("branch");
  ike_->ipsecTunnelInfoIs(id_, info);
  row_.connState();
  ike_->appliedProfilesIs("branch", Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>());
  row_.connState();
  EXPECT_THAT(lines, SizeIs(3));
}

TEST_F(ConnState, TakesANullRecordForAMissingOne) {
  ike_->ipsecTunnelInfoIs(id_, nullptr);
  EXPECT_THAT(traced(0), ElementsAre("No tunnelInfo for 42"));
  auto info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
  info->profileNameIs("p");
  ike_->ipsecTunnelInfoIs(id_, info);
  ike_->appliedProfilesIs("p", nullptr);
  EXPECT_THAT(traced(0), ElementsAre("No appliedProfile profileConnectionMap for profile p"));
  auto map = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
  ike_->appliedProfilesIs("p", map);
  map->appliedIntfIdIs(id_, nullptr);
  EXPECT_THAT(traced(0), ElementsAre("No appliedIntfId tunnelProfileInfo for intfId 42"));
}

/// A connection that is up, and that has been read before.
class ConnStateAgain : public ConnState {
protected:
  using Connection = Ipsec::Ike::IpsecTunnelProfileInfo;

  ConnStateAgain() {
    applied_->connStateIs(Ipsec::Ike::ConnState::up);
    connections_->appliedIntfIdIs(id_, applied_);
    ike_->appliedProfilesIs("p", connections_);
    info_->profileNameIs("p");
    ike_->ipsecTunnelInfoIs(id_, info_);
    EXPECT_EQ(row_.connState(), 4u);
  }
  static Zel::Ptr<Connection> connecting() {
    auto connection = Zel::makePtr<Connection>();
    connection->connStateIs(Ipsec::Ike::ConnState::connecting);
    return connection;
  }
  static Zel::Ptr<Ipsec::Ike::IpsecProfileConnectionMap> connectionsOf(Plexa::IntfId id) {
    auto connections = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
    connections->appliedIntfIdIs(id, connecting());
    return connections;
  }

  Zel::Ptr<Connection> applied_ = Zel::makePtr<Connection>();
  Zel::Ptr<Ipsec::Ike::IpsecProfileConnectionMap> connections_ =
      Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
  Zel::Ptr<Ipsec::Ike::TunnelInfo> info_ = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
};

TEST_F(ConnStateAgain, FollowsTheRecord) {
  applied_->connStateIs(Ipsec::Ike::ConnState::down);
  EXPECT_EQ(row_.connState(), 1u);
}

TEST_F(ConnStateAgain, FollowsTheInterfaceToAnotherRecord) {
  connections_->appliedIntfIdIs(id_, connecting());
  EXPECT_EQ(row_.connState(), 2u);
  connections_->appliedIntfIdIs(id_, nullptr);
  EXPECT_THAT(traced(0), ElementsAre("No appliedIntfId tunnelProfileInfo for intfId 42"));
  connections_->appliedIntfIdIs(id_, applied_);
  EXPECT_EQ(row_.connState(), 4u);
  connections_->appliedIntfIdDel(id_);
  EXPECT_THAT(traced(0), ElementsAre("No appliedIntfId tunnelProfileInfo for intfId 42"));
  EXPECT_THAT(traced(0), ElementsAre("No appliedIntfId tunnelProfileInfo for intfId 42"));
}

TEST_F(ConnStateAgain, FollowsTheProfileToAnotherMap) {
  ike_->appliedProfilesIs("p", connectionsOf(id_));
  EXPECT_EQ(row_.connState(), 2u);
  ike_->appliedProfilesDel("p");
  EXPECT_THAT(traced(0), ElementsAre("No appliedProfile profileConnectionMap for profile p"));
  ike_->appliedProfilesIs("p", connections_);
  EXPECT_EQ(row_.connState(), 4u);
}

TEST_F(ConnStateAgain, FollowsTheInterfaceToAnotherProfile) {
  ike_->appliedProfilesIs("q", connectionsOf(id_));
  EXPECT_EQ(row_.connState(), 4u);
  info_->profileNameIs("q");
  EXPECT_EQ(row_.connState(), 2u);
  auto const other = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
  other->profileNameIs("p");
  ike_->ipsecTunnelInfoIs(id_, other);
  EXPECT_EQ(row_.connState(), 4u);
  ike_->ipsecTunnelInfoDel(id_);
  EXPECT_THAT(traced(0), ElementsAre("No tunnelInfo for 42"));
}

TEST_F(ConnStateAgain, IsThatOfTheNewRecordWhereTheOldOneEnds) {
  struct Ending : Connection {
    Ending(Ipsec::Ike::ConnState state, std::function<void()> atEnd) : atEnd_(std::move(atEnd)) {
      connStateIs(state);
    }
    ~Ending() override { atEnd_(); }
    std::function<void()> const atEnd_;
  };
  std::vector<std::uint32_t> seen;
  auto const ending = [&](Ipsec::Ike::ConnState state) {
    return Zel::makePtr<Ending>(state, [&] { seen.push_back(row_.connState()); });
  };
  connections_->appliedIntfIdIs(id_, ending(Ipsec::Ike::ConnState::connecting));
  EXPECT_EQ(row_.connState(), 2u);
  connections_->appliedIntfIdIs(id_, ending(Ipsec::Ike::ConnState::rekeying));
  EXPECT_EQ(row_.connState(), 5u);
  connections_->appliedIntfIdDel(id_);
  EXPECT_EQ(row_.connState(), 0u);

  auto const mapWith = [&](Zel::Ptr<Connection> const & connection) {
    auto map = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
    map->appliedIntfIdIs(id_, connection);
    return map;
  };
  ike_->appliedProfilesIs("p", mapWith(ending(Ipsec::Ike::ConnState::closing)));
  EXPECT_EQ(row_.connState(), 6u);
  ike_->appliedProfilesIs("p", mapWith(ending(Ipsec::Ike::ConnState::down)));
  EXPECT_EQ(row_.connState(), 1u);
  ike_->appliedProfilesDel("p");
  EXPECT_THAT(seen, ElementsAre(5u, 0u, 1u, 0u));
}

TEST_F(ConnStateAgain, FollowsMapsThatNotifyNobody) {
  connections_->hasNotificationActiveIs(false);
  ike_->hasNotificationActiveIs(false);
  connections_->appliedIntfIdIs(id_, connecting());
  EXPECT_EQ(row_.connState(), 2u);
  ike_->appliedProfilesDel("p");
  EXPECT_EQ(row_.connState(), 0u);
}

TEST_F(ConnStateAgain, IsThatOfItsOwnStatus) {
  auto const other = Zel::makePtr<Ipsec::Ike::Status>("other");
  other->ipsecTunnelInfoIs(id_, info_);
  other->appliedProfilesIs("p", connectionsOf(id_));
  IpsecTunnelIfTableEntry const row(7, status_, other);
  EXPECT_EQ(row.connState(), 2u);
  EXPECT_EQ(row_.connState(), 4u);
}

} // namespace
} // namespace TunnelIntfSnmp
