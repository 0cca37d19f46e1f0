// The durations that the system's calls take and give.
#include "os/Time.h"
#include <gtest/gtest.h>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(Time, IsSecondsAndTheMicrosecondsThatAreLeft) {
  auto const time = Os::toTimeval(milliseconds(2345));
  EXPECT_EQ(time.tv_sec, 2);
  EXPECT_EQ(time.tv_usec, 345'000);
  EXPECT_EQ(Os::toTimeval(microseconds(999'999)).tv_sec, 0);
  EXPECT_EQ(Os::toTimeval(microseconds(999'999)).tv_usec, 999'999);
}

TEST(Time, MillisecondsAreRoundedUp) {
  EXPECT_EQ(Os::toMilliseconds({.tv_sec = 0, .tv_usec = 0}), milliseconds(0));
  EXPECT_EQ(Os::toMilliseconds({.tv_sec = 0, .tv_usec = 1}), milliseconds(1));
  EXPECT_EQ(Os::toMilliseconds({.tv_sec = 3, .tv_usec = 2000}), milliseconds(3002));
  EXPECT_EQ(Os::toMilliseconds({.tv_sec = 3, .tv_usec = 2001}), milliseconds(3003));
}

} // namespace
