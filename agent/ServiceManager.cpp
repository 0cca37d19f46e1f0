// The variables that a service manager sets, and one datagram for each thing that it is told.
#include "agent/ServiceManager.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

Lumo::Counter unreached("agent-service-manager-unreached");

/// After the manager's queue was full.
constexpr std::chrono::milliseconds untilNextTry{100};

std::string_view variable(char const * name) {
  auto const * const value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

std::optional<Os::UnixAddress> managersAddress() {
  auto const name = variable("NOTIFY_SOCKET");
  if (name.starts_with('/'))
    return Os::UnixAddress::ofPath(name);
  if (name.starts_with('@'))
    return Os::UnixAddress::ofAbstractName(name.substr(1));
  return std::nullopt;
}

/// Nothing when it is no number above 0.
std::optional<std::uint64_t> number(std::string_view text) {
  std::uint64_t value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value == 0)
    return std::nullopt;
  return value;
}

/// How long the loop may be silent before it is taken for stuck.
std::optional<std::chrono::microseconds> longestSilence() {
  auto const process = variable("WATCHDOG_PID");
  if (!process.empty() && number(process) != static_cast<std::uint64_t>(getpid()))
    return std::nullopt;
  auto const time = number(variable("WATCHDOG_USEC"));
  if (!time)
    return std::nullopt;
  constexpr std::uint64_t day = 86'400'000'000; // no number is too large for a timer
  return std::chrono::microseconds(std::min(*time, day));
}

} // namespace

ServiceManager::ServiceManager(Os::Loop & loop)
    : loop_(loop),
      manager_(managersAddress()),
      socket_(manager_ ? socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)
                       : Os::Descriptor::none) {
  if (!manager_)
    return;
  tell("STATUS=Starting; the tables are not complete yet");
  feedWatchdog();
}

void ServiceManager::ready(std::string_view place) {
  readyMessage_ = fmt::format("READY=1\nSTATUS=Ready; listening on {}", place);
  tell(readyMessage_);
}

void ServiceManager::reloading() {
  if (!readyMessage_.empty())
    tell("RELOADING=1\nSTATUS=Reading everything again");
}

void ServiceManager::reloaded() {
  if (!readyMessage_.empty())
    tell(readyMessage_);
}

void ServiceManager::stopping() {
  tell("STOPPING=1\nSTATUS=Ending");
}

void ServiceManager::feedWatchdog() {
  using std::chrono::milliseconds;
  if (auto const silence = longestSilence())
    feeding_ = loop_.every(
        std::max(milliseconds(1), std::chrono::duration_cast<milliseconds>(*silence / 2)),
        [this] { send("WATCHDOG=1"); });
}

void ServiceManager::tell(std::string message) {
  if (!manager_)
    return;
  unsent_ = std::move(message);
  sendUnsent();
}

void ServiceManager::sendUnsent() {
  if (send(unsent_))
    nextTry_.reset();
  else
    nextTry_ = loop_.after(untilNextTry, [this] { sendUnsent(); });
}

/// False if and only if the manager could take it later.
bool ServiceManager::send(std::string_view message) const {
  if (sendto(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL, manager_->get(),
             manager_->size()) >= 0)
    return true;
  if (errno == EAGAIN || errno == ENOBUFS || errno == EINTR)
    return false;
  unreached.inc();
  return true;
}

} // namespace Agent
