// Which links are spoken of, and who hears of it.
#include "sources/ike/BoundLinks.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Plexa::IntfId;
using Sources::Ike::BoundLinks;
using testing::ElementsAre;
using testing::IsEmpty;

class BoundLinksTest : public testing::Test {
protected:
  /// "7 bound", as it was when it was told.
  BoundLinks::Handle watch(std::vector<std::string> & told) {
    return links.watch([&](IntfId intfId) {
      told.push_back(std::to_string(intfId.value()) + (links.has(intfId) ? " bound" : " free"));
    });
  }

  BoundLinks links;
};

TEST_F(BoundLinksTest, AreToldWhenTheFirstSpeaksAndWhenTheLastWithdraws) {
  std::vector<std::string> told;
  auto const handle = watch(told);
  links.add(IntfId(7));
  links.add(IntfId(7));
  EXPECT_THAT(told, ElementsAre("7 bound"));
  links.remove(IntfId(7));
  EXPECT_TRUE(links.has(IntfId(7))) << "one still speaks of it";
  EXPECT_THAT(told, ElementsAre("7 bound"));
  links.remove(IntfId(7));
  EXPECT_THAT(told, ElementsAre("7 bound", "7 free"));
  links.add(IntfId(7));
  EXPECT_THAT(told, ElementsAre("7 bound", "7 free", "7 bound"));
}

TEST_F(BoundLinksTest, AreCountedEachForItself) {
  links.add(IntfId(7));
  links.add(IntfId(8));
  links.remove(IntfId(7));
  EXPECT_FALSE(links.has(IntfId(7)));
  EXPECT_TRUE(links.has(IntfId(8)));
}

TEST_F(BoundLinksTest, AreToldToEachThatStillWantsToHear) {
  std::vector<std::string> first;
  std::vector<std::string> second;
  auto handle = watch(first);
  auto const other = watch(second);
  auto const copy = handle;
  handle.reset();
  links.add(IntfId(7));
  EXPECT_THAT(first, ElementsAre("7 bound")) << "a copy of its handle is left";
  EXPECT_THAT(second, ElementsAre("7 bound"));
}

TEST_F(BoundLinksTest, MayBeWatchedNoMoreByWhomAnotherIsToldBefore) {
  std::vector<std::string> told;
  BoundLinks::Handle second;
  auto const first = links.watch([&](IntfId) { second.reset(); });
  second = watch(told);
  links.add(IntfId(7));
  EXPECT_THAT(told, IsEmpty());
}

} // namespace
