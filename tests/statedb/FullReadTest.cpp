// Full reads: what a commit changes, in which order, and how single changes meanwhile take part.
#include "tests/statedb/PublisherFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FullRead : public PublisherFixture {
protected:
  /// Hands over tunnels of these ids, each with its id as its ifIndex and ToS.
  static void find(StateDb::FullRead & read, std::initializer_list<std::uint8_t> ids,
                   Publisher::Kind kind = 0) {
    for (auto const one : ids)
      read.tunnelIs(id(one), one, tos(one), kind);
  }
  void publish(std::initializer_list<std::uint8_t> ids) {
    auto read = publisher.beginFullRead();
    find(read, ids);
    std::move(read).commit(atOnce);
  }
};

TEST_F(FullRead, ChangesNothingBeforeItsCommitAndNothingWithoutOne) {
  publish({5, 6});
  heard();
  {
    auto read = publisher.beginFullRead();
    find(read, {6, 7}, 1);
    EXPECT_THAT(heard(), IsEmpty());
  }
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.statuses = 2, .ifIndexes = 2}));
  publish({5, 6});
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(FullRead, RemovesOverAllBeforeItAddsAndKeepsStatusAndIfIndexInOrder) {
  publish({1, 2});
  publisher.tunnelInfoIs(id(1), Publisher::TunnelInfo{"p"});
  publisher.tunnelInfoIs(id(2), Publisher::TunnelInfo{"p"});
  publisher.profileIs("p");
  listenToStatus(2);
  heard();
  auto read = publisher.beginFullRead();
  read.profileIs("q");
  read.tunnelInfoIs(id(2), Publisher::TunnelInfo{"q"});
  read.statusIs(id(2), tos(5));
  read.statusIs(id(3), tos(3));
  read.ifIndexIs(id(3), 3);
  read.ifIndexIs(id(2), 22);
  std::move(read).commit(atOnce);
  EXPECT_THAT(heard(), ElementsAre("intfStatus 1", "ifIndexByIntfId 1", "ipsecTunnelInfo 1",
                                   "appliedProfiles p", "ifIndexByIntfId 2", "ifIndexByIntfId 3",
                                   "tos", "intfStatus 3", "appliedProfiles q"));
  EXPECT_EQ(at(infos, 2)["profileName"], "q");
}

TEST_F(FullRead, NotifiesNothingForWhatIsUnchanged) {
  publish({1, 2, 3});
  heard();
  auto const changes = publisher.changes();
  publish({3, 1, 2});
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(publisher.changes(), changes);
}

TEST_F(FullRead, TakesTheLastOfWhatIsHandedOverTwice) {
  publish({1, 2});
  heard();
  auto read = publisher.beginFullRead();
  find(read, {1, 2});
  read.statusIs(id(1), tos(7));
  read.statusIs(id(1), tos(1));
  read.statusIs(id(2), tos(7));
  read.statusIs(id(2), tos(8));
  std::move(read).commit(atOnce);
  EXPECT_EQ(at(statuses, 1)["tos"], 1);
  EXPECT_EQ(at(statuses, 2)["tos"], 8);
  EXPECT_THAT(heard(), IsEmpty()); // the records were changed in place
}

