// Work in small steps, some now and the rest when others have had their turn.
#include "sources/linux/LinkWork.h"
#include "tests/sources/SourceHost.h"
#include <algorithm>
#include <cstdint>
#include <gmock/gmock.h>
#include <stdexcept>

namespace {

using Plexa::IntfId;
using Sources::Linux::LinkWork;
using testing::ElementsAre;
using testing::IsEmpty;

class LinkWorkTest : public testing::Test, protected SourceHost, private LinkWork::Owner {
protected:
  LinkWorkTest() : SourceHost(Yield::always) {}

  void concern(std::uint64_t first, std::uint64_t last) {
    for (auto id = first; id <= last; ++id)
      work.concerned().insert(IntfId(id));
  }

  std::vector<std::uint64_t> looked;
  std::uint64_t lastLink = 0; // there are links from 1 to it
  std::uint64_t failsAt = 0;
  int toForget = 0;
  int done = 0;
  int failures = 0;
  LinkWork work{"LinkWorkTest", *this};

private:
  bool forgetOne() override {
    if (toForget == 0)
      return false;
    --toForget;
    EXPECT_THAT(looked, IsEmpty()) << "what goes goes first";
    return true;
  }
  std::optional<IntfId> nextLink(std::optional<IntfId> behind) const override {
    auto const next = behind ? behind->value() + 1 : 1;
    return next <= lastLink ? std::optional(IntfId(next)) : std::nullopt;
  }
  void look(IntfId intfId) override {
    if (intfId.value() == failsAt)
      throw std::runtime_error("no");
    looked.push_back(intfId.value());
  }
  void workIsDone() override { ++done; }
  void workFailed(std::exception const &) override { ++failures; }
};

TEST_F(LinkWorkTest, LooksAtAFewLinksAtOnce) {
  concern(1, 100);
  work.begin();
  EXPECT_EQ(looked.size(), 100u);
  EXPECT_EQ(scheduler->runUntilQuiet(), 0u);
  EXPECT_EQ(done, 0) << "no reading has ended";
}

TEST_F(LinkWorkTest, LeavesTheRestOfManyForLater) {
  concern(1, 1000);
  work.begin();
  EXPECT_GT(looked.size(), 0u);
  EXPECT_LT(looked.size(), 500u) << "nobody waits for the rest";
  EXPECT_GT(scheduler->runUntilQuiet(), 100u) << "others have their turns between";
  EXPECT_EQ(looked.size(), 1000u);
}

TEST_F(LinkWorkTest, ForgetsThenLooksAtWhatIsConcernedThenAtEveryLinkAfterAReading) {
  toForget = 3;
  lastLink = 2;
  concern(2, 2);
  work.readingEnds(true, LinkWork::Pace::inRuns);
  EXPECT_EQ(toForget, 3) << "all of it is for later";
  scheduler->runUntilQuiet();
  EXPECT_EQ(toForget, 0);
  EXPECT_THAT(looked, ElementsAre(2, 1, 2));
  EXPECT_EQ(done, 1);
}

TEST_F(LinkWorkTest, ForgetsNothingAfterAReadingThatDidNotSeeEverything) {
  toForget = 3;
  lastLink = 2;
  work.readingEnds(false, LinkWork::Pace::atOnce);
  EXPECT_EQ(toForget, 3);
  EXPECT_THAT(looked, ElementsAre(1, 2));
  EXPECT_EQ(done, 1);
}

TEST_F(LinkWorkTest, DoesNoMoreForAReadingThatIsVoid) {
  toForget = 3;
  lastLink = 2;
  concern(7, 7);
  work.readingEnds(true, LinkWork::Pace::inRuns);
  work.readingIsVoid();
  scheduler->runUntilQuiet();
  EXPECT_EQ(toForget, 3);
  EXPECT_THAT(looked, ElementsAre(7));
  EXPECT_EQ(done, 0);
}

TEST_F(LinkWorkTest, TellsOfAFailureInARunAndKeepsWhatIsConcerned) {
  failsAt = 3;
  lastLink = 5;
  work.readingEnds(true, LinkWork::Pace::inRuns);
  concern(3, 4);
  scheduler->runUntilQuiet();
  EXPECT_EQ(failures, 1);
  EXPECT_THAT(work.concerned(), ElementsAre(IntfId(3), IntfId(4)));
  EXPECT_EQ(done, 0);
}

TEST_F(LinkWorkTest, RaisesWhatFailsAtOnce) {
  failsAt = 3;
  concern(1, 5);
  EXPECT_THROW(work.begin(), std::runtime_error);
  lastLink = 5;
  EXPECT_THROW(work.readingEnds(true, LinkWork::Pace::atOnce), std::runtime_error);
  EXPECT_EQ(failures, 0);
}

} // namespace
