// How often something may happen.
#include "agent/RateLimit.h"
#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

int taken(Agent::RateLimit & limit, Agent::RateLimit::Clock::time_point now) {
  int count = 0;
  while (count != 100 && limit.take(now))
    ++count;
  return count;
}

TEST(RateLimit, AllowsSoManyAtOnceAndThenOneInEachPeriod) {
  Agent::RateLimit limit(10, seconds(1));
  Agent::RateLimit::Clock::time_point now(seconds(5)); // shortly after the clock's beginning
  EXPECT_EQ(10, taken(limit, now));
  EXPECT_EQ(0, taken(limit, now + milliseconds(999)));
  EXPECT_EQ(1, taken(limit, now + milliseconds(1000)));
  EXPECT_EQ(0, taken(limit, now + milliseconds(1999)));
  EXPECT_EQ(2, taken(limit, now + milliseconds(3000)));
}

TEST(RateLimit, SavesNoMoreThanItAllowsAtOnce) {
  Agent::RateLimit limit(3, seconds(1));
  Agent::RateLimit::Clock::time_point now(seconds(1000));
  EXPECT_EQ(3, taken(limit, now));
  EXPECT_EQ(3, taken(limit, now + std::chrono::hours(1)));
}

} // namespace
