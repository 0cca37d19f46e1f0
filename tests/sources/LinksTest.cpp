// What is known of links, from all sides.
#include "sources/Links.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

namespace {

using Plexa::IntfId;
using Sources::Link;
using Sources::Links;
using testing::ElementsAre;

Link link(std::uint64_t id, std::string name, std::optional<std::uint32_t> ifId = {}) {
  return {.intfId = IntfId(id),
          .name = std::move(name),
          .kind = "xfrm",
          .ifId = ifId,
          .inputKey = {},
          .outputKey = {},
          .lower = {}};
}

void end(Links::Reading & reading) {
  while (reading.endNext()) {
  }
}

class LinksTest : public testing::Test {
protected:
  std::vector<std::uint64_t> ids() const {
    std::vector<std::uint64_t> ids;
    links.forEach([&](Link const & one) { ids.push_back(one.intfId.value()); });
    return ids;
  }
  /// What was told since the last call.
  std::vector<std::uint64_t> told() { return std::exchange(told_, {}); }

  Links links;
  Links::Handle watch = links.watch([this](IntfId intfId) { told_.push_back(intfId.value()); });

private:
  std::vector<std::uint64_t> told_;
};

TEST_F(LinksTest, AreFoundByIdAndByName) {
  links.linkIs(link(7, "ipsec7", 42));
  links.linkIs(link(3, "ipsec3"));
  EXPECT_EQ(*links.find(IntfId(7)), link(7, "ipsec7", 42));
  EXPECT_EQ(links.findByName("ipsec3")->intfId, IntfId(3));
  EXPECT_EQ(links.find(IntfId(4)), nullptr);
  EXPECT_EQ(links.findByName("ipsec"), nullptr);
  EXPECT_THAT(ids(), ElementsAre(3, 7));
  EXPECT_EQ(links.size(), 2u);
}

TEST_F(LinksTest, FollowARenaming) {
  links.linkIs(link(7, "old"));
  links.linkIs(link(7, "new"));
  EXPECT_EQ(links.findByName("old"), nullptr);
  EXPECT_EQ(links.findByName("new")->intfId, IntfId(7));
  links.linkDel(IntfId(7));
  EXPECT_EQ(links.findByName("new"), nullptr);
}

TEST_F(LinksTest, MayHaveOneNameForAMoment) {
  links.linkIs(link(7, "a"));
  links.linkIs(link(3, "a"));
  EXPECT_EQ(links.findByName("a")->intfId, IntfId(3));
  links.linkIs(link(3, "b"));
  EXPECT_EQ(links.findByName("a")->intfId, IntfId(7));
}

TEST_F(LinksTest, TellWhenOneComesChangesAndGoesAndNothingElse) {
  links.linkIs(link(7, "a"));
  links.linkIs(link(7, "a", 42));
  links.linkIs(link(7, "a", 42));
  links.linkDel(IntfId(7));
  links.linkDel(IntfId(7));
  EXPECT_THAT(told(), ElementsAre(7, 7, 7));
}

TEST_F(LinksTest, TellWhenTheChangeIsDone) {
  std::vector<bool> there;
  auto const other =
      links.watch([&](IntfId intfId) { there.push_back(links.find(intfId) != nullptr); });
  links.linkIs(link(7, "a"));
  links.linkDel(IntfId(7));
  EXPECT_THAT(there, ElementsAre(true, false));
}

TEST_F(LinksTest, LetAWatchEndInItsOwnCallAndBeginAnother) {
  int calls = 0;
  Links::Handle second;
  Links::Handle first = links.watch([&](IntfId) {
    ++calls;
    first.reset();
    second = links.watch([&](IntfId) { calls += 10; });
  });
  links.linkIs(link(1, "a"));
  EXPECT_EQ(calls, 1);
  links.linkIs(link(2, "b"));
  EXPECT_EQ(calls, 11);
}

TEST_F(LinksTest, LoseWhatAReadingDoesNotFind) {
  for (std::uint64_t id : {1, 2, 3, 4})
    links.linkIs(link(id, "l" + std::to_string(id)));
  told();
  Links::Reading reading(links);
  reading.linkIs(link(2, "l2"));
  reading.linkIs(link(3, "renamed"));
  reading.linkIs(link(5, "l5"));
  reading.linkStays(IntfId(4));
  reading.linkStays(IntfId(9)); // there was none
  EXPECT_THAT(ids(), ElementsAre(1, 2, 3, 4, 5));
  end(reading);
  EXPECT_THAT(ids(), ElementsAre(2, 3, 4, 5));
  EXPECT_EQ(links.findByName("renamed")->intfId, IntfId(3));
  EXPECT_THAT(told(), ElementsAre(3, 5, 1));
}

TEST_F(LinksTest, LoseAllWhenAReadingFindsNone) {
  links.linkIs(link(1, "a"));
  links.linkIs(link(2, "b"));
  Links::Reading reading(links);
  end(reading);
  EXPECT_EQ(links.size(), 0u);
  EXPECT_EQ(links.findByName("a"), nullptr);
}

TEST_F(LinksTest, GoAndAreLookedAtInSmallSteps) {
  constexpr std::uint64_t many = 10000;
  for (std::uint64_t id = 1; id <= many; ++id)
    links.linkIs(link(id, "l" + std::to_string(id)));
  Links::Reading reading(links);
  for (std::uint64_t id = 1; id <= many - 2; ++id)
    reading.linkIs(link(id, "l" + std::to_string(id)));
  told();
  int steps = 0;
  for (; reading.endNext(); ++steps)
    ASSERT_LE(told().size(), 1u);
  EXPECT_EQ(links.size(), many - 2);
  EXPECT_GT(steps, 20) << "not all links in one";
  EXPECT_LT(steps, 1000) << "some links in each";
}

TEST_F(LinksTest, HearOfOthersWhileAReadingEnds) {
  for (std::uint64_t id : {1, 2, 3})
    links.linkIs(link(id, "old"));
  Links::Reading reading(links);
  ASSERT_TRUE(reading.endNext());
  EXPECT_THAT(ids(), ElementsAre(2, 3));
  links.linkIs(link(1, "new")); // behind the place where it is
  links.linkIs(link(3, "new"));
  end(reading);
  EXPECT_THAT(ids(), ElementsAre(1, 3));
}

TEST_F(LinksTest, HaveOneWriter) {
  {
    Links::Writer const first(links);
    EXPECT_THROW(Links::Writer second(links), std::invalid_argument);
    EXPECT_THROW(Links::Writer third(links), std::invalid_argument);
  }
  EXPECT_NO_THROW(Links::Writer next(links));
}

TEST_F(LinksTest, BelieveWhatWasHeardDuringAReading) {
  for (std::uint64_t id : {1, 2, 3})
    links.linkIs(link(id, "old"));
  Links::Reading reading(links);
  links.linkIs(link(1, "new"));
  links.linkDel(IntfId(2));
  links.linkIs(link(4, "new")); // the reading has passed its place
  reading.linkIs(link(1, "old"));
  reading.linkIs(link(2, "old"));
  reading.linkIs(link(3, "old"));
  reading.linkIs(link(3, "old")); // twice: links moved while they were read
  end(reading);
  EXPECT_THAT(ids(), ElementsAre(1, 3, 4));
  EXPECT_EQ(links.find(IntfId(1))->name, "new");
}

TEST_F(LinksTest, LoseWhatAReadingDoesNotFindThoughOneThatItFoundGoesMeanwhile) {
  for (std::uint64_t id : {1, 2, 3})
    links.linkIs(link(id, "l" + std::to_string(id)));
  Links::Reading reading(links);
  reading.linkIs(link(1, "l1"));
  reading.linkIs(link(2, "l2"));
  links.linkDel(IntfId(2));
  end(reading);
  EXPECT_THAT(ids(), ElementsAre(1));
}

TEST_F(LinksTest, BelieveAReadingThatBeganAfterWhatWasHeard) {
  { Links::Reading const unfinished(links); }
  links.linkIs(link(1, "heard"));
  Links::Reading reading(links);
  reading.linkIs(link(1, "read"));
  end(reading);
  EXPECT_EQ(links.find(IntfId(1))->name, "read");
}

TEST_F(LinksTest, ForgetAReadingThatIsNotEnded) {
  links.linkIs(link(1, "a"));
  { Links::Reading const unfinished(links); }
  EXPECT_THAT(ids(), ElementsAre(1));
  Links::Reading reading(links);
  reading.linkIs(link(1, "a"));
  end(reading);
  EXPECT_THAT(ids(), ElementsAre(1));
}

} // namespace
