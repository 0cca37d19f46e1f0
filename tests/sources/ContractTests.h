// What every source must do, whatever it reads and whatever it publishes. A source takes part by
// giving a SourceWorld and saying
// INSTANTIATE_TEST_SUITE_P(Json, SourceContract, testing::Values(SourceKind{"json", make})).
#pragma once

#include "tests/sources/SourceHost.h"
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

/// The outside world that a source looks at. It has things 1 to 3, which all can come, change and
/// go: tunnels, connections, whatever the source publishes.
class SourceWorld {
public:
  virtual ~SourceWorld() = default;
  virtual std::unique_ptr<Sources::Source>
  makeSource(Sources::Surroundings const & surroundings) = 0;
  /// Makes the thing, or changes it: `value` is 1 to 99.
  virtual void thingIs(int number, int value) = 0;
  virtual void thingDel(int number) = 0;

  // Where and how a thing is published. Requires: it is or was there.

  /// The JSON pointers of the thing's records in the document.
  virtual std::vector<std::string> records(int number) const = 0;
  /// How many changes a new thing is: its records, and what else is published with them.
  virtual std::size_t changes(int number) const { return records(number).size(); }
  /// The pointer of the member that shows its value, in the last of the records.
  virtual std::string member(int number) const = 0;
  /// What the member is for a value.
  virtual nlohmann::json shown(int value) const = 0;
  /// The object that the last of the records is.
  virtual Zel::PtrInterface const * object(StateDb::StateDb const & database, int number) const = 0;
  /// Records like the world's own that are none of it: a pointer, and a value to stand there.
  virtual std::pair<std::string, nlohmann::json> foreign() const = 0;

  /// Why this world cannot be had here; empty when it can.
  virtual std::string whyNot() const { return ""; }
};

/// Which source is tested, and how its world is made.
struct SourceKind {
  char const * name;
  std::unique_ptr<SourceWorld> (*makeWorld)();
};
inline void PrintTo(SourceKind const & kind, std::ostream * out) {
  *out << kind.name;
}

class SourceContract : public testing::TestWithParam<SourceKind>, protected SourceHost {
protected:
  void SetUp() override {
    if (!world->whyNot().empty())
      GTEST_SKIP() << world->whyNot();
  }
  std::unique_ptr<Sources::Source> started() {
    auto source = world->makeSource(surroundings());
    source->start();
    return source;
  }
  /// Lets the source hear what has happened in the world.
  void hear() { settle(std::chrono::milliseconds(500)); }
  void reread(Sources::Source & source) {
    source.reread();
    settle();
    EXPECT_FALSE(source.status().isReading);
  }
  bool isPublished(int number) const {
    for (auto const & record : world->records(number))
      if (at(record).is_null())
        return false;
    return true;
  }
  bool isGone(int number) const {
    for (auto const & record : world->records(number))
      if (!at(record).is_null())
        return false;
    return true;
  }
  /// What the thing's member says; null when it is not there.
  nlohmann::json member(int number) const { return at(world->member(number)); }

  std::unique_ptr<SourceWorld> const world = GetParam().makeWorld();
};

TEST_P(SourceContract, PublishesAtItsStartWhatIsThere) {
  auto const nothing = document.read("");
  world->thingIs(1, 11);
  world->thingIs(2, 22);
  auto const source = world->makeSource(surroundings());
  EXPECT_EQ(source->status().state, Sources::SourceStatus::State::stopped);
  EXPECT_EQ(document.read(""), nothing);
  source->start();
  EXPECT_TRUE(isPublished(1));
  EXPECT_EQ(member(1), world->shown(11));
  EXPECT_EQ(member(2), world->shown(22));
  EXPECT_FALSE(source->status().isReading);
}

TEST_P(SourceContract, FollowsThingsThatComeChangeAndGo) {
  world->thingIs(1, 11);
  auto const source = started();
  world->thingIs(2, 22);
  hear();
  EXPECT_TRUE(isPublished(2));
  world->thingIs(1, 12);
  hear();
  EXPECT_EQ(member(1), world->shown(12));
  world->thingDel(1);
  hear();
  EXPECT_TRUE(isGone(1));
  EXPECT_TRUE(isPublished(2));
  world->thingDel(2);
  hear();
  EXPECT_TRUE(isGone(2)) << "which came after the start";
}

