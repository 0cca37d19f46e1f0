// Descriptors by poll(), time by hand.
#include "tests/support/TestLoop.h"
#include <algorithm>
#include <poll.h>
#include <vector>

struct TestLoop::Timer final : Watch {
  /// Again and again after each `period`, unless that is 0.
  Timer(TestLoop & owner, std::chrono::milliseconds when, std::chrono::milliseconds period,
        std::function<void()> call)
      : loop(owner),
        at(when),
        again(period),
        due(std::move(call)) {
    loop.timers_.push_back(this);
  }
  ~Timer() override { loop.timers_.remove(this); }
  TestLoop & loop;
  std::chrono::milliseconds at;
  std::chrono::milliseconds const again;
  std::function<void()> due;
};

struct TestLoop::Descriptor final : Watch {
  Descriptor(TestLoop & owner, pollfd what, std::function<void()> call)
      : loop(owner),
        wanted(what),
        ready(std::move(call)) {
    loop.descriptors_.push_back(this);
  }
  ~Descriptor() override { loop.descriptors_.remove(this); }
  TestLoop & loop;
  pollfd wanted;
  std::function<void()> ready;
};

Os::Loop::Handle TestLoop::readable(int descriptor, std::function<void()> ready) {
  return std::make_unique<Descriptor>(*this, pollfd{descriptor, POLLIN, 0}, std::move(ready));
}

Os::Loop::Handle TestLoop::writable(int descriptor, std::function<void()> ready) {
  return std::make_unique<Descriptor>(*this, pollfd{descriptor, POLLOUT, 0}, std::move(ready));
}

Os::Loop::Handle TestLoop::after(std::chrono::milliseconds time, std::function<void()> due) {
  return std::make_unique<Timer>(*this, now_ + time, std::chrono::milliseconds(0), std::move(due));
}

Os::Loop::Handle TestLoop::every(std::chrono::milliseconds time, std::function<void()> due) {
  return std::make_unique<Timer>(*this, now_ + time, time, std::move(due));
}

void TestLoop::advance(std::chrono::milliseconds time) {
  auto const until = now_ + time;
  for (;;) {
    auto const next = std::min_element(timers_.begin(), timers_.end(),
                                       [](auto * a, auto * b) { return a->at < b->at; });
    if (next == timers_.end() || (*next)->at > until)
      break;
    now_ = (*next)->at;
    auto const isLast = (*next)->again.count() == 0;
    auto const due = isLast ? std::move((*next)->due) : (*next)->due; // the call may end the watch
    (*next)->at += (*next)->again;
    if (isLast)
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
  auto const watches = std::vector(descriptors_.begin(), descriptors_.end());
  std::vector<pollfd> descriptors;
  for (auto const * watch : watches)
    descriptors.push_back(watch->wanted);
  if (::poll(descriptors.data(), descriptors.size(), static_cast<int>(patience.count())) <= 0)
    return false;
  for (std::size_t i = 0; i != watches.size(); ++i)
    if (descriptors[i].revents != 0 && std::ranges::count(descriptors_, watches[i]) != 0) {
      auto const ready = watches[i]->ready; // the call may end the watch
      ready();
    }
  return true;
}
