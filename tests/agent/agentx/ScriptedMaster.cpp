// Sockets, and the codec that has tests of its own.
#include "tests/agent/agentx/ScriptedMaster.h"
#include "os/UnixAddress.h"
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Agent::AgentX;

ScriptedMaster::ScriptedMaster(std::string path, int backlog)
    : path_(std::move(path)),
      listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
  auto const address = *Os::UnixAddress::ofPath(path_);
  EXPECT_EQ(0, bind(listener_.get(), address.get(), address.size()));
  EXPECT_EQ(0, listen(listener_.get(), backlog));
}

ScriptedMaster::ScriptedMaster(int backlog)
    : listener_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(0, bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
  EXPECT_EQ(0, listen(listener_.get(), backlog));
}

ScriptedMaster::~ScriptedMaster() {
  if (!path_.empty())
    unlink(path_.c_str());
}

std::string ScriptedMaster::address() const {
  if (!path_.empty())
    return "unix:" + path_;
  sockaddr_in address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(0, getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &size));
  return fmt::format("tcp:127.0.0.1:{}", ntohs(address.sin_port));
}

bool ScriptedMaster::accept() {
  Os::Descriptor next(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK));
  if (!next)
    return false;
  connection_ = std::move(next);
  arrived_.clear();
  ended_ = false;
  return true;
}

std::optional<ScriptedMaster::Message> ScriptedMaster::next() {
  receive();
  auto const octets =
      std::span(reinterpret_cast<std::uint8_t const *>(arrived_.data()), arrived_.size());
  if (octets.size() < headerSize)
    return std::nullopt;
  auto const frame = std::get<Frame>(decodeHeader(octets.first<headerSize>()));
  if (octets.size() < headerSize + frame.payloadSize)
    return std::nullopt;
  auto const body = decodeBody(frame.header, octets.subspan(headerSize, frame.payloadSize));
  arrived_.erase(0, headerSize + frame.payloadSize);
  return Message{frame.header, std::get<Body>(body)};
}

bool ScriptedMaster::hasEnded() {
  receive();
  return ended_;
}

void ScriptedMaster::put(Header const & header, Body const & body) {
  std::string octets;
  encode(octets, header, body);
  putOctets(octets);
}

void ScriptedMaster::putOctets(std::string const & octets) {
  EXPECT_EQ(static_cast<ssize_t>(octets.size()),
            send(connection_.get(), octets.data(), octets.size(), MSG_NOSIGNAL));
}

void ScriptedMaster::answer(Message const & message, std::uint32_t session,
                            Response const & response) {
  auto header = message.first;
  header.session = session;
  put(header, response);
}

void ScriptedMaster::receive() {
  char part[65536];
  for (;;) {
    auto const count = recv(connection_.get(), part, sizeof part, 0);
    ended_ = ended_ || count == 0 || (count < 0 && errno == ECONNRESET);
    if (count <= 0)
      return;
    arrived_.append(part, static_cast<std::size_t>(count));
  }
}
