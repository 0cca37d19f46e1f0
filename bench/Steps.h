// What the steps of something took of the CPU, one by one: the longest is how long others on the
// thread wait.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>
#include <vector>

namespace Bench {

using Json = nlohmann::ordered_json;

inline void require(bool holds, char const * what) {
  if (!holds)
    throw std::runtime_error(what);
}

/// Nanoseconds of CPU of this thread.
inline std::int64_t cpuNow() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

/// What a series of steps took of the CPU. By the clock, what else the machine does would be in the
/// longest one.
class Steps {
public:
  template <class Step>
  void run(Step step) {
    auto const began = cpuNow();
    step();
    took_.push_back(cpuNow() - began);
  }
  /// Counts only a step that returns true. Returns what it did.
  template <class Step>
  bool runIf(Step step) {
    auto const began = cpuNow();
    auto const counts = step();
    if (counts)
      took_.push_back(cpuNow() - began);
    return counts;
  }
  /// Requires: there was a step.
  Json figures() {
    std::ranges::sort(took_);
    auto const milliseconds = [](std::int64_t time) { return static_cast<double>(time) / 1e6; };
    return {{"cpuMs", milliseconds(std::accumulate(took_.begin(), took_.end(), std::int64_t{0}))},
            {"steps", took_.size()},
            {"p99StepMs", milliseconds(took_[took_.size() * 99 / 100])},
            {"longestStepMs", milliseconds(took_.back())}};
  }

private:
  std::vector<std::int64_t> took_;
};

} // namespace Bench
