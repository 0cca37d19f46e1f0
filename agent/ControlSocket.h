// The Unix socket by which tunnelsnmpctl talks to the daemon: one request per line, one answer per
// line, in order.
//
// Nobody can hold the daemon up: connections never block, a long answer is made piece by piece in
// between other work and only as fast as the client reads it, and a client that stops reading or
// sends a line without end is dropped. When there are too many, the one that has been silent for
// longest makes room for the next.
#pragma once

#include "agent/Commands.h"
#include "agent/EventLoop.h"
#include "os/Descriptor.h"
#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>

namespace Agent {

struct ControlLimits {
  std::size_t requestSize = std::size_t{16} << 20;
  std::size_t unreadSize = std::size_t{1} << 20; ///< of an answer, before the next piece is made
  std::size_t clients = 32;
  std::chrono::milliseconds patience{30'000}; ///< with a client that reads nothing
};

class ControlSocket {
public:
  using Handler = std::function<Answer(std::string_view request)>;

  /// Listens at the path with mode 0600, in the place of what a dead daemon left behind. The folder
  /// is made, with mode 0755, when it is missing, and stays. Raises std::runtime_error, one line,
  /// when somebody listens there or the socket cannot be made.
  ControlSocket(EventLoop & loop, std::string path, Handler handler, ControlLimits limits = {});
  ControlSocket(ControlSocket const &) = delete;
  ControlSocket & operator=(ControlSocket const &) = delete;
  /// Closes every connection and removes the socket, unless another has taken its place.
  ~ControlSocket();

  std::size_t clients() const { return clients_.size(); }

private:
  class Client;
  void accept();
  void acceptLater();
  bool dropOldestIdle();
  void drop(Client const & client);

  EventLoop & loop_;
  std::string const path_;
  Handler const handler_;
  ControlLimits const limits_;
  Os::Descriptor const descriptor_;
  unsigned long const inode_; // of the socket in the file system, to remove no other
  std::list<std::unique_ptr<Client>> clients_;
  Os::Loop::Handle watch_;
};

} // namespace Agent
