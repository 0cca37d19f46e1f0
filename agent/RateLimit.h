// How often something may happen that strangers can cause: a number of times at once, then once in
// each period.
#pragma once

#include <chrono>

namespace Agent {

class RateLimit {
public:
  using Clock = std::chrono::steady_clock;

  /// Requires: `atOnce` is above 0 and `period` is, too.
  RateLimit(int atOnce, Clock::duration period) : period_(period), span_(atOnce * period) {}

  /// True if and only if it may happen once more at that time, which then counts.
  bool take(Clock::time_point now) {
    auto const from = free_ > now - span_ ? free_ : now - span_;
    if (from + period_ > now)
      return false;
    free_ = from + period_;
    return true;
  }

private:
  Clock::duration const period_;
  Clock::duration const span_;
  Clock::time_point free_ = Clock::time_point::min(); // each happening moves it on by a period
};

} // namespace Agent
