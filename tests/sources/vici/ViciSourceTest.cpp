// The source, with a strongSwan that does what it should.
#include "platform/Lumo.h"
#include "tests/sources/vici/Recordings.h"
#include "tests/sources/vici/ViciHost.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

using ViciSource = ViciHost;

/// Of the recording of that name.
std::vector<std::string> recordedEvents(std::string const & name, std::string_view event) {
  return ViciBytes::recordedEvents(RECORDINGS "/" + name + ".txt", event);
}

TEST_F(ViciSource, PublishesWhatIsBoundWhenItHasStarted) {
  officeIsUp();
  peer.listen();
  EXPECT_FALSE(isIpsec(7));
  start();
  expectInSync();
  EXPECT_EQ(profile(7), "office");
  EXPECT_EQ(state(7), "up");
  EXPECT_TRUE(isIpsec(7)) << "whatever the kernel's policies say";
  EXPECT_TRUE(boundLinks.has(Plexa::IntfId(7)));
  EXPECT_EQ(source->status().fullReads, 1u);
  EXPECT_THAT(told, IsEmpty()) << "a start that went well is nothing to tell";
}

TEST_F(ViciSource, StartsWithoutWaiting) {
  officeIsUp();
  peer.listen();
  source = std::make_unique<Sources::ViciSource>(":" + path, surroundings());
  EXPECT_EQ(source->status().state, State::stopped);
  EXPECT_EQ(peer.accepted, 0);
  source->start();
  EXPECT_TRUE(source->status().isReading);
  EXPECT_EQ(profile(7), "");
  settle();
  EXPECT_EQ(state(7), "up");
}

TEST_F(ViciSource, SubscribesBeforeItLists) {
  peer.listen();
  start();
  EXPECT_THAT(peer.heard,
              ElementsAre("version", "list-sa", "list-conn", "ike-updown", "ike-rekey",
                          "ike-update", "child-updown", "child-rekey", "list-conns", "list-sas"));
  EXPECT_EQ(peer.accepted, 2);
}

TEST_F(ViciSource, SaysDownOfAConnectionThatHasNoSa) {
  linkIs(7, 42);
  peer.connections = {ViciBytes::conn("office", {"net"})};
  peer.listen();
  start(",bind=office/net@xfrm7");
  EXPECT_EQ(profile(7), "office");
  EXPECT_EQ(state(7), "down");
}

TEST_F(ViciSource, FollowsASaUpAndDown) {
  linkIs(7, 42);
  peer.connections = {ViciBytes::conn("office", {"net"})};
  peer.listen();
  start(",bind=office@xfrm7");
  std::tuple<char const *, char const *, char const *> const happenings[] = {
      {"CONNECTING", "DELETED", "connecting"}, {"ESTABLISHED", "INSTALLING", "ikeUp"},
      {"ESTABLISHED", "INSTALLED", "up"},      {"ESTABLISHED", "REKEYING", "up"},
      {"REKEYING", "INSTALLED", "up"},         {"DELETING", "INSTALLED", "closing"},
      {"ESTABLISHED", "PONDERING", "unknown"}, {"MUSING", "INSTALLED", "unknown"}};
  for (auto const & [ike, child, shown] : happenings) {
    saIs("office", 42, ike, child);
    peer.event("child-updown");
    settle();
    pass(50ms);
    EXPECT_EQ(state(7), shown) << ike << " " << child;
    expectInSync();
  }
  peer.sas.clear();
  peer.event("ike-updown");
  settle();
  pass(50ms);
  EXPECT_EQ(state(7), "down");
}

TEST_F(ViciSource, ListsOnceForEventsOf50Milliseconds) {
  officeIsUp();
  peer.listen();
  start();
  for (auto const * event : {"ike-updown", "child-updown", "ike-rekey", "ike-update"})
    peer.event(event, ViciBytes::sa("office", "ESTABLISHED", {}));
  settle();
  pass(45ms);
  EXPECT_EQ(peer.listings, 1);
  pass(5ms);
  EXPECT_EQ(peer.listings, 2);
  pass(4s);
  EXPECT_EQ(peer.listings, 2);
}

TEST_F(ViciSource, ListsEvery5SecondsWhenNothingIsHeard) {
  linkIs(7, 42);
  connectionIs("office", 42, "CONNECTING", "INSTALLING");
  peer.listen();
  start();
  saIs("office", 42);
  pass(4900ms);
  EXPECT_EQ(state(7), "connecting");
  pass(100ms);
  EXPECT_EQ(state(7), "up");
  pass(5s);
  EXPECT_EQ(peer.listings, 3);
}

