// Subscribes, reads everything, applies events; and begins again whenever something may be missing.
//
// Traces under "LinuxSource": 0 faults and losses, 7 what is published, 8 full reads, 9 messages
// that change nothing.
#include "sources/linux/LinuxSource.h"
#include "platform/Lumo.h"
#include <fmt/format.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Sources {
namespace {

constexpr int fault = 0;
constexpr int output = 7;
constexpr int entry = 8;
constexpr int detail = 9;

/// How often a dump is taken again at once when links come and go meanwhile.
constexpr int dumpAttempts = 5;
constexpr char const * noAnswer = "source linux: cannot read the links: the kernel does not answer";
/// Receptions in a row before others on the thread have their turn.
constexpr int receptionsPerTurn = 64;

Lumo::Counter overflows("linux-overflows");
Lumo::Counter interruptedDumps("linux-dumps-interrupted");
Lumo::Counter malformedMessages("linux-messages-malformed");
Lumo::Counter resyncs("linux-resyncs");

// Known by its name before it has traced anything, so that it can be switched on.
auto const debugHandler = Lumo::Platform::getDebugHandler("LinuxSource", false);
Lumo::DebugHandler const & traceHandler() {
  return *debugHandler;
}

void traceMalformed(Linux::MalformedMessage const & malformed) {
  malformedMessages.inc();
  LUMO_TRACE(traceHandler(), fault, "message about link {} is malformed: {}", malformed.index,
             malformed.reason);
}

std::uint8_t hopLimitSetting(char const * path) {
  constexpr int recommended = 64;
  std::ifstream file(path);
  int value = 0;
  auto const usable = file >> value && value > 0 && value <= UINT8_MAX;
  return static_cast<std::uint8_t>(usable ? value : recommended);
}

Linux::DefaultHopLimits defaultHopLimits() {
  return {hopLimitSetting("/proc/sys/net/ipv4/ip_default_ttl"),
          hopLimitSetting("/proc/sys/net/ipv6/conf/default/hop_limit")};
}

} // namespace

std::unique_ptr<Source> makeLinuxSource(std::string_view options,
                                        Surroundings const & surroundings) {
  return std::make_unique<LinuxSource>(options, surroundings);
}

LinuxSource::LinuxSource(std::string_view options, Surroundings const & surroundings,
                         int receiveBuffer)
    : options_(options),
      loop_(surroundings.loop),
      receiveBuffer_(receiveBuffer),
      publication_(Linux::TunnelKindSet::fromOptions(options), surroundings.publishers,
                   surroundings.links) {}

std::string LinuxSource::name() const {
  return options_.empty() ? "linux" : "linux:" + options_;
}

void LinuxSource::start() {
  beginReading(Pace::atOnce);
  while (dump_) {
    waitForDump();
    receiveDumpOrRaise();
  }
}

void LinuxSource::reread() {
  readOrDegrade();
}

SourceStatus LinuxSource::status() const {
  auto status = status_;
  status.isReading = isReading_;
  status.records = publication_.publisher().counts();
  status.changes = publication_.publisher().changes();
  return status;
}

// A read that is under way may have passed what is to be read: it ends, since it would never end if
// each wish began it anew, and then another one begins.
void LinuxSource::readOrDegrade() {
  if (isReading_) {
    readAgain_ = true;
    return;
  }
  try {
    beginReading(Pace::inRuns);
  } catch (std::runtime_error const & error) {
    readingFailed(error.what());
  }
}

void LinuxSource::beginReading(Pace pace) {
  LUMO_TRACE(traceHandler(), entry, "reading all links");
  isReading_ = true;
  pace_ = pace;
  dumps_ = 0;
  nextFullRead_.reset();
  defaults_ = defaultHopLimits();
  subscribe();
  forgetEvents();
  beginDump();
}

void LinuxSource::beginDump() {
  ++dumps_;
  malformed_ = 0;
  publication_.beginReading();
  dump_.emplace();
  dumpReadable_ = loop_.readable(dump_->descriptor(), [this] { receiveDump(); });
  dumpIsLate_ = loop_.after(patience, [this] { readingFailed(noAnswer); });
}

void LinuxSource::subscribe() {
  if (events_)
    return;
  events_.emplace(receiveBuffer_);
  eventsReadable_ = loop_.readable(events_->descriptor(), [this] { receiveEvents(); });
}

// What has come until now is older than the dump that follows. All of it must go: while any is left
// after an overflow, the kernel drops further events without saying so again. This ends, since the
// kernel needs longer to make an event than we to drop it.
void LinuxSource::forgetEvents() {
  for (;;) {
    auto const received = events_->receive([](std::span<std::byte const>) {});
    if (received == Linux::LinkEvents::Received::nothing)
      return;
    if (received == Linux::LinkEvents::Received::overflow)
      overflows.inc();
  }
}

