// Subscribes, reads everything, applies events; and begins again whenever something may be missing.
//
// Traces under "LinuxSource": 0 faults and losses, 7 what is published, 8 full reads, 9 messages
// that change nothing.
#include "sources/linux/LinuxSource.h"
#include "platform/Lumo.h"
#include <fmt/format.h>
#include <fstream>
#include <new>
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
std::runtime_error noAnswer() {
  return std::runtime_error("source linux: cannot read the links: the kernel does not answer");
}
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
                         int receiveBuffer, std::function<Os::Descriptor()> ask)
    : options_(options),
      loop_(surroundings.loop),
      receiveBuffer_(receiveBuffer),
      ask_(std::move(ask)),
      health_([this, changed = surroundings.stateChanged] {
        if (changed)
          changed(*this);
      }),
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
  return {.state = health_.state(),
          .isReading = isReading_,
          .lastError = health_.lastError(),
          .records = publication_.publisher().counts(),
          .fullReads = fullReads_,
          .changes = publication_.publisher().changes()};
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
  } catch (std::exception const & exception) {
    readingFailed(exception);
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
  dump_.emplace(ask_());
  dumpReadable_ = loop_.readable(dump_->descriptor(), [this] { receiveDump(); });
  dumpIsLate_ = loop_.after(patience, [this] { readingFailed(noAnswer()); });
}

// A socket without a watch is none: there was no memory for it.
void LinuxSource::subscribe() {
  if (eventsReadable_)
    return;
  events_.emplace(receiveBuffer_);
  eventsReadable_ = loop_.readable(events_->descriptor(), [this] { receiveEvents(); });
}

// What has come until now is older than the dump that follows. All of it must go: while any is left
// after an overflow, the kernel drops further events without saying so again. This ends, since the
// kernel needs longer to make an event than we to drop it.
void LinuxSource::forgetEvents() {
  for (;;) {
    auto const received = receiveOrUnsubscribe([](std::span<std::byte const>) {});
    if (received == Linux::LinkEvents::Received::nothing)
      return;
    if (received == Linux::LinkEvents::Received::overflow)
      overflows.inc();
  }
}

// After an exception nobody knows what the socket still has: the next full read takes a new one.
Linux::LinkEvents::Received LinuxSource::receiveOrUnsubscribe(Linux::TakeMessage const & take) {
  try {
    return events_->receive(take);
  } catch (...) {
    eventsReadable_.reset();
    events_.reset();
    throw;
  }
}

void LinuxSource::receiveDump() {
  try {
    receiveDumpOrRaise();
  } catch (std::exception const & exception) {
    readingFailed(exception);
  }
}

void LinuxSource::receiveDumpOrRaise() {
  using Received = Linux::LinkDump::Received;
  auto const received =
      dump_->receive([this](std::span<std::byte const> message) { found(message); });
  if (received == Received::messages)
    dumpIsLate_ = loop_.after(patience, [this] { readingFailed(noAnswer()); });
  if (received == Received::whole || received == Received::interrupted)
    dumpIsOver(received == Received::whole);
}

// Only at the start, when there is nothing else to do.
void LinuxSource::waitForDump() const {
  pollfd answer{dump_->descriptor(), POLLIN, 0};
  if (::poll(&answer, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) == 0)
    throw noAnswer();
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
  auto const done = [this, whole, before = publication_.publisher().changes()] {
    if (auto const changes = publication_.publisher().changes() - before; changes != 0)
      LUMO_TRACE(traceHandler(), output, "published {} changes", changes);
    readingIsOver(whole);
  };
  publication_.endReading(whole, pace_, done,
                          [this](std::exception const & reason) { readingFailed(reason); });
}

void LinuxSource::readingIsOver(bool whole) {
  try {
    readIn(whole ? fullReadPeriod : retryPeriod);
    isReading_ = false;
    ++fullReads_;
    tellHealth(whole);
  } catch (std::bad_alloc const & shortage) {
    return readingFailed(shortage);
  }
  if (std::exchange(readAgain_, false))
    readOrDegrade();
}

void LinuxSource::tellHealth(bool whole) {
  if (!whole)
    degrade("source linux: links come and go too fast to read them all: trying again");
  else if (malformed_ != 0)
    degrade(fmt::format("source linux: {} links cannot be understood: trace LinuxSource:0 says why",
                        malformed_));
  else
    health_.inSyncIs();
}

void LinuxSource::readingFailed(std::exception const & reason) {
  isReading_ = false;
  readAgain_ = false; // which the next one does
  stopDump();
  degrade(reasonOf(reason));
  readIn(retryPeriod);
}

void LinuxSource::readIn(std::chrono::milliseconds time) {
  nextFullRead_ = loop_.after(time, [this] { readOrDegrade(); });
}

void LinuxSource::stopDump() {
  dumpIsLate_.reset();
  dumpReadable_.reset();
  dump_.reset();
}

void LinuxSource::receiveEvents() {
  try {
    receiveEventsOrRaise();
  } catch (std::exception const & exception) {
    eventsFailed(exception);
  }
}

void LinuxSource::receiveEventsOrRaise() {
  using Received = Linux::LinkEvents::Received;
  std::vector<Linux::LinkMessage> messages;
  for (int i = 0; i != receptionsPerTurn; ++i) {
    messages.clear();
    auto const received = receiveOrUnsubscribe([&](std::span<std::byte const> bytes) {
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

// One that is under way has subscribed already, so another one follows it.
void LinuxSource::eventsFailed(std::exception const & reason) {
  degrade(reasonOf(reason));
  readAgain_ = isReading_;
  if (!isReading_)
    readIn(retryPeriod);
}

void LinuxSource::degrade(std::string_view error) {
  LUMO_TRACE(traceHandler(), fault, "{}", error);
  health_.degradedIs(error);
}

} // namespace Sources