TEST_F(ViciSource, ListsNoMoreOftenThanEach50MillisecondsInAFloodOfEvents) {
  officeIsUp();
  peer.listen();
  start();
  for (int i = 0; i != 200; ++i) {
    peer.event("child-updown");
    pass(5ms);
  }
  EXPECT_LE(peer.listings, 21);
  EXPECT_GE(peer.listings, 15);
}

TEST_F(ViciSource, ListsOnceMoreForAnEventDuringAListing) {
  officeIsUp();
  peer.listen();
  peer.instead = [this](auto &, auto const & packet) {
    if (packet.name == "list-sas" && peer.listings == 0)
      peer.event("ike-updown");
    return false;
  };
  start();
  EXPECT_EQ(peer.listings, 1);
  pass(50ms);
  EXPECT_EQ(peer.listings, 2);
  pass(1s);
  EXPECT_EQ(peer.listings, 2);
}

TEST_F(ViciSource, TakesEventsWhileItWaitsForAnswers) {
  officeIsUp();
  peer.listen();
  peer.instead = [this](auto & session, auto const &) {
    peer.send(session, Sources::Vici::encodeSegment(ViciPeer::PacketType::event, "ike-updown",
                                                    ViciBytes::sa("other", "CREATED", {})));
    return false;
  };
  start();
  EXPECT_EQ(state(7), "up");
  expectInSync();
}

TEST_F(ViciSource, BindsALinkThatComesLater) {
  connectionIs("office", 42);
  peer.listen();
  start();
  EXPECT_EQ(profile(7), "");
  linkIs(7, 42);
  pass(50ms);
  EXPECT_EQ(state(7), "up");
  EXPECT_EQ(peer.listings, 2);
}

TEST_F(ViciSource, ListsNoMoreOftenThanEach50MillisecondsInAFloodOfLinks) {
  connectionIs("office", 42);
  peer.listen();
  start();
  for (int i = 0; i != 200; ++i) {
    linkIs(7, 42 + static_cast<std::uint32_t>(i % 2));
    pass(5ms);
  }
  EXPECT_LE(peer.listings, 21);
  pass(50ms);
  EXPECT_EQ(profile(7), "") << "its last interface id is another one";
}

TEST_F(ViciSource, FollowsTheDaemonWhileALinkComesAndGoesInEachListing) {
  officeIsUp();
  peer.listen();
  int changes = 0;
  peer.instead = [&](auto &, auto const & packet) {
    if (packet.name == "list-conns" || packet.name == "list-sas")
      comesOrGoes(changes++);
    return false;
  };
  start();
  EXPECT_EQ(state(7), "up");
  saIs("office", 42, "CONNECTING");
  peer.event("ike-updown");
  pass(500ms);
  EXPECT_EQ(state(7), "connecting");
  EXPECT_LE(peer.listings, 12);
  EXPECT_GE(peer.listings, 10) << "a link has changed in each of them";
}

TEST_F(ViciSource, FollowsTheDaemonWhileALinkComesAndGoesWithoutAPause) {
  for (auto const yield : {Yield::never, Yield::always}) {
    linkIs(7, 42);
    peer.connections.clear();
    connectionIs("office", 42);
    peer.listen();
    scheduler->yieldIs(yield);
    start();
    saIs("office", 42, "CONNECTING");
    for (int changes = 0; changes != 600; ++changes) {
      comesOrGoes(changes);
      if (!loop.runOnce() && !scheduler->runOne())
        loop.advance(50ms);
    }
    EXPECT_EQ(state(7), "connecting");
    EXPECT_LE(source->status().changes, 10u) << "nothing comes and goes but the link";
    source.reset();
    peer.end();
  }
}

TEST_F(ViciSource, ListsAgainWhenALinkChangesDuringTheListing) {
  officeIsUp();
  connectionIs("branch", 43);
  peer.listen();
  peer.instead = [this](auto &, auto const & packet) {
    if (packet.name == "list-sas" && peer.listings == 0)
      linkIs(8, 43);
    return false;
  };
  start();
  EXPECT_EQ(state(7), "up") << "what was listed counts";
  expectInSync();
  pass(50ms);
  EXPECT_EQ(peer.listings, 2);
  EXPECT_EQ(state(7), "up");
  EXPECT_EQ(profile(8), "branch");
  expectInSync();
}