TEST_F(FullRead, RemovesAndAddsAnewWhatIsOfAnotherKind) {
  publish({1, 2});
  heard();
  auto read = publisher.beginFullRead();
  find(read, {1});
  find(read, {2}, 9);
  std::move(read).commit(atOnce);
  EXPECT_THAT(heard(), ElementsAre("intfStatus 2", "ifIndexByIntfId 2", "ifIndexByIntfId 2",
                                   "intfStatus 2"));
  auto again = publisher.beginFullRead();
  find(again, {1});
  find(again, {2}, 9);
  std::move(again).commit(atOnce);
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(FullRead, LeavesTheRecordsOfOthersAloneAlsoInItsProfiles) {
  patch("add", std::string(statuses) + "/9", json::object());
  patch("add", std::string(profiles) + "/a",
        json::parse(R"({"appliedIntfId": {"1": {}, "2": {"connState": "up"}, "3": {}}})"));
  auto read = publisher.beginFullRead();
  read.connectionIs("a", id(1), Connection{});
  read.connectionIs("a", id(2), Connection{ConnState::down});
  std::move(read).commit(atOnce);
  auto second = publisher.beginFullRead();
  second.connectionIs("a", id(2), Connection{ConnState::rekeying});
  std::move(second).commit(atOnce);
  EXPECT_EQ(at(statuses, 9)["tos"], 0);
  EXPECT_EQ(at(profiles, "a"), json::parse(R"({"appliedIntfId":
      {"2": {"connState": "rekeying"}, "3": {"connState": "none"}}})"));
  std::move(second = publisher.beginFullRead()).commit(atOnce);
  EXPECT_THAT(PublisherFixture::read(profiles), IsEmpty())
      << "the profile goes with all that is in it";
}

TEST_F(FullRead, UndoesWhatOthersDidToItsRecords) {
  publish({5, 6, 7});
  patch("remove", std::string(statuses) + "/5");
  patch("replace", std::string(statuses) + "/6/tos", 0);
  patch("replace", std::string(statuses) + "/7", nullptr);
  patch("replace", std::string(indexes) + "/7", 70);
  listenToStatus(6);
  heard();
  publish({5, 6, 7});
  EXPECT_THAT(heard(), ElementsAre("ifIndexByIntfId 7", "intfStatus 5", "tos", "intfStatus 7"));
  EXPECT_EQ(at(statuses, 7)["tos"], 7);
}

TEST_F(FullRead, PutsARecordWhereSomebodyPutNull) {
  patch("add", std::string(statuses) + "/5", nullptr);
  patch("add", std::string(profiles) + "/a", nullptr);
  auto read = publisher.beginFullRead();
  read.statusIs(id(5), tos(5));
  read.connectionIs("a", id(5), Connection{});
  std::move(read).commit(atOnce);
  EXPECT_EQ(at(statuses, 5)["tos"], 5);
  EXPECT_EQ(at(profiles, "a"), json::parse(R"({"appliedIntfId": {"5": {"connState": "none"}}})"));
}

TEST_F(FullRead, KeepsWhatItIsToldToKeep) {
  publish({1, 2, 3});
  {
    auto read = publisher.beginFullRead();
    find(read, {1});
    read.tunnelStays(id(2));
    read.tunnelStays(id(9)); // which there is not
    std::move(read).commit(atOnce);
  }
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.statuses = 2, .ifIndexes = 2}));
  auto read = publisher.beginFullRead();
  read.tunnelStays(id(2));
  read.tunnelIs(id(2), 2, tos(22), 1); // known after all, and another one
  find(read, {4});
  read.restStays();
  heard();
  std::move(read).commit(atOnce);
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.statuses = 3, .ifIndexes = 3}));
  EXPECT_THAT(heard(), ElementsAre("intfStatus 2", "ifIndexByIntfId 2", "ifIndexByIntfId 2",
                                   "ifIndexByIntfId 4", "intfStatus 2", "intfStatus 4"));
}

TEST_F(FullRead, SeesEverythingThoughTheOneBeforeDidNot) {
  publish({1, 2});
  auto first = publisher.beginFullRead();
  first.restStays();
  std::move(first).commit(atOnce);
  auto second = publisher.beginFullRead();
  find(second, {1});
  std::move(second).commit(atOnce);
  EXPECT_EQ(record(2), nullptr);
  EXPECT_NE(record(1), nullptr);
}

TEST_F(FullRead, RemovesAndAddsWhatIsOfAnotherKindAlsoWhenItIsToldAfterwardsToKeepIt) {
  publish({2});
  auto const before = record(2);
  auto read = publisher.beginFullRead();
  read.tunnelIs(id(2), 2, tos(22), 1);
  read.tunnelStays(id(2));
  std::move(read).commit(atOnce);
  EXPECT_NE(record(2), before);
  EXPECT_EQ(at(statuses, 2)["tos"], 22);
}

