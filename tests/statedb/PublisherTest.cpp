// Single changes of a publisher.
#include "platform/Lumo.h"
#include "tests/statedb/PublisherFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SingleChanges : public PublisherFixture {};

TEST_F(SingleChanges, InsertsARecordThatIsComplete) {
  Status seen;
  recorder.then = [&](auto const & text) {
    if (text == "intfStatus 5")
      seen = record(5)->values();
  };
  Status const status{.mode = Plexa::TunnelIntfMode::gre, .hopLimit = 64, .tos = 46, .ipsec = true};
  publisher.statusIs(id(5), status);
  EXPECT_EQ(seen, status);
  EXPECT_EQ(record(5)->intfId(), id(5));
  EXPECT_THAT(heard(), ElementsAre("intfStatus 5"));
}

TEST_F(SingleChanges, NotifiesEachAttributeThatDiffersOnceInPlace) {
  publisher.statusIs(id(5), tos(5));
  listenToStatus(5);
  heard();
  publisher.statusIs(id(5), Status{.hopLimit = 64, .tos = 6});
  publisher.statusIs(id(5), Status{.hopLimit = 64, .tos = 6});
  EXPECT_THAT(heard(), ElementsAre("hopLimit", "tos"));
  EXPECT_EQ(publisher.changes(), 2u);
}

TEST_F(SingleChanges, GivesAnIfIndexBeforeTheStatusAndTakesItAfterIt) {
  publisher.tunnelIs(id(5), 17, tos(5));
  EXPECT_THAT(heard(), ElementsAre("ifIndexByIntfId 5", "intfStatus 5"));
  EXPECT_EQ(at(indexes, 5), 17);
  publisher.tunnelDel(id(5));
  EXPECT_THAT(heard(), ElementsAre("intfStatus 5", "ifIndexByIntfId 5"));
  EXPECT_THAT(read(statuses), IsEmpty());
  EXPECT_THAT(read(indexes), IsEmpty());
}

TEST_F(SingleChanges, RemovesATunnelOfAnotherKindBeforeItAddsTheNewOne) {
  publisher.tunnelIs(id(5), 5, tos(5), 1);
  auto const old = record(5);
  heard();
  publisher.tunnelIs(id(5), 5, tos(5), 2);
  EXPECT_THAT(heard(), ElementsAre("intfStatus 5", "ifIndexByIntfId 5", "ifIndexByIntfId 5",
                                   "intfStatus 5"));
  EXPECT_NE(record(5), old);
  publisher.statusIs(id(5), tos(5), 3);
  EXPECT_THAT(heard(), ElementsAre("intfStatus 5", "intfStatus 5"));
  publisher.ifIndexIs(id(5), 5, 2);
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(SingleChanges, PutsNullAndPutsARecordWhereNullIs) {
  publisher.statusIs(id(5), std::nullopt);
  publisher.statusIs(id(5), std::nullopt);
  EXPECT_EQ(at(statuses, 5), nullptr);
  EXPECT_THAT(heard(), ElementsAre("intfStatus 5"));
  publisher.statusIs(id(5), tos(6));
  EXPECT_EQ(record(5)->tos(), 6);
  publisher.statusIs(id(5), std::nullopt);
  EXPECT_THAT(heard(), ElementsAre("intfStatus 5", "intfStatus 5"));
}

TEST_F(SingleChanges, PublishesWhatTheIkeDaemonSays) {
  publisher.tunnelInfoIs(id(5), Publisher::TunnelInfo{"a"});
  publisher.tunnelInfoIs(id(6), std::nullopt);
  publisher.profileIs("a");
  publisher.connectionIs("b/", id(5), Connection{ConnState::up});
  publisher.connectionIs("b/", id(6), std::nullopt);
  publisher.nullProfileIs("c");
  EXPECT_EQ(read("/ikeStatus"), json::parse(R"({
      "ipsecTunnelInfo": {"5": {"profileName": "a"}, "6": null},
      "appliedProfiles": {"a": {"appliedIntfId": {}}, "c": null,
                          "b/": {"appliedIntfId": {"5": {"connState": "up"}, "6": null}}}})"));
  publisher.connectionDel("b/", id(5));
  publisher.profileDel("c");
  publisher.tunnelInfoDel(id(6));
  EXPECT_EQ(read("/ikeStatus"), json::parse(R"({
      "ipsecTunnelInfo": {"5": {"profileName": "a"}},
      "appliedProfiles": {"a": {"appliedIntfId": {}}, "b/": {"appliedIntfId": {"6": null}}}})"));
  EXPECT_EQ(publisher.counts(),
            (Publisher::Counts{.tunnelInfos = 1, .profiles = 2, .connections = 1}));
}

TEST_F(SingleChanges, LosesTheConnectionsOfAProfileWithIt) {
  publisher.connectionIs("a", id(5), Connection{});
  publisher.connectionIs("b", id(5), Connection{});
  publisher.profileDel("a");
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.profiles = 1, .connections = 1}));
  publisher.nullProfileIs("b");
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.profiles = 1}));
  publisher.connectionIs("b", id(5), Connection{});
  EXPECT_EQ(read(profiles),
            json::parse(R"({"b": {"appliedIntfId": {"5": {"connState": "none"}}}})"));
}