TEST_F(ViciSource, ListsAgainWhenALinkChangesWhileThingsAreBound) {
  officeIsUp();
  connectionIs("branch", 43);
  peer.listen();
  source = std::make_unique<Sources::ViciSource>(":" + path, surroundings());
  source->start();
  while (loop.runOnce()) {
  }
  linkIs(8, 43);
  links.linkDel(Plexa::IntfId(7));
  settle();
  EXPECT_EQ(profile(7), "") << "it has gone";
  EXPECT_EQ(profile(8), "") << "it was not there when the SA was listed";
  expectInSync();
  pass(50ms);
  EXPECT_EQ(profile(7), "");
  EXPECT_EQ(state(8), "up");
  expectInSync();
}

TEST_F(ViciSource, ReadsAgainWhatHasHappenedDuringTheListing) {
  officeIsUp();
  peer.listen();
  source = std::make_unique<Sources::ViciSource>(":" + path, surroundings());
  source->start();
  while (loop.runOnce()) {
  }
  linkIs(7, 43);
  source->reread();
  for (auto isBusy = true; isBusy && source->status().isReading;)
    isBusy = loop.runOnce() || scheduler->runOne();
  EXPECT_FALSE(source->status().isReading);
  EXPECT_EQ(profile(7), "") << "and not after 50 ms";
  EXPECT_EQ(peer.listings, 2);
}

TEST_F(ViciSource, TakesAwayWhatIsBoundNoMore) {
  officeIsUp();
  linkIs(8, 43);
  connectionIs("branch", 43);
  peer.listen();
  start();
  auto const records = source->status().records;
  EXPECT_EQ(records.tunnelInfos, 2u);
  EXPECT_EQ(records.connections, 2u);
  EXPECT_EQ(records.profiles, 2u);
  EXPECT_EQ(records.statusClaims, 2u);
  peer.sas.erase("office");
  peer.connections = {ViciBytes::conn("branch", {"net"})};
  pass(5s);
  EXPECT_EQ(profile(7), "");
  EXPECT_TRUE(at("/ikeStatus/appliedProfiles/office").is_null());
  EXPECT_FALSE(isIpsec(7));
  EXPECT_FALSE(boundLinks.has(Plexa::IntfId(7)));
  EXPECT_EQ(state(8), "up");
  EXPECT_TRUE(boundLinks.has(Plexa::IntfId(8)));
}

TEST_F(ViciSource, SpeaksOfALinkFromBeforeItsRecordsComeUntilAfterTheyAreGone) {
  std::vector<std::string> heard;
  auto const watch = boundLinks.watch([&](Plexa::IntfId intfId) {
    heard.push_back(fmt::format("{} {}{}", intfId, boundLinks.has(intfId) ? "bound" : "free",
                                profile(7).empty() ? "" : ", but has records"));
  });
  officeIsUp();
  peer.listen();
  start();
  EXPECT_THAT(heard, ElementsAre("7 bound"));
  pass(5s);
  EXPECT_THAT(heard, ElementsAre("7 bound"));
  peer.sas.clear();
  pass(5s);
  EXPECT_THAT(heard, ElementsAre("7 bound", "7 free"));
}

TEST_F(ViciSource, MayChangeALinkByWhatItPublishes) {
  officeIsUp();
  auto const watch = boundLinks.watch([&](Plexa::IntfId) { linkIs(9, 44); });
  peer.listen();
  start();
  pass(1s);
  EXPECT_EQ(state(7), "up");
  EXPECT_EQ(peer.listings, 2);
  expectInSync();
}

TEST_F(ViciSource, ReadsAgainAtOnceWhenItIsAsked) {
  officeIsUp();
  peer.listen();
  start();
  saIs("office", 42, "DELETING");
  source->reread();
  EXPECT_TRUE(source->status().isReading);
  settle();
  EXPECT_EQ(state(7), "closing");
  expectInSync();
}

TEST_F(ViciSource, TellsOfTheDaemonAndItsListing) {
  officeIsUp();
  connectionIs("unbound", 99);
  peer.listen();
  start();
  EXPECT_THAT(
      source->status().details,
      ElementsAre(Pair("daemon", "strongSwan 5.9.8"),
                  Pair("last listing", testing::MatchesRegex("20..-..-..T..:..:..Z, [0-9]+ s ago")),
                  Pair("SAs", "1 bound, 1 not")));
}

TEST_F(ViciSource, TellsOfEachConnectionWhatItIsBoundTo) {
  officeIsUp();
  connectionIs("unbound", 99);
  peer.listen();
  start();
  auto const all = source->connections();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].connection, "office");
  EXPECT_EQ(all[0].child, "net");
  EXPECT_EQ(all[0].interface, "xfrm7");
  EXPECT_EQ(all[0].reason, "if_id");
  EXPECT_EQ(all[1].connection, "unbound");
  EXPECT_EQ(all[1].interface, "");
  EXPECT_NE(all[1].reason, "");
}

