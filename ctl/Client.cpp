// A blocking connection: one line out, one line in. The daemon answers each request in order and
// closes the connection when it ends, so no more is needed.
#include "ctl/Client.h"
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Ctl {

namespace {

Unreachable unreachable(std::string const & path, int error) {
  auto const * advice = error == EACCES ? "run this as the user that runs the daemon"
                                        : "is tunnelsnmpd running? Name its socket with --control";
  return Unreachable(
      fmt::format("cannot reach the daemon at {}: {}; {}", path, std::strerror(error), advice));
}

int connectTo(std::string const & path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw unreachable(path, ENAMETOOLONG);
  path.copy(address.sun_path, path.size());
  auto const descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor != -1 &&
      connect(descriptor, reinterpret_cast<sockaddr const *>(&address), sizeof address) == 0)
    return descriptor;
  auto const error = errno;
  close(descriptor);
  throw unreachable(path, error);
}

} // namespace

Client::Client(std::string path) : path_(std::move(path)), descriptor_(connectTo(path_)) {}

Client::~Client() {
  close(descriptor_);
}

template <class Json>
Json Client::request(std::string const & command, nlohmann::json const & arguments) {
  send(nlohmann::json{{"command", command}, {"arguments", arguments}}.dump() + '\n');
  Json answer;
  try {
    answer = Json::parse(receiveLine());
    if (answer.at("ok") == true)
      return std::move(answer.at("result"));
  } catch (nlohmann::json::exception const &) {
    lost("its answer is no JSON that this version understands");
  }
  throw Refused(answer.value("error", "no reason given"));
}
template nlohmann::json Client::request(std::string const &, nlohmann::json const &);
template nlohmann::ordered_json Client::request(std::string const &, nlohmann::json const &);

void Client::send(std::string const & line) {
  for (std::string_view rest = line; !rest.empty();) {
    auto const sent = ::send(descriptor_, rest.data(), rest.size(), MSG_NOSIGNAL);
    // A daemon that closes while we still send has said why: the answer is there to be read.
    if (sent == -1 && errno == EPIPE)
      return;
    if (sent == -1 && errno != EINTR)
      lost(std::strerror(errno));
    if (sent > 0)
      rest.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::string Client::receiveLine() {
  std::string line;
  std::array<char, 65536> part;
  while (line.empty() || line.back() != '\n') {
    auto const received = recv(descriptor_, part.data(), part.size(), 0);
    if (received == 0)
      lost("it closed the connection; see its messages");
    if (received == -1 && errno != EINTR)
      lost(std::strerror(errno));
    if (received > 0)
      line.append(part.data(), static_cast<std::size_t>(received));
  }
  return line;
}

void Client::lost(char const * reason) const {
  throw Unreachable(fmt::format("lost the daemon at {}: {}", path_, reason));
}

} // namespace Ctl
