#include "tests/support/TestLoop.h"
#include <algorithm>
#include <poll.h>
#include <vector>

struct TestLoop::Timer final : Watch {
  Timer(TestLoop & owner, std::chrono::milliseconds when, std::function<void()> call)
      : loop(owner),
        at(when),
        due(std::move(call)) {
    loop.timers_.push_back(this);
  }
  ~Timer() override { loop.timers_.remove(this); }
  TestLoop & loop;
  std::chrono::milliseconds at;
  std::function<void()> due;
};

struct TestLoop::Reader final : Watch {
  Reader(TestLoop & owner, int fd, std::function<void()> call)
      : loop(owner),
        descriptor(fd),
        ready(std::move(call)) {
    loop.readers_.push_back(this);
  }
  ~Reader() override { loop.readers_.remove(this); }
  TestLoop & loop;
  int descriptor;
  std::function<void()> ready;
};

Sources::Loop::Handle TestLoop::readable(int descriptor, std::function<void()> ready) {
  return std::make_unique<Reader>(*this, descriptor, std::move(ready));
}

Sources::Loop::Handle TestLoop::after(std::chrono::milliseconds time, std::function<void()> due) {
  return std::make_unique<Timer>(*this, now_ + time, std::move(due));
}

void TestLoop::advance(std::chrono::milliseconds time) {
  auto const until = now_ + time;
  for (;;) {
    auto const next = std::min_element(timers_.begin(), timers_.end(),
                                       [](auto * a, auto * b) { return a->at < b->at; });
    if (next == timers_.end() || (*next)->at > until)
      break;
    now_ = (*next)->at;
    auto const due = std::move((*next)->due); // called once; the call may end the watch
    timers_.erase(next);
    due();
  }
  now_ = until;
}

bool TestLoop::runReady(std::chrono::milliseconds patience) {
  if (!poll(patience))
    return false;
  while (poll(std::chrono::milliseconds(0))) {
  }
  return true;
}

bool TestLoop::poll(std::chrono::milliseconds patience) {
  std::vector<pollfd> descriptors;
  for (auto * reader : readers_)
    descriptors.push_back({reader->descriptor, POLLIN, 0});
  if (::poll(descriptors.data(), descriptors.size(), static_cast<int>(patience.count())) <= 0)
    return false;
  for (auto const & one : descriptors) {
    if (one.revents == 0)
      continue;
    auto const reader = std::find_if(readers_.begin(), readers_.end(),
                                     [&](auto * r) { return r->descriptor == one.fd; });
    if (reader != readers_.end()) {
      auto const ready = (*reader)->ready; // the call may end the watch
      ready();
    }
  }
  return true;
}