TEST_F(ViciSource, CountsAndTellsOfInterfacesThatSeveralConnectionsClaim) {
  officeIsUp();
  connectionIs("another", 42);
  auto const before = Lumo::counter("vici-conflicts");
  TraceRecorder const traces{{"ViciSource", "7"}};
  peer.listen();
  start();
  EXPECT_EQ(Lumo::counter("vici-conflicts"), before + 1);
  source->reread();
  settle();
  EXPECT_THAT(traces.texts(7),
              testing::Contains("link 7: several connections claim it, another has it").Times(1))
      << "not with each listing";
  EXPECT_EQ(profile(7), "another") << "both are up; it has the lower name";
  EXPECT_THAT(source->status().details, testing::Contains(Pair("contested interfaces", "1")));
}

TEST_F(ViciSource, LeavesWhatItPublishedAtItsEnd) {
  officeIsUp();
  peer.listen();
  start();
  auto const before = at("/ikeStatus");
  source.reset();
  settle();
  linkIs(7, 43);
  EXPECT_EQ(at("/ikeStatus"), before);
  EXPECT_EQ(peer.sessions(), 0u);
}

TEST_F(ViciSource, MayEndAtAnyMoment) {
  officeIsUp();
  peer.listen();
  for (int turns = 0; turns != 40; ++turns) {
    source = std::make_unique<Sources::ViciSource>(":" + path, surroundings());
    source->start();
    for (int i = 0; i != turns; ++i)
      if (!loop.runOnce())
        scheduler->runOne();
    source.reset();
    settle();
    EXPECT_EQ(peer.sessions(), 0u);
  }
}

TEST_F(ViciSource, TracesWhatItDoes) {
  officeIsUp();
  peer.listen();
  TraceRecorder const traces{{"ViciSource", "all"}};
  start();
  EXPECT_THAT(traces.texts(1), ElementsAre("connected to strongSwan 5.9.8"));
  EXPECT_THAT(traces.texts(7), ElementsAre("published 4 changes"));
  EXPECT_THAT(traces.texts(8), ElementsAre("listing connections and SAs"));
  EXPECT_THAT(traces.texts(9), ElementsAre("connecting to " + path));
  peer.event("ike-rekey");
  settle();
  EXPECT_TRUE(traces.has(9, "event ike-rekey"));
  peer.end();
  settle();
  EXPECT_THAT(traces.texts(0),
              ElementsAre("source vici: " + path + ": it has closed the connection"));
}

// What a real one said, replayed

TEST_F(ViciSource, ReadsWhatARealDaemonLists) {
  linkIs(7, 0);
  linkIs(8, 0);
  for (auto const & message : recordedEvents("list-conns-several", "list-conn"))
    peer.connections.push_back(message);
  auto number = 0;
  for (auto const & message : recordedEvents("sas-several", "list-sa"))
    peer.sas[fmt::format("{}", ++number)] = message;
  peer.listen();
  start(",bind=site/vx1@xfrm7,bind=second@xfrm8");
  expectInSync();
  EXPECT_EQ(profile(7), "site");
  EXPECT_EQ(state(7), "up");
  EXPECT_EQ(profile(8), "second");
  EXPECT_EQ(state(8), "up");
}

TEST_F(ViciSource, SaysOfEachRecordedHappeningWhatItIs) {
  linkIs(7, 0);
  peer.connections = recordedEvents("list-conns", "list-conn");
  peer.listen();
  start(",bind=site/vx@xfrm7");
  std::pair<char const *, char const *> const happenings[] = {
      {"sas-configured", "down"},     {"sas-connecting", "connecting"},
      {"sas-child-refused", "ikeUp"}, {"sas-up", "up"},
      {"sas-child-rekeying", "up"},   {"sas-child-rekeyed", "up"},
      {"sas-ike-rekeying", "up"},     {"sas-ike-rekeyed", "up"},
      {"sas-child-deleted", "ikeUp"}, {"sas-ike-deleting", "closing"},
      {"sas-ike-deleted", "down"}};
  for (auto const & [name, shown] : happenings) {
    peer.sas.clear();
    for (auto const & message : recordedEvents(name, "list-sa"))
      peer.sas[fmt::format("{}", peer.sas.size())] = message;
    source->reread();
    settle();
    EXPECT_EQ(state(7), shown) << name;
    expectInSync();
  }
}

} // namespace
