// The two ways to hear of links from the kernel: the events of a multicast group, and dumps of all
// there are. Both hand out the messages as they come; LinkDecoder reads them.
//
// Each works in the network namespace that the thread is in when it is opened, needs no privilege,
// and never waits. A dump has a socket of its own, so that its answers and the events never mix.
#pragma once

#include "os/Descriptor.h"
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>

struct nl_sock;

namespace Sources::Linux {

/// Takes one message, from its header on; the bytes live as long as the call.
using TakeMessage = std::function<void(std::span<std::byte const>)>;

struct CloseSocket {
  void operator()(nl_sock * socket) const;
};
using Socket = std::unique_ptr<nl_sock, CloseSocket>;

/// Hears of every change to a link that the kernel announces, from its construction on.
class LinkEvents {
public:
  /// `receiveBuffer`: bytes that the kernel keeps for us; beyond the system's limit if we may.
  /// Raises std::runtime_error, one line, when there is no such socket to be had.
  explicit LinkEvents(int receiveBuffer);

  /// Readable when there is something to receive.
  int descriptor() const;

  enum class Received {
    messages, ///< `take` was called for each
    nothing,  ///< no more is waiting
    overflow, ///< the kernel has dropped events; older ones may still wait
  };
  /// Receives what was sent at one time. Never waits. Raises std::runtime_error, one line, when the
  /// socket no longer works, and what `take` raises; the rest of what was sent is lost then.
  Received receive(TakeMessage const & take);

private:
  Socket socket_;
};

/// Asks the kernel for every link that there is. Returns the socket at which the answer arrives, a
/// message of the socket for each part of it. Raises std::runtime_error, one line, when there is no
/// such socket to be had.
Os::Descriptor askForLinks();

/// Reads the answer to askForLinks(), or what a test answers.
class LinkDump {
public:
  explicit LinkDump(Os::Descriptor answer) : answer_(std::move(answer)) {}

  /// Readable when there is something to receive.
  int descriptor() const { return answer_.get(); }

  enum class Received {
    messages,    ///< `take` was called for each; more will come
    nothing,     ///< the kernel has not answered yet
    whole,       ///< that was all
    interrupted, ///< that was all, but links came and went meanwhile: some may be missing
  };
  /// Receives one part of the answer, the messages of at most 32 KiB. Never waits. Raises
  /// std::runtime_error, one line, when the kernel refuses or the socket no longer works, and what
  /// `take` raises. Requires: has not said that that was all.
  Received receive(TakeMessage const & take);

private:
  /// The messages of one part; nothing while more is to come.
  std::optional<Received> takeAll(std::span<std::byte const> part, TakeMessage const & take);

  Os::Descriptor answer_;
  bool interrupted_ = false;
};

} // namespace Sources::Linux
