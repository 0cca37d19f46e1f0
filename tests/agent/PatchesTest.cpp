// Patches that take several runs, with other tasks in between.
#include "agent/Patches.h"
#include "tests/support/TestScheduler.h"
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using testing::HasSubstr;

json additions(int first, int count) {
  auto patch = json::array();
  for (int intf = first; intf != first + count; ++intf)
    patch.push_back({{"op", "add"},
                     {"path", "/ifMib/ifIndexByIntfId/" + std::to_string(intf)},
                     {"value", intf}});
  return patch;
}

json refusedAfter(int count) {
  auto patch = additions(1, count);
  patch.push_back({{"op", "remove"}, {"path", "/ifMib/ifIndexByIntfId/999999"}});
  return patch;
}

class PatchesInRuns : public testing::Test {
protected:
  PatchesInRuns() {
    Kiln::TaskSchedulerRoot::schedulerIs(scheduler_);
    patches_.emplace(document_);
  }
  ~PatchesInRuns() override { Kiln::TaskSchedulerRoot::schedulerIs(nullptr); }
  std::size_t size() const { return database_.ifMib()->ifIndexByIntfId().size(); }

  Zel::Ptr<TestScheduler> const scheduler_ = Zel::makePtr<TestScheduler>(Yield::always);
  StateDb::StateDb database_;
  StateDb::StateDocument document_{database_};
  std::optional<Agent::Patches> patches_;
};

TEST_F(PatchesInRuns, AShortOneIsDoneAtOnce) {
  auto const outcome = patches_->begin(additions(1, 50));
  EXPECT_EQ("", outcome->value());
  EXPECT_EQ(50u, size());
  EXPECT_EQ(0u, scheduler_->scheduled());
}

TEST_F(PatchesInRuns, AShortOneThatIsRefusedIsSoAtOnce) {
  EXPECT_THAT(patches_->begin(refusedAfter(5))->value(), HasSubstr("operation 5 (/ifMib/"));
  EXPECT_THROW(patches_->begin(json::object()), StateDb::DocumentError);
  EXPECT_EQ("", patches_->begin(additions(1, 1))->value()) << "the next one is not kept waiting";
}

TEST_F(PatchesInRuns, ALongOneLetsOthersWorkInBetween) {
  auto const outcome = patches_->begin(additions(1, 10'000));
  EXPECT_FALSE(*outcome);
  EXPECT_EQ(0u, size());
  auto const runs = scheduler_->runUntilQuiet();
  EXPECT_GT(runs, 10'000u) << "it may be left after each step";
  EXPECT_EQ("", outcome->value());
  EXPECT_EQ(10'000u, size());
}

TEST_F(PatchesInRuns, ALongOneIsRefusedWithNothingChanged) {
  auto const outcome = patches_->begin(refusedAfter(1000));
  EXPECT_FALSE(*outcome);
  while (!*outcome)
    scheduler_->runOne();
  EXPECT_THAT(outcome->value(), HasSubstr("operation 1000 (/ifMib/"));
  EXPECT_EQ(0u, size());
  int runs = 0;
  while (scheduler_->runOne())
    ++runs;
  EXPECT_GE(runs, 1000) << "its memory is given back step by step";
}

TEST_F(PatchesInRuns, AShortOneWaitsForALongOneBeforeIt) {
  auto const first = patches_->begin(additions(1, 1000));
  auto const refused = patches_->begin(refusedAfter(1));
  // Removes what the first one will have put.
  auto const last =
      patches_->begin(json::array({{{"op", "remove"}, {"path", "/ifMib/ifIndexByIntfId/1000"}}}));
  EXPECT_FALSE(*first || *refused || *last);
  scheduler_->runUntilQuiet();
  EXPECT_EQ("", first->value());
  EXPECT_NE("", refused->value());
  EXPECT_EQ("", last->value());
  EXPECT_EQ(999u, size());
}

TEST_F(PatchesInRuns, OneWhoseClientHasGoneIsCarriedOutToItsEnd) {
  patches_->begin(additions(1, 1000)).reset();
  scheduler_->runUntilQuiet();
  EXPECT_EQ(1000u, size());
}

TEST_F(PatchesInRuns, EndWithTheirOwner) {
  auto const outcome = patches_->begin(additions(1, 1000));
  patches_.reset();
  scheduler_->runUntilQuiet();
  EXPECT_FALSE(*outcome);
  EXPECT_EQ(0u, size());
}

} // namespace
