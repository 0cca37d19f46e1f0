// The daemon's one event loop, over libevent: descriptors, timers, signals, and in between them a
// slice of background work in each turn, so that neither starves the other.
#pragma once

#include "os/Loop.h"
#include <functional>
#include <memory>

struct event_base;

namespace Agent {

/// Everything in the daemon is called from run(), on its one thread. An exception out of a callback
/// is reported and counted ("agent-callback-exceptions"), and the loop goes on. While there is a
/// loop, and after it, the process ignores SIGPIPE.
class EventLoop final : public Os::Loop {
public:
  EventLoop();
  EventLoop(EventLoop const &) = delete;
  EventLoop & operator=(EventLoop const &) = delete;
  ~EventLoop() override;

  [[nodiscard]] Handle readable(int descriptor, std::function<void()> ready) override;
  [[nodiscard]] Handle writable(int descriptor, std::function<void()> ready) override;
  [[nodiscard]] Handle after(std::chrono::milliseconds time, std::function<void()> due) override;
  [[nodiscard]] Handle every(std::chrono::milliseconds time, std::function<void()> due) override;
  /// Calls `caught` after each arrival of the signal, from the loop.
  [[nodiscard]] Handle signal(int number, std::function<void()> caught);

  /// Serves events until stop(). Once in each turn it calls `work`, which does one piece of work
  /// and returns true if and only if there is more; the loop sleeps only while there is none.
  void run(std::function<bool()> const & work);
  /// Lets run() return after the current turn.
  void stop() { stopped_ = true; }

  /// For libevent's own buffered connections. Lives as long as the loop.
  event_base * base() const { return base_.get(); }

private:
  struct BaseFree {
    void operator()(event_base * base) const;
  };
  std::unique_ptr<event_base, BaseFree> base_;
  bool stopped_ = false;
};

} // namespace Agent