TEST_F(FullRead, LosesAgainstSingleChangesThatCameWhileItWasRead) {
  publish({1, 2, 3, 4});
  auto read = publisher.beginFullRead();
  find(read, {1, 2});
  publisher.tunnelIs(id(1), 1, tos(11)); // changed after it was found
  publisher.tunnelDel(id(2));            // gone after it was found
  publisher.tunnelIs(id(3), 3, tos(33)); // changed before it was found
  publisher.tunnelDel(id(4));            // gone before it was found
  publisher.tunnelIs(id(5), 5, tos(55)); // not found at all
  find(read, {3, 4});
  std::move(read).commit(atOnce);
  EXPECT_EQ(at(statuses, 1)["tos"], 11);
  EXPECT_EQ(at(statuses, 2), "nothing");
  EXPECT_EQ(at(statuses, 3)["tos"], 33);
  EXPECT_EQ(at(statuses, 4), "nothing");
  EXPECT_EQ(at(statuses, 5)["tos"], 55);
  publish({1, 2});
  EXPECT_EQ(at(statuses, 1)["tos"], 1) << "the next read is newer again";
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.statuses = 2, .ifIndexes = 2}));
}

TEST_F(FullRead, DoesNotBringBackTheConnectionsOfAProfileThatWentMeanwhile) {
  auto read = publisher.beginFullRead();
  read.connectionIs("a", id(1), Connection{});
  publisher.profileDel("a");
  read.connectionIs("a", id(2), Connection{});
  publisher.connectionIs("a", id(3), Connection{ConnState::up});
  read.connectionIs("a", id(4), Connection{});
  read.connectionIs("b", id(4), Connection{});
  std::move(read).commit(atOnce);
  EXPECT_EQ(PublisherFixture::read(profiles), json::parse(R"({
      "a": {"appliedIntfId": {"3": {"connState": "up"}}},
      "b": {"appliedIntfId": {"4": {"connState": "none"}}}})"));
}

TEST_F(FullRead, IsOverWhenAnotherOneBegins) {
  auto first = publisher.beginFullRead();
  find(first, {1});
  auto second = publisher.beginFullRead();
  find(first, {2});
  find(second, {3});
  std::move(first).commit(atOnce, [] { ADD_FAILURE() << "it is over"; });
  EXPECT_EQ(publisher.counts(), Publisher::Counts());
  std::move(second).commit(atOnce);
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.statuses = 1, .ifIndexes = 1}));
}

TEST_F(FullRead, IsOverWhenItsPublisherEnds) {
  auto other = std::make_unique<StateDb::Publisher>(publishers);
  auto read = other->beginFullRead();
  find(read, {1});
  other.reset();
  find(read, {2});
  std::move(read).commit(atOnce, [] { ADD_FAILURE() << "it is over"; });
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(FullRead, CountsWhatItIsDoneWithInsideTheCommit) {
  bool done = false;
  auto read = publisher.beginFullRead();
  find(read, {1});
  std::move(read).commit(atOnce, [&] {
    done = true;
    EXPECT_FALSE(publisher.isCommitting());
    EXPECT_EQ(publisher.changes(), 2u);
  });
  EXPECT_TRUE(done);
}

class RunsOfAFullRead : public FullRead {
protected:
  RunsOfAFullRead() { Kiln::TaskSchedulerRoot::schedulerIs(scheduler); }
  Zel::Ptr<TestScheduler> const scheduler = Zel::makePtr<TestScheduler>(Yield::always);
};

TEST_F(RunsOfAFullRead, AreCutByTheScheduler) {
  publish({1, 2});
  auto read = publisher.beginFullRead();
  find(read, {3, 4});
  int done = 0;
  heard();
  std::move(read).commit(inRuns, [&] { ++done; });
  EXPECT_TRUE(publisher.isCommitting());
  EXPECT_THAT(heard(), IsEmpty()) << "nothing happens before the first run";
  while (scheduler->runOne())
    EXPECT_LE(heard().size(), 1u) << "a run that is asked to yield goes one step";
  EXPECT_EQ(done, 1);
  EXPECT_FALSE(publisher.isCommitting());
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.statuses = 2, .ifIndexes = 2}));
  EXPECT_THAT(scheduler->tasks(), IsEmpty());
}