void LinuxSource::receiveDump() {
  try {
    receiveDumpOrRaise();
  } catch (std::runtime_error const & error) {
    readingFailed(error.what());
  }
}

void LinuxSource::receiveDumpOrRaise() {
  using Received = Linux::LinkDump::Received;
  auto const received =
      dump_->receive([this](std::span<std::byte const> message) { found(message); });
  if (received == Received::messages)
    dumpIsLate_ = loop_.after(patience, [this] { readingFailed(noAnswer); });
  if (received == Received::whole || received == Received::interrupted)
    dumpIsOver(received == Received::whole);
}

// Only at the start, when there is nothing else to do.
void LinuxSource::waitForDump() const {
  pollfd answer{dump_->descriptor(), POLLIN, 0};
  if (::poll(&answer, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) == 0)
    throw std::runtime_error(noAnswer);
}

void LinuxSource::found(std::span<std::byte const> bytes) {
  auto const message = Linux::decodeLink(bytes, defaults_);
  if (auto const * state = std::get_if<Linux::LinkState>(&message))
    publication_.found(*state);
  if (auto const * malformed = std::get_if<Linux::MalformedMessage>(&message)) {
    traceMalformed(*malformed);
    ++malformed_;
    publication_.foundUnreadable(malformed->index); // what is known of it is better than nothing
  }
}

void LinuxSource::dumpIsOver(bool whole) {
  stopDump();
  if (!whole)
    interruptedDumps.inc();
  if (!whole && dumps_ != dumpAttempts)
    return beginDump();
  publication_.endReading(whole, pace_, [this, whole, before = status().changes] {
    if (auto const changes = status().changes - before; changes != 0)
      LUMO_TRACE(traceHandler(), output, "published {} changes", changes);
    readingIsOver(whole);
  });
}

void LinuxSource::readingIsOver(bool whole) {
  isReading_ = false;
  ++status_.fullReads;
  status_.state = SourceStatus::State::inSync;
  status_.lastError.clear();
  if (malformed_ != 0)
    degrade(fmt::format("source linux: {} links cannot be understood: trace LinuxSource:0 says why",
                        malformed_));
  if (!whole)
    degrade("source linux: links come and go too fast to read them all: trying again");
  nextFullRead_ = loop_.after(whole ? fullReadPeriod : retryPeriod, [this] { readOrDegrade(); });
  if (std::exchange(readAgain_, false))
    readOrDegrade();
}

void LinuxSource::readingFailed(std::string_view error) {
  isReading_ = false;
  readAgain_ = false;
  stopDump();
  degrade(error);
  nextFullRead_ = loop_.after(fullReadPeriod, [this] { readOrDegrade(); });
}

void LinuxSource::stopDump() {
  dumpIsLate_.reset();
  dumpReadable_.reset();
  dump_.reset();
}

void LinuxSource::receiveEvents() {
  try {
    receiveEventsOrRaise();
  } catch (std::runtime_error const & error) {
    eventsReadable_.reset(); // the next full read subscribes again
    events_.reset();
    degrade(error.what());
    readAgain_ = isReading_; // the one under way has subscribed already
  }
}

void LinuxSource::receiveEventsOrRaise() {
  using Received = Linux::LinkEvents::Received;
  std::vector<Linux::LinkMessage> messages;
  for (int i = 0; i != receptionsPerTurn; ++i) {
    messages.clear();
    auto const received = events_->receive([&](std::span<std::byte const> bytes) {
      messages.push_back(Linux::decodeLink(bytes, defaults_));
    });
    if (received == Received::nothing)
      return;
    if (received == Received::overflow) {
      overflows.inc();
      return recover("the kernel has dropped events");
    }
    for (auto const & message : messages)
      if (!take(message))
        return recover("an event cannot be understood");
  }
}

bool LinuxSource::take(Linux::LinkMessage const & message) {
  if (auto const * malformed = std::get_if<Linux::MalformedMessage>(&message)) {
    traceMalformed(*malformed);
    return false;
  }
  if (auto const * state = std::get_if<Linux::LinkState>(&message)) {
    if (publication_.linkIs(*state))
      LUMO_TRACE(traceHandler(), output, "link {}: published", state->index);
    else
      LUMO_TRACE(traceHandler(), detail, "link {}: nothing new", state->index);
  }
  return true;
}

void LinuxSource::recover(std::string_view reason) {
  LUMO_TRACE(traceHandler(), fault, "{}, reading all links again", reason);
  resyncs.inc();
  readOrDegrade();
}

void LinuxSource::degrade(std::string_view error) {
  LUMO_TRACE(traceHandler(), fault, "{}", error);
  status_.state = SourceStatus::State::degraded;
  status_.lastError = error;
}

} // namespace Sources
