// Reads the notation with the system's own parser of numeric addresses.
#include "agent/agentx/MasterAddress.h"
#include "os/UnixAddress.h"
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <stdexcept>
#include <strings.h>

namespace Agent::AgentX {

namespace {

constexpr std::string_view defaultPort = "705"; // RFC 2741 section 8.1.1

/// What follows the prefix, in letters of either case; nothing when the text has another one.
std::optional<std::string_view> after(std::string_view prefix, std::string_view text) {
  if (text.size() < prefix.size() || strncasecmp(text.data(), prefix.data(), prefix.size()) != 0)
    return std::nullopt;
  return text.substr(prefix.size());
}

std::optional<std::string_view> afterTcp(std::string_view text) {
  for (auto const * prefix : {"tcp:", "tcp6:", "tcpv6:", "tcpipv6:"})
    if (auto const rest = after(prefix, text))
      return rest;
  return std::nullopt;
}

bool isPort(std::string_view text) {
  std::uint16_t port = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port != 0;
}

struct HostAndPort {
  std::string_view host;
  std::string_view port;
};

/// "HOST:PORT", "[HOST]:PORT", either alone, or an IPv6 address without brackets and port. No host
/// when it is none of these.
HostAndPort split(std::string_view text) {
  if (isPort(text))
    return {"localhost", text};
  if (text.starts_with('[')) {
    auto const end = text.find(']');
    if (end == std::string_view::npos)
      return {};
    auto const rest = text.substr(end + 1);
    return {text.substr(1, end - 1), rest.starts_with(':') ? rest.substr(1) : defaultPort};
  }
  auto const colon = text.find(':');
  if (colon == std::string_view::npos || text.find(':', colon + 1) != std::string_view::npos)
    return {text, defaultPort};
  return {text.substr(0, colon), text.substr(colon + 1)};
}

} // namespace

MasterAddress::MasterAddress(std::string text) : text_(std::move(text)) {
  if (auto const path = after("unix:", text_))
    setPath(*path);
  else if (auto const tcp = afterTcp(text_)) {
    if (!setTcp(*tcp))
      throw std::invalid_argument(
          fmt::format("{} is no address of an AgentX master: give tcp:HOST:PORT with a numeric "
                      "address or localhost, or unix:PATH",
                      text_));
  } else if (text_.find('/') != std::string::npos || !setTcp(text_))
    setPath(text_);
}

Os::Descriptor MasterAddress::connect() const {
  Os::Descriptor made(socket(address_.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!made)
    throw std::runtime_error(std::strerror(errno));
  if (address_.ss_family != AF_UNIX) {
    int const yes = 1; // each answer is waited for
    setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  }
  // EAGAIN is how a Unix socket says that too many wait for its owner already.
  if (::connect(made.get(), reinterpret_cast<sockaddr const *>(&address_), size_) != 0 &&
      errno != EINPROGRESS)
    throw std::runtime_error(errno == EAGAIN ? "it takes no more connections"
                                             : std::strerror(errno));
  return made;
}

void MasterAddress::setPath(std::string_view path) {
  auto const address = Os::UnixAddress::ofPath(path);
  if (path.empty() || !address)
    throw std::invalid_argument(
        fmt::format("{} is no address of an AgentX master: a path has 1 to {} characters", text_,
                    Os::UnixAddress::longestPath));
  std::memcpy(&address_, address->get(), address->size());
  size_ = address->size();
}

// False when it is none.
bool MasterAddress::setTcp(std::string_view hostAndPort) {
  auto const [host, port] = split(hostAndPort);
  if (host.empty() || !isPort(port))
    return false;
  auto const numeric = host == "localhost" ? std::string("127.0.0.1") : std::string(host);
  addrinfo wanted{};
  wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo * found = nullptr;
  if (getaddrinfo(numeric.c_str(), std::string(port).c_str(), &wanted, &found) != 0)
    return false;
  std::memcpy(&address_, found->ai_addr, found->ai_addrlen);
  size_ = found->ai_addrlen;
  freeaddrinfo(found);
  return true;
}

} // namespace Agent::AgentX
