// What every source must do, whatever it reads. A source takes part by giving a SourceWorld and
// saying INSTANTIATE_TEST_SUITE_P(Json, SourceContract, testing::Values(SourceKind{"json", make})).
#pragma once

#include "sources/Source.h"
#include "tests/support/TestLoop.h"
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

/// The outside world that a source looks at. It has tunnels 1 to 3, which all can come and go.
class SourceWorld {
public:
  virtual ~SourceWorld() = default;
  virtual std::unique_ptr<Sources::Source> makeSource(Os::Loop & loop,
                                                      StateDb::StateDocument & document) = 0;
  /// Makes the tunnel, or changes its hop limit.
  virtual void tunnelIs(int number, int hopLimit) = 0;
  virtual void tunnelDel(int number) = 0;
  /// The id under which the source publishes the tunnel; Requires: it is or was there.
  virtual std::string intfId(int number) const = 0;
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

class SourceContract : public testing::TestWithParam<SourceKind> {
protected:
  void SetUp() override {
    if (!world->whyNot().empty())
      GTEST_SKIP() << world->whyNot();
  }
  std::unique_ptr<Sources::Source> started() {
    auto source = world->makeSource(loop, document);
    source->start();
    return source;
  }
  /// Lets the source hear what has happened in the world.
  void settle() { loop.runReady(std::chrono::milliseconds(500)); }
  nlohmann::json inputs() const { return document.read(""); }
  nlohmann::json statuses() const { return document.read("/tunnelIntfStatusDir/intfStatus"); }
  bool isPublished(int number) const {
    auto const id = world->intfId(number);
    return statuses().contains(id) && document.read("/ifMib/ifIndexByIntfId").contains(id);
  }
  int hopLimit(int number) const { return statuses()[world->intfId(number)]["hopLimit"]; }
  void patch(char const * op, std::string const & path, nlohmann::json const & value = {}) {
    document.apply(nlohmann::json::array({{{"op", op}, {"path", path}, {"value", value}}}));
  }

  std::unique_ptr<SourceWorld> const world = GetParam().makeWorld();
  TestLoop loop;
  StateDb::StateDb database;
  StateDb::StateDocument document{database};
};

TEST_P(SourceContract, PublishesAtItsStartWhatIsThere) {
  world->tunnelIs(1, 11);
  world->tunnelIs(2, 22);
  auto const source = world->makeSource(loop, document);
  EXPECT_EQ(source->status().state, Sources::SourceStatus::State::stopped);
  EXPECT_TRUE(statuses().empty());
  source->start();
  EXPECT_TRUE(isPublished(1));
  EXPECT_EQ(hopLimit(1), 11);
  EXPECT_EQ(hopLimit(2), 22);
  EXPECT_EQ(statuses().size(), 2u);
}

TEST_P(SourceContract, FollowsTunnelsThatComeChangeAndGo) {
  world->tunnelIs(1, 11);
  auto const source = started();
  world->tunnelIs(2, 22);
  settle();
  EXPECT_TRUE(isPublished(2));
  world->tunnelIs(1, 12);
  settle();
  EXPECT_EQ(hopLimit(1), 12);
  world->tunnelDel(1);
  settle();
  EXPECT_FALSE(statuses().contains(world->intfId(1)));
  EXPECT_FALSE(document.read("/ifMib/ifIndexByIntfId").contains(world->intfId(1)));
  EXPECT_TRUE(isPublished(2));
  world->tunnelDel(2);
  settle();
  EXPECT_FALSE(statuses().contains(world->intfId(2))) << "which came after the start";
}

TEST_P(SourceContract, PublishesDifferencesOnly) {
  world->tunnelIs(1, 11);
  world->tunnelIs(2, 22);
  auto const source = started();
  auto const object = [&](int number) {
    return *database.tunnelIntfStatusDir()->intfStatus().find(
        Plexa::IntfId(std::stoull(world->intfId(number))));
  };
  auto const one = object(1);
  auto const two = object(2);
  world->tunnelIs(2, 23);
  settle();
  EXPECT_EQ(object(1), one);
  EXPECT_EQ(object(2), two);
  auto const patches = source->status().patches;
  source->reread();
  EXPECT_EQ(source->status().patches, patches);
  EXPECT_EQ(object(1), one);
}

TEST_P(SourceContract, LeavesTheTunnelsOfOthersAlone) {
  world->tunnelIs(1, 11);
  patch("add", "/tunnelIntfStatusDir/intfStatus/987654321", {{"tos", 9}});
  patch("add", "/ifMib/ifIndexByIntfId/987654321", 99);
  auto const source = started();
  world->tunnelDel(1);
  settle();
  source->reread();
  EXPECT_EQ(statuses().size(), 1u);
  EXPECT_EQ(document.read("/ifMib/ifIndexByIntfId/987654321"), 99);
}

TEST_P(SourceContract, RestoresItsTunnelsWhenItReadsAgain) {
  world->tunnelIs(1, 11);
  world->tunnelIs(2, 22);
  auto const source = started();
  auto const before = inputs();
  patch("remove", "/tunnelIntfStatusDir/intfStatus/" + world->intfId(1));
  patch("remove", "/ifMib/ifIndexByIntfId/" + world->intfId(1));
  patch("replace", "/tunnelIntfStatusDir/intfStatus/" + world->intfId(2) + "/hopLimit", 99);
  source->reread();
  EXPECT_EQ(inputs(), before);
}

TEST_P(SourceContract, SurvivesThatSomebodyRemovedATunnelThatGoes) {
  world->tunnelIs(1, 11);
  world->tunnelIs(2, 22);
  auto const source = started();
  patch("remove", "/tunnelIntfStatusDir/intfStatus/" + world->intfId(1));
  world->tunnelDel(1);
  settle();
  EXPECT_EQ(source->status().state, Sources::SourceStatus::State::inSync);
  EXPECT_EQ(statuses().size(), 1u);
  EXPECT_FALSE(document.read("/ifMib/ifIndexByIntfId").contains(world->intfId(1)));
}

TEST_P(SourceContract, TellsHowItIsDoing) {
  world->tunnelIs(1, 11);
  auto const source = started();
  EXPECT_EQ(source->status().state, Sources::SourceStatus::State::inSync);
  EXPECT_EQ(source->status().lastError, "");
  EXPECT_EQ(source->status().records, 1u);
  EXPECT_EQ(source->status().fullReads, 1u);
  EXPECT_EQ(source->status().patches, 1u);
  world->tunnelIs(2, 22);
  settle();
  EXPECT_EQ(source->status().records, 2u);
  EXPECT_GT(source->status().patches, 1u);
  auto const reads = source->status().fullReads;
  source->reread();
  EXPECT_EQ(source->status().fullReads, reads + 1);
}

TEST_P(SourceContract, LeavesWhatItPublishedAtItsEnd) {
  world->tunnelIs(1, 11);
  auto source = started();
  auto const before = inputs();
  source.reset();
  EXPECT_EQ(inputs(), before);
  world->tunnelDel(1);
  EXPECT_FALSE(loop.runReady());
}