TEST_F(RunsOfAFullRead, AreOneWhenNothingIsAskedToYield) {
  scheduler->yieldIs(Yield::never);
  auto read = publisher.beginFullRead();
  find(read, {1, 2, 3});
  std::move(read).commit(inRuns);
  EXPECT_EQ(scheduler->runUntilQuiet(), 1u);
  EXPECT_EQ(PublisherFixture::read(statuses).size(), 3u);
}

TEST_F(RunsOfAFullRead, LoseAgainstSingleChangesInBetween) {
  publish({1, 2});
  auto read = publisher.beginFullRead();
  find(read, {2, 3, 4});
  std::move(read).commit(inRuns);
  publisher.tunnelIs(id(1), 1, tos(11)); // was not found
  publisher.tunnelDel(id(3));            // was found
  publisher.tunnelIs(id(4), 4, tos(44)); // was found otherwise
  scheduler->runUntilQuiet();
  EXPECT_EQ(at(statuses, 1)["tos"], 11);
  EXPECT_EQ(at(statuses, 3), "nothing");
  EXPECT_EQ(at(statuses, 4)["tos"], 44);
}

TEST_F(RunsOfAFullRead, EndWhenAnotherReadBeginsOrThePublisherEnds) {
  auto other = std::make_unique<StateDb::Publisher>(publishers);
  for (auto * one : {&publisher, other.get()}) {
    auto read = one->beginFullRead();
    find(read, {1, 2, 3});
    std::move(read).commit(inRuns, [] { ADD_FAILURE() << "it was dropped"; });
    scheduler->runOne();
  }
  other.reset();
  auto const next = publisher.beginFullRead();
  heard();
  EXPECT_EQ(scheduler->runUntilQuiet(), 0u);
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(RunsOfAFullRead, EndWhenANotifieeBeginsAnotherRead) {
  std::optional<StateDb::FullRead> next;
  recorder.then = [&](auto const &) {
    if (!next)
      next = publisher.beginFullRead();
  };
  auto read = publisher.beginFullRead();
  find(read, {1, 2, 3});
  std::move(read).commit(inRuns, [] { ADD_FAILURE() << "it was dropped"; });
  scheduler->runUntilQuiet();
  EXPECT_EQ(heard().size(), 1u);
  find(*next, {3});
  std::move(*next).commit(inRuns);
  scheduler->runUntilQuiet();
  EXPECT_EQ(publisher.counts(), (Publisher::Counts{.statuses = 1, .ifIndexes = 1}));
}

TEST_F(RunsOfAFullRead, MayBeFollowedByAnotherReadFromTheCallback) {
  auto read = publisher.beginFullRead();
  find(read, {1});
  std::move(read).commit(inRuns, [&] {
    auto next = publisher.beginFullRead();
    find(next, {2});
    std::move(next).commit(inRuns);
  });
  scheduler->runUntilQuiet();
  EXPECT_EQ(at(statuses, 1), "nothing");
  EXPECT_EQ(at(statuses, 2)["tos"], 2);
}

TEST_F(RunsOfAFullRead, GoOnWhenNotifieesRaise) {
  recorder.then = [](auto const & text) { throw std::runtime_error("no " + text); };
  auto read = publisher.beginFullRead();
  find(read, {1, 2});
  std::move(read).commit(inRuns);
  scheduler->runUntilQuiet();
  EXPECT_EQ(failures.size(), 4u);
  EXPECT_EQ(PublisherFixture::read(statuses).size(), 2u);
}

TEST_F(RunsOfAFullRead, LookAtManyUnchangedRecordsInOneStepButNotAtAllOfThem) {
  constexpr unsigned count = 1000;
  auto const readAll = [&] {
    auto read = publisher.beginFullRead();
    for (unsigned i = 0; i != count; ++i)
      read.statusIs(id(i), tos(5));
    return read;
  };
  readAll().commit(atOnce);
  heard();
  readAll().commit(inRuns);
  auto const runs = scheduler->runUntilQuiet();
  EXPECT_GT(runs, count / 200);
  EXPECT_LT(runs, count / 20);
  EXPECT_THAT(heard(), IsEmpty());
}

} // namespace
