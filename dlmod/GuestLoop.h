// The daemon's event loop as a guest of net-snmp's: everything that it waits for is behind two
// descriptors, which snmpd's loop watches among its own.
//
// snmpd watches 32 descriptors of guests at most and calls them by numbers; the sources and the
// clients of the control socket would need more, and come and go. docs/decisions/dlmod-loop.md
// tells what else was considered.
#pragma once

#include "agent/EventLoop.h"
#include "os/Descriptor.h"
#include <chrono>
#include <functional>
#include <memory>

struct event;

namespace Dlmod {

/// Life cycle: between net-snmp's init_agent() and shutdown_agent(), on its one thread, and neither
/// made nor ended from within a call of its own. It may be made before snmpd leaves its terminal
/// and becomes another process: what is waited for goes along.
class GuestLoop {
public:
  /// From now on `work` is called in each turn, behind its events, as EventLoop::run() calls it;
  /// the first turn comes when snmpd's loop runs. An exception out of it is reported and counted
  /// ("dlmod-turn-exceptions"), and the turns go on. Raises std::runtime_error, one line, when the
  /// system or snmpd has no descriptor left.
  explicit GuestLoop(std::function<bool()> work);
  GuestLoop(GuestLoop const &) = delete;
  GuestLoop & operator=(GuestLoop const &) = delete;
  ~GuestLoop();

  /// Lives as long as this. Its own run() is not to be called.
  Agent::EventLoop & loop() { return loop_; }

private:
  /// A descriptor in snmpd's loop.
  class Watch {
  public:
    Watch(int descriptor, GuestLoop & owner);
    Watch(Watch const &) = delete;
    Watch & operator=(Watch const &) = delete;
    ~Watch();

  private:
    int const descriptor_;
  };
  struct EventFree {
    void operator()(event * one) const;
  };

  void turn();
  bool takeTurn();
  std::chrono::nanoseconds untilNextTimer();
  void wakeAfter(std::chrono::nanoseconds time);

  std::function<bool()> const work_;
  int const lowest_; // the descriptor that libevent's poller gets
  Agent::EventLoop loop_;
  std::unique_ptr<event, EventFree> const mark_; // a moment in libevent's time
  Os::Descriptor const timer_;
  Watch const events_;
  Watch const time_;
};

} // namespace Dlmod
