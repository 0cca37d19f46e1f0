// An event loop whose time stands still until the test moves it. Descriptors are real.
#pragma once

#include "os/Loop.h"
#include <list>
#include <map>

/// Calls back only from inside advance() and runReady().
class TestLoop final : public Os::Loop {
public:
  [[nodiscard]] Handle readable(int descriptor, std::function<void()> ready) override;
  [[nodiscard]] Handle writable(int descriptor, std::function<void()> ready) override;
  [[nodiscard]] Handle after(std::chrono::milliseconds time, std::function<void()> due) override;
  [[nodiscard]] Handle every(std::chrono::milliseconds time, std::function<void()> due) override;

  /// Moves the time and calls what falls due, in order of time.
  void advance(std::chrono::milliseconds time);
  /// Calls the watchers of every descriptor that is ready, again and again until none is. Waits
  /// up to `patience` of real time for the first. True if and only if any was called.
  bool runReady(std::chrono::milliseconds patience = std::chrono::milliseconds(0));
  /// Calls the watchers of the descriptors that are ready now, each once. True if and only if any
  /// was called.
  bool runOnce() { return poll(std::chrono::milliseconds(0)); }
  /// Timers that wait.
  std::size_t timers() const { return timers_.size(); }

private:
  struct Timer;
  struct Descriptor;
  bool poll(std::chrono::milliseconds patience);

  std::chrono::milliseconds now_{0};
  std::list<Timer *> timers_;
  std::list<Descriptor *> descriptors_;
};
