// What the daemon tells the service manager that started it, in the words of sd_notify(3): that its
// tables are complete, that it reads everything again, that it ends, and, again and again, that its
// event loop turns.
//
// Sent by hand and not by libsystemd: a message is one datagram, and the library would map six
// others, which compress and encrypt, into a daemon that needs none of them.
#pragma once

#include "os/Descriptor.h"
#include "os/Loop.h"
#include "os/UnixAddress.h"
#include <optional>
#include <string>
#include <string_view>

namespace Agent {

/// Says nothing unless the environment names a manager that wants to hear it. Nothing waits for
/// the manager: what it cannot take now it gets a little later, and only the latest of it; what
/// cannot reach it at all is counted ("agent-service-manager-unreached").
class ServiceManager {
public:
  /// Listens is what NOTIFY_SOCKET names: a path, or with a leading @ an abstract name. Where
  /// WATCHDOG_USEC is set, and WATCHDOG_PID is this process or not set, the manager hears twice in
  /// that time that the loop turns. Whatever else stands in these variables counts as not set.
  /// `loop` outlives this.
  explicit ServiceManager(Os::Loop & loop);
  ServiceManager(ServiceManager const &) = delete;
  ServiceManager & operator=(ServiceManager const &) = delete;

  /// The tables are complete. `place` is where requests come from. May be said more than once.
  void ready(std::string_view place);
  /// Everything is read again, from now until reloaded(). Neither counts before the daemon is
  /// ready.
  void reloading();
  void reloaded();
  /// The daemon ends.
  void stopping();

private:
  void feedWatchdog();
  void tell(std::string message);
  void sendUnsent();
  bool send(std::string_view message) const;

  Os::Loop & loop_;
  std::optional<Os::UnixAddress> const manager_;
  Os::Descriptor const socket_;
  std::string readyMessage_; // empty: not ready yet
  std::string unsent_;
  Os::Loop::Handle nextTry_;
  Os::Loop::Handle feeding_;
};

} // namespace Agent
