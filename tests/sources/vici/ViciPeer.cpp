// Non-blocking, since the source under test is on the same thread.
#include "tests/sources/vici/ViciPeer.h"
#include "os/UnixAddress.h"
#include "tests/sources/vici/ViciBytes.h"
#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/socket.h>

using Sources::Vici::encodeSegment;
using Sources::Vici::PacketType;

void ViciPeer::listen(int backlog) {
  auto const address = Os::UnixAddress::ofPath(path_);
  listener_ = Os::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  ::unlink(path_.c_str());
  if (!address || ::bind(listener_.get(), address->get(), address->size()) != 0 ||
      ::listen(listener_.get(), backlog) != 0)
    throw std::runtime_error("cannot listen at " + path_);
  stoppedIs(false);
}

void ViciPeer::end() {
  acceptable_.reset();
  listener_ = Os::Descriptor();
  sessions_.clear();
  ::unlink(path_.c_str());
}

void ViciPeer::stoppedIs(bool stopped) {
  isStopped_ = stopped;
  acceptable_ = stopped ? nullptr : loop_.readable(listener_.get(), [this] { accept(); });
  for (auto & session : sessions_) {
    session.writable.reset();
    session.readable =
        stopped ? nullptr
                : loop_.readable(session.socket.get(), [this, &session] { receive(session); });
    if (!stopped)
      send(session, "");
  }
}

void ViciPeer::accept() {
  Os::Descriptor socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!socket)
    return;
  ++accepted;
  auto & session = sessions_.emplace_back(Session{std::move(socket)});
  session.readable = loop_.readable(session.socket.get(), [this, &session] { receive(session); });
}

void ViciPeer::receive(Session & session) {
  std::array<std::uint8_t, 65536> piece;
  auto const count = ::recv(session.socket.get(), piece.data(), piece.size(), 0);
  if (count <= 0)
    return close(session);
  session.input.take(Sources::Vici::Octets(piece).first(static_cast<std::size_t>(count)));
  while (auto const packet = session.input.next()) {
    heard.emplace_back(packet->name);
    if (!instead || !instead(session, *packet))
      answer(session, *packet);
    if (session.isEnding)
      return; // when all is sent
  }
}

void ViciPeer::answer(Session & session, Packet const & packet) {
  std::string const name(packet.name);
  auto const isRequest = packet.type == PacketType::request;
  if (unknown.contains(name))
    return send(session,
                encodeSegment(isRequest ? PacketType::unknownCommand : PacketType::unknownEvent));
  if (!isRequest) {
    session.registered.insert(name);
    return send(session, encodeSegment(PacketType::confirmed));
  }
  std::string message;
  if (name == "version")
    message = ViciBytes::Message().value("daemon", "charon").value("version", version);
  if (name == "list-conns")
    for (auto const & one : connections)
      list(session, "list-conn", one);
  if (name == "list-sas") {
    ++listings;
    for (auto const & [key, one] : sas)
      list(session, "list-sa", one);
  }
  send(session, encodeSegment(PacketType::response, {}, message));
}

void ViciPeer::list(Session & session, std::string_view event, std::string const & message) {
  if (session.registered.contains(std::string(event)))
    send(session, encodeSegment(PacketType::event, event, message));
}

void ViciPeer::event(std::string_view name, std::string_view message) {
  sendTo(name, encodeSegment(PacketType::event, name, message));
}

void ViciPeer::sendTo(std::string_view registered, std::string_view octets_) {
  for (auto & session : sessions_)
    if (session.registered.contains(std::string(registered)))
      send(session, octets_);
}

void ViciPeer::send(Session & session, std::string_view octets_) {
  auto const allowed = std::min(octets_.size(), mostOctets - octets);
  octets += allowed;
  session.output += octets_.substr(0, allowed);
  session.isEnding |= octets == mostOctets;
  if (!session.writable && !isStopped_ && (!session.output.empty() || session.isEnding))
    session.writable = loop_.writable(session.socket.get(), [this, &session] { flush(session); });
}

void ViciPeer::flush(Session & session) {
  auto const count =
      ::send(session.socket.get(), session.output.data(), session.output.size(), MSG_NOSIGNAL);
  if (count < 0 && errno == EAGAIN)
    return;
  if (count < 0)
    return close(session);
  session.output.erase(0, static_cast<std::size_t>(count));
  if (session.output.empty() && session.isEnding)
    return close(session);
  if (session.output.empty())
    session.writable.reset();
}

void ViciPeer::closeFor(std::string_view registered) {
  sessions_.remove_if([&](Session const & session) {
    return session.registered.contains(std::string(registered));
  });
}

void ViciPeer::close(Session & session) {
  sessions_.remove_if([&](Session const & one) { return &one == &session; });
}
