// Durations as the system's calls take and give them.
#pragma once

#include <chrono>
#include <sys/time.h>

namespace Os {

/// The same time. Requires: it is not negative.
constexpr timeval toTimeval(std::chrono::microseconds time) {
  auto const seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {.tv_sec = static_cast<time_t>(seconds.count()),
          .tv_usec = static_cast<suseconds_t>((time - seconds).count())};
}

/// The time in milliseconds, rounded up, so that a wait for it does not end too early.
constexpr std::chrono::milliseconds toMilliseconds(timeval const & time) {
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::seconds(time.tv_sec) +
                                                      std::chrono::microseconds(time.tv_usec));
}

} // namespace Os
