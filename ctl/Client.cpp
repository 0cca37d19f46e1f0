// A blocking connection: one line out, one line in. The daemon answers each request in order and
// closes the connection when it ends, so no more is needed.
#include "ctl/Client.h"
#include "os/UnixAddress.h"
#include "json/Input.h"
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <string_view>
#include <sys/socket.h>

namespace Ctl {

namespace {

Unreachable unreachable(std::string const & path, int error) {
  auto const * advice = error == EACCES ? "run this as the user that runs the daemon"
                                        : "is tunnelsnmpd running? Name its socket with --control";
  return Unreachable(
      fmt::format("cannot reach the daemon at {}: {}; {}", path, std::strerror(error), advice));
}

Os::Descriptor connectTo(std::string const & path) {
  auto const address = Os::UnixAddress::ofPath(path);
  if (!address)
    throw unreachable(path, ENAMETOOLONG);
  Os::Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!descriptor || connect(descriptor.get(), address->get(), address->size()) != 0)
    throw unreachable(path, errno);
  return descriptor;
}

} // namespace

Client::Client(std::string path) : path_(std::move(path)), descriptor_(connectTo(path_)) {}

template <class Json>
Json Client::request(std::string const & command, nlohmann::json const & arguments) {
  send(nlohmann::json{{"command", command}, {"arguments", arguments}}.dump() + '\n');
  Json answer;
  try {
    answer = JsonInput::parse<Json>(receiveLine());
    if (answer.at("ok") == true)
      return std::move(answer.at("result"));
  } catch (JsonInput::Wrong const &) {
    lost("its answer is no JSON that this version understands");
  } catch (nlohmann::json::exception const &) {
    lost("its answer is no JSON that this version understands");
  }
  throw Refused(answer.value("error", "no reason given"));
}
template nlohmann::json Client::request(std::string const &, nlohmann::json const &);
template nlohmann::ordered_json Client::request(std::string const &, nlohmann::json const &);

void Client::send(std::string const & line) {
  for (std::string_view rest = line; !rest.empty();) {
    auto const sent = ::send(descriptor_.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
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
    auto const received = recv(descriptor_.get(), part.data(), part.size(), 0);
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
