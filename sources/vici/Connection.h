// A connection to strongSwan's vici socket as a stream of packets, in and out. Nothing here waits:
// what has not arrived yet, or cannot be sent yet, is kept.
#pragma once

#include "os/Descriptor.h"
#include "os/Loop.h"
#include "sources/vici/Message.h"
#include <cstddef>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

namespace Sources::Vici {

/// There is no connection, or none any more: one line that says what to do where that is known.
class Unreachable : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class Connection {
public:
  struct Callbacks {
    /// Something has arrived, whether or not it is a whole packet yet. Must not end the connection.
    std::function<void()> heard;
    /// Takes a packet, which lives as long as the call. Must not end the connection; what it raises
    /// is why it is lost.
    std::function<void(Packet const &)> received;
    /// It is no use any more. Called at most once, never from inside the constructor or send(), and
    /// may end the connection.
    std::function<void(std::exception const &)> lost;
  };

  /// Connects to the Unix socket of that path. `loop` outlives it. Raises Unreachable.
  Connection(std::string const & path, Os::Loop & loop, Callbacks callbacks);
  Connection(Connection const &) = delete;
  Connection & operator=(Connection const &) = delete;

  /// Sends a packet, or as much of it as can be sent now; the rest follows. Requires: as
  /// encodeSegment().
  void send(PacketType type, std::string_view name);

private:
  /// Octets taken in one turn of the loop.
  static constexpr std::size_t pieceSize = 65536;

  void receive();
  void receiveOrRaise();
  void flush();
  void flushOrRaise();
  void loseIt(std::exception const & reason);

  Os::Loop & loop_;
  Callbacks callbacks_;
  Os::Descriptor const socket_; // before its watches, which must go first
  Segments input_;
  std::string output_; // what waits to be sent
  Os::Loop::Handle readable_;
  Os::Loop::Handle writable_; // while something waits
};

} // namespace Sources::Vici
