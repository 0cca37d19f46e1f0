// A connection to a master as a stream of whole messages, in and out. Nothing here waits: what has
// not arrived yet, or cannot be sent yet, is kept.
#pragma once

#include "agent/agentx/Pdu.h"
#include "os/Descriptor.h"
#include <cstddef>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace Agent::AgentX {

/// The other side has gone, or says what cannot be understood. One line.
class StreamLost : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class Stream {
public:
  /// Requires: the socket does not block.
  explicit Stream(Os::Descriptor socket) : socket_(std::move(socket)) {}

  int descriptor() const { return socket_.get(); }

  /// Takes in what has arrived, 64 KiB at most. Raises StreamLost.
  void receive();

  struct Message {
    Header header;
    std::span<std::uint8_t const> payload; ///< lives until the next call of receive() or next()
  };
  /// The next message that has arrived whole; nothing when there is none. Raises StreamLost when
  /// its header is malformed.
  std::optional<Message> next();
  /// True if and only if next() has something to say.
  bool hasNext() const;

  /// Puts a message behind those that wait to be sent. False, and nothing is put, when it is larger
  /// than a message may be.
  [[nodiscard]] bool put(Header const & header, Body const & body);
  /// Sends what can be sent. Raises StreamLost.
  void flush();
  /// Octets that wait to be sent.
  std::size_t unsent() const { return output_.size() - sent_; }

private:
  std::span<std::uint8_t const> arrived() const {
    return std::span(input_).subspan(taken_, arrived_ - taken_);
  }

  Os::Descriptor socket_;
  std::vector<std::uint8_t> input_; // room for at most one message and 64 KiB
  std::size_t arrived_ = 0;         // of that room
  std::size_t taken_ = 0;           // of what has arrived
  std::string output_;
  std::size_t sent_ = 0; // of the output
};

} // namespace Agent::AgentX