TEST_P(SourceContract, PublishesDifferencesOnly) {
  world->thingIs(1, 11);
  world->thingIs(2, 22);
  auto const source = started();
  auto const * const one = world->object(database, 1);
  auto const * const two = world->object(database, 2);
  world->thingIs(2, 23);
  hear();
  EXPECT_EQ(world->object(database, 1), one);
  EXPECT_EQ(world->object(database, 2), two);
  auto const changes = source->status().changes;
  reread(*source);
  EXPECT_EQ(source->status().changes, changes);
  EXPECT_EQ(world->object(database, 1), one);
}

TEST_P(SourceContract, LeavesTheRecordsOfOthersAlone) {
  world->thingIs(1, 11);
  auto const [pointer, value] = world->foreign();
  patch("add", pointer, value);
  auto const before = at(pointer);
  auto const source = started();
  world->thingDel(1);
  hear();
  reread(*source);
  EXPECT_TRUE(isGone(1));
  EXPECT_EQ(at(pointer), before);
}

TEST_P(SourceContract, RestoresItsRecordsWhenItReadsAgain) {
  world->thingIs(1, 11);
  world->thingIs(2, 22);
  auto const source = started();
  auto const before = document.read("");
  for (auto const & record : world->records(1))
    patch("remove", record);
  patch("replace", world->member(2), world->shown(99));
  reread(*source);
  EXPECT_EQ(document.read(""), before);
}

TEST_P(SourceContract, SurvivesThatSomebodyRemovedWhatGoes) {
  world->thingIs(1, 11);
  world->thingIs(2, 22);
  auto const source = started();
  patch("remove", world->records(1).back());
  world->thingDel(1);
  hear();
  EXPECT_EQ(source->status().state, Sources::SourceStatus::State::inSync);
  EXPECT_TRUE(isGone(1));
  EXPECT_TRUE(isPublished(2));
}

TEST_P(SourceContract, TellsHowItIsDoing) {
  world->thingIs(1, 11);
  auto const source = started();
  EXPECT_EQ(source->status().state, Sources::SourceStatus::State::inSync);
  EXPECT_EQ(source->status().lastError, "");
  EXPECT_EQ(source->status().fullReads, 1u);
  auto const one = source->status();
  EXPECT_GE(one.changes, world->records(1).size());
  world->thingIs(2, 22);
  hear();
  EXPECT_NE(source->status().records, one.records);
  EXPECT_EQ(source->status().changes, one.changes + world->changes(2));
  world->thingDel(2);
  hear();
  EXPECT_EQ(source->status().records, one.records);
  auto const reads = source->status().fullReads;
  source->reread();
  EXPECT_TRUE(source->status().isReading);
  settle();
  EXPECT_FALSE(source->status().isReading);
  EXPECT_EQ(source->status().fullReads, reads + 1);
}

TEST_P(SourceContract, ReadsOnceMoreForWishesDuringAReading) {
  world->thingIs(1, 11);
  auto const source = started();
  for (int wishes = 0; wishes != 3; ++wishes)
    source->reread();
  settle();
  EXPECT_EQ(source->status().fullReads, 3u) << "the start's, the first wish's, the others'";
}

TEST_P(SourceContract, EndsInTheMiddleOfAReading) {
  world->thingIs(1, 11);
  auto source = started();
  auto const before = document.read("");
  source->reread();
  source.reset();
  settle();
  EXPECT_EQ(document.read(""), before);
}

TEST_P(SourceContract, LeavesWhatItPublishedAtItsEnd) {
  world->thingIs(1, 11);
  auto source = started();
  auto const before = document.read("");
  source.reset();
  EXPECT_EQ(document.read(""), before);
  world->thingDel(1);
  EXPECT_FALSE(loop.runReady());
}
