// BER, as far as a request needs it, and a socket.
#include "tests/agent/Wire.h"
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace Wire {

namespace {

constexpr std::uint8_t integerTag = 0x02;
constexpr std::uint8_t octetsTag = 0x04;
constexpr std::uint8_t nullTag = 0x05;
constexpr std::uint8_t oidTag = 0x06;
constexpr std::uint8_t sequenceTag = 0x30;
constexpr long requestId = 0x1234567;

std::string tagged(std::uint8_t tag, std::string_view content) {
  auto const size = content.size();
  std::string bytes{static_cast<char>(tag)};
  if (size < 0x80)
    bytes += static_cast<char>(size);
  else
    bytes += {static_cast<char>(0x82), static_cast<char>(size >> 8), static_cast<char>(size)};
  return bytes.append(content);
}

std::string integer(long value) {
  std::string content;
  for (int shift = 24; shift >= 0; shift -= 8)
    content += static_cast<char>(value >> shift);
  return tagged(integerTag, content);
}

std::string base128(unsigned long part) {
  std::string bytes{static_cast<char>(part & 0x7F)};
  while ((part >>= 7) != 0)
    bytes.insert(bytes.begin(), static_cast<char>(0x80 | (part & 0x7F)));
  return bytes;
}

std::string objectName(Oid const & name) {
  auto content = base128(name.at(0) * 40 + name.at(1));
  for (std::size_t at = 2; at < name.size(); ++at)
    content += base128(name[at]);
  return tagged(oidTag, content);
}

std::string varbinds(Request const & request) {
  std::string list;
  for (auto const & name : request.names)
    list += tagged(sequenceTag,
                   objectName(name) +
                       (request.command == Command::set ? integer(1) : tagged(nullTag, "")));
  return tagged(sequenceTag, list);
}

int connectedTo(std::string const & address) {
  auto const colon = address.rfind(':');
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<std::uint16_t>(std::stoul(address.substr(colon + 1))));
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto const descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (connect(descriptor, reinterpret_cast<sockaddr *>(&peer), sizeof peer) != 0)
    throw std::runtime_error("the manager cannot reach " + address);
  return descriptor;
}

} // namespace

std::ostream & operator<<(std::ostream & out, Request const & request) {
  out << fmt::format("{:#x} v{} \"{}\" non-repeaters {} repetitions {}",
                     static_cast<unsigned>(request.command), request.version, request.community,
                     request.nonRepeaters, request.repetitions);
  for (auto const & name : request.names)
    out << " ." << fmt::to_string(fmt::join(name, "."));
  return out;
}

std::string encoded(Request const & request) {
  auto const pdu = integer(requestId) + integer(request.nonRepeaters) +
                   integer(request.repetitions) + varbinds(request);
  return tagged(sequenceTag, integer(request.version) + tagged(octetsTag, request.community) +
                                 tagged(static_cast<std::uint8_t>(request.command), pdu));
}

Manager::Manager(TestLoop & loop, std::string const & address)
    : loop_(loop),
      socket_(connectedTo(address)) {}

Manager::~Manager() {
  close(socket_);
}

std::string Manager::ask(Request const & request) {
  auto const message = encoded(request);
  if (send(socket_, message.data(), message.size(), 0) != static_cast<ssize_t>(message.size()))
    throw std::runtime_error("the request cannot be sent");
  // Loopback delivers at once: when the agent has nothing left to read, its answer is there.
  loop_.runReady(std::chrono::seconds(10));
  std::array<char, 65536> answer;
  auto const size = recv(socket_, answer.data(), answer.size(), 0);
  return size < 0 ? "" : std::string(answer.data(), static_cast<std::size_t>(size));
}

} // namespace Wire
