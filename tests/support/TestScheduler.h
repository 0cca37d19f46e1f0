// Schedulers that are as unfriendly as the contract allows, and the ways a machine can be run.
#pragma once

#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include <cstdint>
#include <random>
#include <string>

enum class Yield { never, always, random };

/// A scheduler whose time stands still and whose verdicts the test chooses. With random verdicts it
/// also takes tasks of equal priority in random order.
class TestScheduler : public Kiln::TaskScheduler {
public:
  explicit TestScheduler(Yield yield, std::uint32_t seed = 1);

  /// Runs tasks until none is scheduled; fails the process after `limit` runs. Returns the runs.
  std::size_t runUntilQuiet(std::size_t limit = 10'000'000);
  void yieldIs(Yield yield) { yield_ = yield; }

protected:
  bool shouldYield(Kiln::Task const & task) const override;
  Kiln::Task * takeNext(std::deque<Kiln::Task *> & equals) override;

private:
  Yield yield_;
  std::mt19937 mutable random_;
};

/// One way to run a machine. Every scenario holds in each of them.
struct RunMode {
  std::string name;
  bool synchronous;
  Yield yield;
};
inline RunMode const runModes[] = {
    {"Synchronous", true, Yield::never},
    {"NeverYield", false, Yield::never},
    {"AlwaysYield", false, Yield::always},
    {"RandomYield", false, Yield::random},
};
/// For GoogleTest's parameter names and messages.
inline void PrintTo(RunMode const & mode, std::ostream * out) {
  *out << mode.name;
}

/// The number that random choices begin with: TEST_SEED from the environment, else one drawn now.
/// Printed on first use, so that a failure can be repeated.
std::uint32_t testSeed();
/// How many random events a test is to draw: TEST_EVENTS, where that is set.
std::uint64_t testEvents(std::uint64_t otherwise);
