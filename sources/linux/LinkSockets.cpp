// Netlink sockets by libnl. Its return values are negative libnl error numbers.
#include "sources/linux/LinkSockets.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <new>
#include <stdexcept>
#include <sys/socket.h>

namespace Sources::Linux {
namespace {

// The kernel fills the room that it is given, up to this size.
constexpr std::size_t dumpPart = 32 * 1024;

/// Where messages go, and what came out of that: nothing may be raised through the C library.
struct Delivery {
  TakeMessage const & take;
  std::exception_ptr failure{};
};

int takeMessage(nl_msg * message, void * to) {
  auto & delivery = *static_cast<Delivery *>(to);
  auto const * const header = nlmsg_hdr(message);
  auto const * const begin = reinterpret_cast<std::byte const *>(header);
  try {
    delivery.take(std::span(begin, header->nlmsg_len));
  } catch (...) {
    delivery.failure = std::current_exception();
    return NL_STOP;
  }
  return NL_OK;
}

int noSequenceCheck(nl_msg *, void *) {
  return NL_OK;
}

/// Raises what the error means when `result` is one.
void check(int result, char const * doing) {
  if (result < 0)
    throw std::runtime_error(
        fmt::format("source linux: cannot {}: {}", doing, nl_geterror(result)));
}

/// Raises what the kernel says is wrong, in the number that both NLMSG_ERROR and NLMSG_DONE begin
/// with: 0 or a negative error of the system.
void requireNoError(nlmsghdr const & message) {
  int error = 0;
  if (nlmsg_datalen(&message) >= static_cast<int>(sizeof error))
    std::memcpy(&error, nlmsg_data(&message), sizeof error);
  check(error < 0 ? -nl_syserr2nlerr(error) : 0, "read the links");
}

Socket connectedSocket() {
  Socket socket(nl_socket_alloc());
  if (!socket)
    throw std::bad_alloc();
  check(nl_connect(socket.get(), NETLINK_ROUTE),
        "open a route netlink socket (are there descriptors left?)");
  return socket;
}

void setReceiveBuffer(int descriptor, int bytes) {
  // The first needs a privilege and knows no limit; the second stops at the system's limit, which
  // only makes a full read more likely.
  if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

} // namespace

void CloseSocket::operator()(nl_sock * socket) const {
  nl_socket_free(socket);
}

LinkEvents::LinkEvents(int receiveBuffer) : socket_(connectedSocket()) {
  setReceiveBuffer(descriptor(), receiveBuffer);
  check(nl_socket_modify_cb(socket_.get(), NL_CB_SEQ_CHECK, NL_CB_CUSTOM, noSequenceCheck, nullptr),
        "set up a netlink socket");
  check(nl_socket_set_nonblocking(socket_.get()), "set up a netlink socket");
  check(nl_socket_add_membership(socket_.get(), RTNLGRP_LINK), "listen to changes of links");
}

int LinkEvents::descriptor() const {
  return nl_socket_get_fd(socket_.get());
}

LinkEvents::Received LinkEvents::receive(TakeMessage const & take) {
  Delivery delivery{take};
  check(nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, takeMessage, &delivery),
        "set up a netlink socket");
  auto const result = nl_recvmsgs_default(socket_.get());
  if (delivery.failure)
    std::rethrow_exception(delivery.failure);
  if (result == -NLE_AGAIN)
    return Received::nothing;
  if (result == -NLE_NOMEM) // how libnl tells ENOBUFS
    return Received::overflow;
  check(result, "hear of changes of links");
  return Received::messages;
}

Os::Descriptor askForLinks() {
  auto const socket = connectedSocket();
  ifinfomsg all{};
  check(nl_send_simple(socket.get(), RTM_GETLINK, NLM_F_DUMP, &all, sizeof all),
        "ask for the links");
  // A descriptor of its own, since libnl closes the one that it has made.
  Os::Descriptor answer(fcntl(nl_socket_get_fd(socket.get()), F_DUPFD_CLOEXEC, 0));
  check(answer ? 0 : -nl_syserr2nlerr(errno), "ask for the links");
  return answer;
}

// Not by nl_recvmsgs(), which would take every part of the answer before it returns.
LinkDump::Received LinkDump::receive(TakeMessage const & take) {
  alignas(nlmsghdr) std::array<std::byte, dumpPart> part;
  auto const size = recv(descriptor(), part.data(), part.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (size == -1 && (errno == EAGAIN || errno == EINTR))
    return Received::nothing;
  if (size <= 0)
    throw std::runtime_error(
        fmt::format("source linux: cannot read the links: {}",
                    size == 0 ? "the socket has been closed" : std::strerror(errno)));
  if (static_cast<std::size_t>(size) > part.size())
    interrupted_ = true; // what did not fit is lost
  auto const received = std::min(static_cast<std::size_t>(size), part.size());
  return takeAll(std::span(part).first(received), take).value_or(Received::messages);
}

std::optional<LinkDump::Received> LinkDump::takeAll(std::span<std::byte const> part,
                                                    TakeMessage const & take) {
  auto const * at = reinterpret_cast<nlmsghdr const *>(part.data());
  auto left = static_cast<int>(part.size());
  for (; nlmsg_ok(at, left) != 0; at = nlmsg_next(const_cast<nlmsghdr *>(at), &left)) {
    interrupted_ |= (at->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (at->nlmsg_type == NLMSG_ERROR || at->nlmsg_type == NLMSG_DONE)
      requireNoError(*at);
    if (at->nlmsg_type == NLMSG_DONE)
      return interrupted_ ? Received::interrupted : Received::whole;
    if (at->nlmsg_type >= NLMSG_MIN_TYPE)
      take(std::span(reinterpret_cast<std::byte const *>(at), at->nlmsg_len));
  }
  return std::nullopt;
}

} // namespace Sources::Linux
