// Netlink sockets by libnl. Its return values are negative libnl error numbers.
#include "sources/linux/LinkSockets.h"
#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <new>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>

namespace Sources::Linux {
namespace {

// The kernel answers a dump at once, part by part; this is how long it may be busy before one part.
constexpr timeval dumpPatience{2, 0};

int takeMessage(nl_msg * message, void * take) {
  auto const * const header = nlmsg_hdr(message);
  auto const * const begin = reinterpret_cast<std::byte const *>(header);
  (*static_cast<TakeMessage const *>(take))(std::span(begin, header->nlmsg_len));
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

Socket connectedSocket() {
  Socket socket(nl_socket_alloc());
  if (!socket)
    throw std::bad_alloc();
  check(nl_connect(socket.get(), NETLINK_ROUTE),
        "open a route netlink socket (are there descriptors left?)");
  return socket;
}

/// Sends the messages that are received from now on to `take`, which must live as long.
void deliverTo(nl_sock * socket, TakeMessage const & take) {
  check(nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, takeMessage,
                            const_cast<TakeMessage *>(&take)),
        "set up a netlink socket");
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
  deliverTo(socket_.get(), take);
  auto const result = nl_recvmsgs_default(socket_.get());
  if (result == -NLE_AGAIN)
    return Received::nothing;
  if (result == -NLE_NOMEM) // how libnl tells ENOBUFS
    return Received::overflow;
  check(result, "hear of changes of links");
  return Received::messages;
}

bool dumpLinks(TakeMessage const & take) {
  auto const socket = connectedSocket();
  setsockopt(nl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &dumpPatience,
             sizeof dumpPatience);
  deliverTo(socket.get(), take);
  ifinfomsg all{};
  check(nl_send_simple(socket.get(), RTM_GETLINK, NLM_F_DUMP, &all, sizeof all),
        "ask for the links");
  auto const result = nl_recvmsgs_default(socket.get());
  if (result == -NLE_DUMP_INTR)
    return false;
  if (result == -NLE_AGAIN)
    throw std::runtime_error("source linux: cannot read the links: the kernel does not answer");
  check(result, "read the links");
  return true;
}

} // namespace Sources::Linux
