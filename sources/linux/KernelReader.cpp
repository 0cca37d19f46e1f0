// A dump is received one part in a turn of the loop; events have their turns between.
//
// Traces under its user's name: 0 losses, 8 full reads.
#include "sources/linux/KernelReader.h"
#include "sources/Health.h"
#include <fmt/format.h>
#include <new>
#include <poll.h>
#include <utility>

namespace Sources::Linux {
namespace {

constexpr int fault = 0;
constexpr int entry = 8;

/// How often a dump is taken again at once when things come and go meanwhile.
constexpr int dumpAttempts = 5;
/// For how long events are received before others on the thread have their turn; as long as a task
/// may run. One event may concern many tunnels.
constexpr std::chrono::milliseconds shareOfATurn{2};

Lumo::Counter overflows("linux-overflows");
Lumo::Counter interruptedDumps("linux-dumps-interrupted");
Lumo::Counter resyncs("linux-resyncs");

} // namespace

void KernelReader::readNow() {
  lastResort_ = settings_.loop.every(settings_.period, [this] {
    if (!isReading_ && !nextFullRead_)
      read();
  });
  beginReading(Pace::atOnce);
  while (dump_) {
    waitForDump();
    receiveDumpOrRaise();
  }
}

// It would never end if each wish began it anew.
void KernelReader::read() {
  if (isReading_) {
    readAgain_ = true;
    return;
  }
  try {
    beginReading(Pace::inRuns);
  } catch (std::exception const & exception) {
    failed(exception);
  }
}

void KernelReader::published() {
  try {
    readIn(whole_ ? settings_.period : retryPeriod);
    isReading_ = false;
    ++fullReads_;
    tellHealth();
  } catch (std::bad_alloc const & shortage) {
    return failed(shortage);
  }
  if (std::exchange(readAgain_, false))
    read();
}

void KernelReader::failed(std::exception const & reason) {
  isReading_ = false;
  readAgain_ = false; // which the next one does
  stopDump();
  auto const retryAfter = user_.retryAfter(reason);
  user_.isDegraded(reasonOf(reason));
  readIn(retryAfter);
}

void KernelReader::beginReading(Pace pace) {
  LUMO_TRACE(settings_.trace, entry, "reading all {}", settings_.subject.things);
  isReading_ = true;
  pace_ = pace;
  dumps_ = 0;
  nextFullRead_.reset();
  subscribe();
  forgetEvents();
  beginDump();
}

void KernelReader::beginDump() {
  ++dumps_;
  malformed_ = 0;
  user_.dumpBegins();
  dump_.emplace(settings_.subject, settings_.ask ? settings_.ask() : askForAll(settings_.subject),
                settings_.buffer);
  dumpReadable_ = settings_.loop.readable(dump_->descriptor(), [this] { receiveDump(); });
  expectAnswer();
}

// A socket without a watch is none: there was no memory for it.
void KernelReader::subscribe() {
  if (eventsReadable_)
    return;
  events_.emplace(settings_.subject, settings_.kernelBuffer, settings_.buffer);
  eventsReadable_ = settings_.loop.readable(events_->descriptor(), [this] { receiveEvents(); });
}

// What has come until now is older than the dump that follows. All of it must go: while any is left
// after an overflow, the kernel drops further events without saying so again. This ends, since the
// kernel needs longer to make an event than we to drop it.
void KernelReader::forgetEvents() {
  for (;;) {
    auto const received = receiveOrUnsubscribe([](Bytes) {});
    if (received == NetlinkEvents::Received::nothing)
      return;
    if (received == NetlinkEvents::Received::overflow)
      overflows.inc();
  }
}

// After an exception nobody knows what the socket still has: the next full read takes a new one.
NetlinkEvents::Received KernelReader::receiveOrUnsubscribe(TakeMessage const & take) {
  try {
    return events_->receive(take);
  } catch (...) {
    eventsReadable_.reset();
    events_.reset();
    throw;
  }
}

void KernelReader::receiveDump() {
  try {
    receiveDumpOrRaise();
  } catch (std::exception const & exception) {
    failed(exception);
  }
}

void KernelReader::receiveDumpOrRaise() {
  using Received = NetlinkDump::Received;
  auto const received = dump_->receive([this](Bytes message) {
    if (!user_.found(message))
      ++malformed_;
  });
  if (received == Received::messages)
    expectAnswer();
  if (received == Received::whole || received == Received::interrupted)
    dumpIsOver(received == Received::whole);
}

void KernelReader::expectAnswer() {
  dumpIsLate_ = settings_.loop.after(patience, [this] { failed(noAnswer()); });
}

// Only at the start, when there is nothing else to do.
void KernelReader::waitForDump() const {
  pollfd answer{dump_->descriptor(), POLLIN, 0};
  if (::poll(&answer, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) == 0)
    throw noAnswer();
}

void KernelReader::dumpIsOver(bool whole) {
  stopDump();
  if (!whole)
    interruptedDumps.inc();
  if (!whole && dumps_ != dumpAttempts)
    return beginDump();
  whole_ = whole;
  user_.dumpEnds(whole, pace_);
}

void KernelReader::tellHealth() {
  auto const * const things = settings_.subject.things;
  if (!whole_)
    user_.isDegraded(fmt::format(
        "source linux: {} come and go too fast to read them all: trying again", things));
  else if (malformed_ != 0)
    user_.isDegraded(fmt::format("source linux: {} {} cannot be understood: trace {}:0 says why",
                                 malformed_, things, settings_.trace.name()));
  else
    user_.isInSync();
}

void KernelReader::readIn(std::chrono::milliseconds time) noexcept {
  try {
    nextFullRead_ = settings_.loop.after(time, [this] { read(); });
  } catch (std::bad_alloc const &) {
    nextFullRead_.reset(); // the last resort comes then
  }
}

void KernelReader::stopDump() {
  dumpIsLate_.reset();
  dumpReadable_.reset();
  dump_.reset();
}

NetlinkError KernelReader::noAnswer() const {
  return {fmt::format("source linux: cannot read the {}: the kernel does not answer",
                      settings_.subject.things),
          NetlinkError::Reason::other};
}

void KernelReader::receiveEvents() {
  try {
    receiveEventsOrRaise();
  } catch (std::exception const & exception) {
    eventsFailed(exception);
  }
}

void KernelReader::receiveEventsOrRaise() {
  using Received = NetlinkEvents::Received;
  auto const end = std::chrono::steady_clock::now() + shareOfATurn;
  do {
    auto isUnderstood = true;
    auto const received = receiveOrUnsubscribe(
        [&](Bytes message) { isUnderstood = isUnderstood && user_.heard(message); });
    if (received == Received::nothing)
      return;
    if (received == Received::overflow) {
      overflows.inc();
      return recover("the kernel has dropped events");
    }
    if (!isUnderstood)
      return recover("an event cannot be understood");
  } while (std::chrono::steady_clock::now() < end);
}

void KernelReader::recover(std::string_view reason) {
  LUMO_TRACE(settings_.trace, fault, "{}, reading all {} again", reason, settings_.subject.things);
  resyncs.inc();
  read();
}

// One that is under way has subscribed already, so another one follows it.
void KernelReader::eventsFailed(std::exception const & reason) {
  user_.isDegraded(reasonOf(reason));
  readAgain_ = isReading_;
  if (!isReading_)
    readIn(retryPeriod);
}

} // namespace Sources::Linux
