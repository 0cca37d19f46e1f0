// The signals that end the daemon, or might.
//
// TERM, INT and QUIT end it: the event loop stops, and everything is undone in its order. Neither
// work that keeps the loop from turning, such as the reading of a huge file at the start, nor the
// undoing of 100,000 tunnels keeps the daemon from ending: after 0.7 s it ends there and then, in
// the signal's handler, and leaves no socket behind. USR1 and USR2, which would end a process that
// does not know them, do nothing, and ALRM does nothing when somebody sends it.
#pragma once

#include "agent/EventLoop.h"
#include "os/Descriptor.h"
#include <ctime>
#include <string_view>

namespace Agent {

/// There is one at a time. When it goes, the signals end the process again, as they do by default.
class EndSignals {
public:
  /// Stops the loop after each of the signals, also after one that came before the loop ran. Raises
  /// std::runtime_error when the system has no descriptor or timer left.
  explicit EndSignals(EventLoop & loop);
  EndSignals(EndSignals const &) = delete;
  EndSignals & operator=(EndSignals const &) = delete;
  ~EndSignals();

  /// What is removed when the daemon ends there and then: a file's path, or nothing when it is
  /// empty. Requires: no longer than Os::UnixAddress::longestPath.
  static void fileIs(std::string_view path);

private:
  void noticed();

  EventLoop & loop_;
  Os::Descriptor const event_; // readable after a signal
  timer_t timer_{};
  Os::Loop::Handle watch_;
};

} // namespace Agent