TEST_F(SingleChanges, RemovesNothingThatIsNotItsOwnOrGoneAlready) {
  patch("add", std::string(statuses) + "/5", json::object());
  patch("add", std::string(profiles) + "/a", json::object());
  publisher.tunnelIs(id(6), 6, tos(6));
  patch("remove", std::string(statuses) + "/6");
  heard();
  publisher.statusDel(id(5));
  publisher.profileDel("a");
  publisher.connectionDel("a", id(5));
  publisher.statusDel(id(6));
  publisher.tunnelInfoDel(id(5));
  publisher.ifIndexDel(id(7));
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(publisher.changes(), 2u);
}

TEST_F(SingleChanges, TakesOverARecordThatSomebodyElsePut) {
  patch("add", std::string(statuses) + "/5", {{"tos", 5}});
  auto const present = record(5);
  publisher.statusIs(id(5), tos(6));
  EXPECT_EQ(record(5), present);
  EXPECT_EQ(record(5)->tos(), 6);
  publisher.statusDel(id(5));
  EXPECT_THAT(read(statuses), IsEmpty());
}

TEST_F(SingleChanges, GoesOnAndReportsWhatNotifieesRaise) {
  auto const before = Lumo::counter("statedb-notifiee-exceptions");
  recorder.then = [](auto const & text) { throw std::runtime_error("no " + text); };
  publisher.tunnelIs(id(5), 5, tos(5));
  publisher.connectionIs("a/", id(6), std::nullopt);
  publisher.tunnelInfoIs(id(7), std::nullopt);
  EXPECT_THAT(failures, ElementsAre("/ifMib/ifIndexByIntfId/5: no ifIndexByIntfId 5",
                                    "/tunnelIntfStatusDir/intfStatus/5: no intfStatus 5",
                                    "/ikeStatus/appliedProfiles/a~1: no appliedProfiles a/",
                                    "/ikeStatus/ipsecTunnelInfo/7: no ipsecTunnelInfo 7"));
  EXPECT_EQ(Lumo::counter("statedb-notifiee-exceptions"), before + 4);
  EXPECT_EQ(at(statuses, 5)["tos"], 5);
  listenToStatus(5);
  publisher.statusIs(id(5), Status{.hopLimit = 1, .tos = 1});
  EXPECT_THAT(failures.back(), "/tunnelIntfStatusDir/intfStatus/5: no hopLimit");
  EXPECT_EQ(recorder.heard.back(), "tos");
}

TEST_F(SingleChanges, PrefersWhatANotifieePublishesMeanwhile) {
  recorder.then = [&, nested = false](auto const & text) mutable {
    if (text == "ifIndexByIntfId 5" && !std::exchange(nested, true))
      publisher.tunnelDel(id(5));
  };
  publisher.tunnelIs(id(5), 5, tos(5));
  EXPECT_THAT(read(statuses), IsEmpty());
  EXPECT_THAT(read(indexes), IsEmpty());
  EXPECT_EQ(publisher.counts(), Publisher::Counts());
}

TEST_F(SingleChanges, PrefersAStatusThatANotifieePublishesWhenAnotherKindGoes) {
  publisher.statusIs(id(5), tos(5), 1);
  recorder.then = [&, nested = false](auto const &) mutable {
    if (!std::exchange(nested, true))
      publisher.statusIs(id(5), tos(7), 3);
  };
  publisher.statusIs(id(5), tos(6), 2);
  EXPECT_EQ(at(statuses, 5)["tos"], 7);
}

TEST_F(SingleChanges, PrefersATunnelThatANotifieePutsBackDuringItsRemoval) {
  publisher.tunnelIs(id(5), 5, tos(5), 1);
  recorder.then = [&, nested = false](auto const &) mutable {
    if (!std::exchange(nested, true))
      publisher.tunnelIs(id(5), 55, tos(6), 1);
  };
  publisher.tunnelDel(id(5));
  EXPECT_EQ(at(indexes, 5), 55);
  EXPECT_EQ(at(statuses, 5)["tos"], 6);
  recorder.then = [&, nested = false](auto const &) mutable {
    if (!std::exchange(nested, true))
      publisher.tunnelIs(id(5), 56, tos(7), 3);
  };
  publisher.tunnelIs(id(5), 57, tos(8), 2);
  EXPECT_EQ(at(indexes, 5), 56);
  EXPECT_EQ(at(statuses, 5)["tos"], 7);
}

TEST_F(SingleChanges, PrefersTheEndOfAProfileToAConnectionThatBringsIt) {
  recorder.then = [&, nested = false](auto const &) mutable {
    if (!std::exchange(nested, true))
      publisher.profileDel("a");
  };
  publisher.connectionIs("a", id(5), Connection{});
  EXPECT_THAT(read(profiles), IsEmpty());
  EXPECT_EQ(publisher.counts(), Publisher::Counts());
}

TEST_F(SingleChanges, LeavesWhatItPublishedInPlaceWhenItEnds) {
  {
    StateDb::Publisher other(publishers);
    other.tunnelIs(id(5), 5, tos(5));
    EXPECT_TRUE(publishers.publishesStatus(id(5)));
  }
  EXPECT_EQ(at(statuses, 5)["tos"], 5);
  EXPECT_FALSE(publishers.publishesStatus(id(5)));
}

} // namespace
