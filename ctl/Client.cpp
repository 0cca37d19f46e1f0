// One line out, one line in. The daemon answers each request in order and closes the connection
// when it ends, so no more is needed. Nothing blocks but poll(), which has a time to end at.
#include "ctl/Client.h"
#include "json/Input.h"
#include "os/Time.h"
#include "os/UnixAddress.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>
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

bool isForNow(int error) {
  return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

} // namespace

Client::Client(std::string path, Limits const & limits)
    : path_(std::move(path)),
      limits_(limits),
      end_(Clock::now() + limits.whole) {
  connect();
}

template <class Json>
Json Client::request(std::string const & command, std::string const & arguments) {
  send(
      fmt::format(R"({{"command":{},"arguments":{}}})", nlohmann::json(command).dump(), arguments) +
      '\n');
  Json answer;
  try {
    answer = JsonInput::parse<Json>(receiveLine());
    if (answer.at("ok") == true)
      return std::move(answer.at("result"));
    throw Refused(answer.value("error", "no reason given"));
  } catch (JsonInput::Wrong const &) {
    lost("its answer is no JSON that this version understands");
  } catch (nlohmann::json::exception const &) {
    lost("its answer is no JSON that this version understands");
  }
}
template nlohmann::json Client::request(std::string const &, std::string const &);
template nlohmann::ordered_json Client::request(std::string const &, std::string const &);

// A socket whose queue is full makes connect() wait, for as long as sending may take.
void Client::connect() {
  auto const address = Os::UnixAddress::ofPath(path_);
  if (!address)
    throw unreachable(path_, ENAMETOOLONG);
  descriptor_ = Os::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  auto const patience = Os::toTimeval(timeLeft());
  if (!descriptor_ ||
      setsockopt(descriptor_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0)
    throw unreachable(path_, errno);
  if (::connect(descriptor_.get(), address->get(), address->size()) == 0)
    return;
  if (errno == EAGAIN)
    late();
  throw unreachable(path_, errno);
}

void Client::send(std::string const & line) {
  for (std::string_view rest = line; !rest.empty();) {
    waitFor(POLLOUT);
    auto const sent =
        ::send(descriptor_.get(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    // A daemon that closes while we still send has said why: the answer is there to be read.
    if (sent == -1 && errno == EPIPE)
      return;
    if (sent == -1 && !isForNow(errno))
      lost(std::strerror(errno));
    if (sent > 0)
      rest.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::string Client::receiveLine() {
  std::string line;
  std::array<char, 65536> part;
  for (;;) {
    waitFor(POLLIN);
    auto const received = recv(descriptor_.get(), part.data(), part.size(), MSG_DONTWAIT);
    if (received == 0)
      lost(line.empty() ? "it closed the connection; see its messages"
                        : "it closed the connection in the middle of its answer; see its messages");
    if (received == -1 && !isForNow(errno))
      lost(std::strerror(errno));
    std::string_view const news(part.data(),
                                static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
    auto const end = news.find('\n');
    line.append(news.substr(0, end));
    if (end != std::string_view::npos)
      return line;
    if (line.size() > limits_.answerSize)
      lost(fmt::format("its answer is longer than {} bytes; is it tunnelsnmpd?",
                       limits_.answerSize));
  }
}

void Client::waitFor(short events) const {
  if (Clock::now() >= end_)
    late();
  pollfd waited{.fd = descriptor_.get(), .events = events, .revents = 0};
  auto const patience = static_cast<int>(timeLeft().count());
  auto const result = poll(&waited, 1, patience);
  if (result == 0)
    late();
  if (result == -1 && errno != EINTR)
    lost(std::strerror(errno));
}

// Never nothing, which a timeval would take for "for ever".
std::chrono::milliseconds Client::timeLeft() const {
  using std::chrono::milliseconds;
  auto const left = std::chrono::ceil<milliseconds>(end_ - Clock::now());
  return std::clamp(left, milliseconds(1), std::max(limits_.silence, milliseconds(1)));
}

void Client::lost(std::string const & reason) const {
  throw Unreachable(fmt::format("lost the daemon at {}: {}", path_, reason));
}

void Client::late() const {
  auto const patience = Clock::now() < end_ ? limits_.silence : limits_.whole;
  throw Late(fmt::format("the daemon at {} has not answered within {:g} s; is it stopped or stuck?",
                         path_, std::chrono::duration<double>(patience).count()));
}

} // namespace Ctl
