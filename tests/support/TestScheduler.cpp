// When a run is asked to yield, and which of several equals comes next.
#include "tests/support/TestScheduler.h"
#include "platform/Lumo.h"
#include <chrono>
#include <cstdlib>
#include <iostream>

TestScheduler::TestScheduler(Yield yield, std::uint32_t seed)
    : TaskScheduler([] { return std::chrono::steady_clock::time_point(); }),
      yield_(yield),
      random_(seed) {}

std::size_t TestScheduler::runUntilQuiet(std::size_t limit) {
  std::size_t count = 0;
  while (runOne())
    LUMO_ASSERT(++count < limit, "the tasks never come to rest");
  return count;
}

bool TestScheduler::shouldYield(Kiln::Task const &) const {
  return yield_ == Yield::always || (yield_ == Yield::random && random_() % 2 == 0);
}

Kiln::Task * TestScheduler::takeNext(std::deque<Kiln::Task *> & equals) {
  if (yield_ == Yield::random)
    std::swap(equals.front(), equals[random_() % equals.size()]);
  return TaskScheduler::takeNext(equals);
}

std::uint64_t testEvents(std::uint64_t otherwise) {
  auto const * given = std::getenv("TEST_EVENTS");
  return given != nullptr ? std::stoull(given) : otherwise;
}

std::uint32_t testSeed() {
  static std::uint32_t const seed = [] {
    auto const * given = std::getenv("TEST_SEED");
    auto const drawn =
        given != nullptr ? static_cast<std::uint32_t>(std::stoul(given)) : std::random_device()();
    std::cout << "TEST_SEED=" << drawn << '\n';
    return drawn;
  }();
  return seed;
}
