// Sockets are set up by libnl, whose return values are negative libnl error numbers, and read by
// the system's own calls: libnl would receive into memory of its own, of which nobody knows whether
// it is wiped, and would take every part of a dump before it returns.
#include "sources/linux/NetlinkSockets.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <new>
#include <optional>
#include <sys/mman.h>
#include <sys/socket.h>

namespace Sources::Linux {
namespace {

// The kernel fills the room that it is given for a dump, up to this size.
constexpr std::size_t bufferSize = 32 * 1024;

NetlinkError::Reason reasonOf(int result) {
  if (result == -NLE_PERM || result == -NLE_NOACCESS)
    return NetlinkError::Reason::notPermitted;
  return result == -NLE_PROTO_MISMATCH || result == -NLE_OPNOTSUPP
             ? NetlinkError::Reason::notSupported
             : NetlinkError::Reason::other;
}

/// Raises what the error means when `result` is one.
void check(int result, std::string const & doing) {
  if (result < 0)
    throw NetlinkError(fmt::format("source linux: cannot {}: {}", doing, nl_geterror(result)),
                       reasonOf(result));
}

Socket connectedSocket(NetlinkSubject const & subject) {
  Socket socket(nl_socket_alloc());
  if (!socket)
    throw std::bad_alloc();
  check(nl_connect(socket.get(), subject.protocol),
        fmt::format("open {} netlink socket (are there descriptors left?)", subject.family));
  return socket;
}

void setKernelBuffer(int descriptor, int bytes) {
  // The first needs a privilege and knows no limit; the second stops at the system's limit, which
  // only makes a full read more likely.
  if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

/// What has been received at one time; it counts as read when this ends, however that comes about.
class Reception {
public:
  Reception(int descriptor, ReceiveBuffer const & buffer)
      : buffer_(buffer),
        size_(recv(descriptor, buffer.bytes().data(), buffer.bytes().size(),
                   MSG_DONTWAIT | MSG_TRUNC)),
        error_(size_ < 0 ? errno : 0) {}
  Reception(Reception const &) = delete;
  Reception & operator=(Reception const &) = delete;
  ~Reception() { buffer_.wasRead(bytes().size()); }

  int error() const { return error_; }
  bool isNothing() const { return error_ == EAGAIN || error_ == EINTR; }
  /// True if and only if more was sent than there is room for.
  bool isCutOff() const { return static_cast<std::size_t>(size()) > buffer_.bytes().size(); }
  ssize_t size() const { return std::max<ssize_t>(size_, 0); }
  Bytes bytes() const {
    return buffer_.bytes().first(
        std::min(static_cast<std::size_t>(size()), buffer_.bytes().size()));
  }

private:
  ReceiveBuffer const & buffer_;
  ssize_t const size_;
  int const error_;
};

/// Calls `each(header)` for each message of the part while that is true.
template <class Each>
void forEachMessage(Bytes part, Each each) {
  auto const * at = reinterpret_cast<nlmsghdr const *>(part.data());
  auto left = static_cast<int>(part.size());
  for (; nlmsg_ok(at, left) != 0; at = nlmsg_next(const_cast<nlmsghdr *>(at), &left))
    if (!each(*at))
      return;
}

/// Hands the message over unless it is one of netlink's own.
void hand(nlmsghdr const & message, TakeMessage const & take) {
  if (message.nlmsg_type >= NLMSG_MIN_TYPE)
    take(Bytes(reinterpret_cast<std::byte const *>(&message), message.nlmsg_len));
}

} // namespace

ReceiveBuffer::ReceiveBuffer(Contents contents) : contents_(contents) {
  auto * const pages =
      mmap(nullptr, bufferSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED)
    throw std::bad_alloc();
  bytes_ = {static_cast<std::byte *>(pages), bufferSize};
  if (madvise(pages, bufferSize, MADV_DONTDUMP) == 0 || contents == Contents::plain)
    return;
  munmap(pages, bufferSize);
  throw std::runtime_error("source linux: cannot keep secrets out of core files");
}

ReceiveBuffer::~ReceiveBuffer() {
  munmap(bytes_.data(), bytes_.size());
}

void ReceiveBuffer::wasRead(std::size_t size) const {
  if (contents_ == Contents::secret)
    explicit_bzero(bytes_.data(), size);
}

void CloseSocket::operator()(nl_sock * socket) const {
  nl_socket_free(socket);
}

NetlinkEvents::NetlinkEvents(NetlinkSubject const & subject, int kernelBuffer,
                             ReceiveBuffer const & buffer)
    : subject_(subject),
      buffer_(buffer),
      socket_(connectedSocket(subject)) {
  setKernelBuffer(descriptor(), kernelBuffer);
  for (auto const group : subject.groups)
    check(nl_socket_add_membership(socket_.get(), group),
          fmt::format("listen to changes of {}", subject.things));
}

int NetlinkEvents::descriptor() const {
  return nl_socket_get_fd(socket_.get());
}

NetlinkEvents::Received NetlinkEvents::receive(TakeMessage const & take) {
  Reception const reception(descriptor(), buffer_);
  if (reception.isNothing())
    return Received::nothing;
  if (reception.error() == ENOBUFS || reception.isCutOff())
    return Received::overflow;
  check(reception.error() == 0 ? 0 : -nl_syserr2nlerr(reception.error()),
        fmt::format("hear of changes of {}", subject_.things));
  forEachMessage(reception.bytes(), [&](nlmsghdr const & message) {
    hand(message, take);
    return true;
  });
  return Received::messages;
}

Os::Descriptor askForAll(NetlinkSubject const & subject) {
  auto const socket = connectedSocket(subject);
  auto const asking = fmt::format("ask for the {}", subject.things);
  std::vector<std::byte> all(subject.requestZeros);
  check(nl_send_simple(socket.get(), subject.request, NLM_F_DUMP, all.data(), all.size()), asking);
  // A descriptor of its own, since libnl closes the one that it has made.
  Os::Descriptor answer(fcntl(nl_socket_get_fd(socket.get()), F_DUPFD_CLOEXEC, 0));
  check(answer ? 0 : -nl_syserr2nlerr(errno), asking);
  return answer;
}

NetlinkDump::Received NetlinkDump::receive(TakeMessage const & take) {
  Reception const reception(descriptor(), buffer_);
  if (reception.isNothing())
    return Received::nothing;
  if (reception.size() == 0)
    throw NetlinkError(fmt::format("source linux: cannot read the {}: {}", subject_.things,
                                   reception.error() == 0 ? "the socket has been closed"
                                                          : std::strerror(reception.error())),
                       NetlinkError::Reason::other);
  interrupted_ |= reception.isCutOff(); // what did not fit is lost
  return takeAll(reception.bytes(), take);
}

NetlinkDump::Received NetlinkDump::takeAll(Bytes part, TakeMessage const & take) {
  auto received = Received::messages;
  forEachMessage(part, [&](nlmsghdr const & message) {
    interrupted_ |= (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (message.nlmsg_type == NLMSG_ERROR || message.nlmsg_type == NLMSG_DONE)
      requireNoError(message);
    if (message.nlmsg_type == NLMSG_DONE)
      received = interrupted_ ? Received::interrupted : Received::whole;
    else
      hand(message, take);
    return received == Received::messages;
  });
  return received;
}

// NLMSG_ERROR and NLMSG_DONE begin with 0 or a negative error of the system.
void NetlinkDump::requireNoError(nlmsghdr const & message) const {
  int error = 0;
  if (nlmsg_datalen(&message) >= static_cast<int>(sizeof error))
    std::memcpy(&error, nlmsg_data(&message), sizeof error);
  check(error < 0 ? -nl_syserr2nlerr(error) : 0, fmt::format("read the {}", subject_.things));
}

} // namespace Sources::Linux
