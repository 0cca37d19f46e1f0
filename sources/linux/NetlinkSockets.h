// The two ways to hear of something from the kernel: the events of multicast groups, and dumps of
// all there is. Both hand out the messages as they come; the decoders read them.
//
// Each works in the network namespace that the thread is in when it is opened, and never waits. A
// dump has a socket of its own, so that its answers and the events never mix.
#pragma once

#include "os/Descriptor.h"
#include "sources/linux/NetlinkMessage.h"
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

struct nl_sock;

namespace Sources::Linux {

/// What is read from the kernel, and in which words a failure is told.
struct NetlinkSubject {
  int protocol;             ///< NETLINK_ROUTE, NETLINK_XFRM
  char const * family;      ///< "a route", "an xfrm"
  char const * things;      ///< "links"
  std::vector<int> groups;  ///< whose events tell of changes
  std::uint16_t request;    ///< asks for all, RTM_GETLINK
  std::size_t requestZeros; ///< what follows its header: so many bytes, all 0
};

/// What the kernel refused. One line.
class NetlinkError : public std::runtime_error {
public:
  enum class Reason { notPermitted, notSupported, other };
  NetlinkError(std::string const & text, Reason reason) : runtime_error(text), reason_(reason) {}
  Reason reason() const { return reason_; }

private:
  Reason const reason_;
};

/// Where messages are received: 32 KiB, as much as the kernel sends at one time. The system never
/// writes it into a core file; what is secret in it is wiped as soon as it has been read.
class ReceiveBuffer {
public:
  enum class Contents { plain, secret };

  /// Raises std::bad_alloc.
  explicit ReceiveBuffer(Contents contents);
  ReceiveBuffer(ReceiveBuffer const &) = delete;
  ReceiveBuffer & operator=(ReceiveBuffer const &) = delete;
  ~ReceiveBuffer();

  std::span<std::byte> bytes() const { return bytes_; }
  /// The first `size` bytes have been read: overwrites them where they are secret.
  void wasRead(std::size_t size) const;

private:
  Contents const contents_;
  std::span<std::byte> bytes_;
};

/// Takes one message, from its header on; the bytes live as long as the call.
using TakeMessage = std::function<void(Bytes)>;

struct CloseSocket {
  void operator()(nl_sock * socket) const;
};
using Socket = std::unique_ptr<nl_sock, CloseSocket>;

/// Hears of every change that the kernel announces, from its construction on.
class NetlinkEvents {
public:
  /// `kernelBuffer`: bytes that the kernel keeps for us; beyond the system's limit if we may.
  /// `subject` and `buffer` outlive it. Raises NetlinkError when there is no such socket to be had.
  NetlinkEvents(NetlinkSubject const & subject, int kernelBuffer, ReceiveBuffer const & buffer);

  /// Readable when there is something to receive.
  int descriptor() const;

  enum class Received {
    messages, ///< `take` was called for each
    nothing,  ///< no more is waiting
    overflow, ///< events are lost; older ones may still wait
  };
  /// Receives what was sent at one time. Never waits. Raises NetlinkError when the socket no longer
  /// works, and what `take` raises; the rest of what was sent is lost then.
  Received receive(TakeMessage const & take);

private:
  NetlinkSubject const & subject_;
  ReceiveBuffer const & buffer_;
  Socket socket_;
};

/// Asks the kernel for everything that there is. Returns the socket at which the answer arrives, a
/// message of the socket for each part of it. Raises NetlinkError when there is no such socket to
/// be had.
Os::Descriptor askForAll(NetlinkSubject const & subject);

/// Reads the answer to askForAll(), or what a test answers.
class NetlinkDump {
public:
  /// `subject` and `buffer` outlive it.
  NetlinkDump(NetlinkSubject const & subject, Os::Descriptor answer, ReceiveBuffer const & buffer)
      : subject_(subject),
        buffer_(buffer),
        answer_(std::move(answer)) {}

  /// Readable when there is something to receive.
  int descriptor() const { return answer_.get(); }

  enum class Received {
    messages,    ///< `take` was called for each; more will come
    nothing,     ///< the kernel has not answered yet
    whole,       ///< that was all
    interrupted, ///< that was all, but things came and went meanwhile: some may be missing
  };
  /// Receives one part of the answer. Never waits. Raises NetlinkError when the kernel refuses or
  /// the socket no longer works, and what `take` raises. Requires: has not said that that was all.
  Received receive(TakeMessage const & take);

private:
  Received takeAll(Bytes part, TakeMessage const & take);
  void requireNoError(nlmsghdr const & message) const;

  NetlinkSubject const & subject_;
  ReceiveBuffer const & buffer_;
  Os::Descriptor answer_;
  bool interrupted_ = false;
};

} // namespace Sources::Linux
