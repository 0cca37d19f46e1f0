// libevent's loop, one turn at a time. A watch is one libevent event; its callback may end the
// watch that it belongs to, and no exception passes through libevent, which is C.
#include "agent/EventLoop.h"
#include "agent/EventMemory.h"
#include "agent/Report.h"
#include "os/Time.h"
#include <cerrno>
#include <csignal>
#include <cstring>
#include <event2/event.h>
#include <fmt/format.h>
#include <new>
#include <stdexcept>

namespace Agent {

namespace {

Lumo::Counter callbackExceptions("agent-callback-exceptions");
Lumo::Counter libraryMessages("agent-libevent-messages");

/// What fails is told by the one whose call it was, with the system's reason; but of an error
/// libevent ends the process.
void take(int severity, char const * message) {
  libraryMessages.inc();
  if (severity == EVENT_LOG_ERR)
    report(fmt::format("cannot wait for events: {}", message));
}

/// libevent says no more than the system's last error.
std::runtime_error cannotWatch(int error) {
  return std::runtime_error(fmt::format("cannot watch a descriptor: {}",
                                        error != 0 ? std::strerror(error) : "it is not open"));
}

/// One libevent event and whom to call.
class EventWatch final : public Os::Loop::Watch {
public:
  EventWatch(event_base * base, int descriptor, short what, std::function<void()> call)
      : call_(std::make_shared<std::function<void()>>(std::move(call))),
        event_(event_new(base, descriptor, what, &EventWatch::happened, this)) {
    if (event_ == nullptr)
      throw std::bad_alloc();
  }
  EventWatch(EventWatch const &) = delete;
  EventWatch & operator=(EventWatch const &) = delete;
  ~EventWatch() override { event_free(event_); }

  /// Requires: on a null `time`, an event for something else than the time.
  void begin(timeval const * time) {
    errno = 0;
    if (event_add(event_, time) != 0)
      throw cannotWatch(errno);
  }

private:
  static void happened(int, short, void * self) {
    // Held here as well: the call may end the watch.
    auto const call = static_cast<EventWatch *>(self)->call_;
    try {
      (*call)();
    } catch (std::exception const & exception) {
      reportFailure(callbackExceptions, "in an event", exception);
    }
  }

  std::shared_ptr<std::function<void()>> const call_;
  event * const event_;
};

event_base * newBase() {
  keepMemoryForEvents();
  event_set_log_callback(take);
  return event_base_new();
}

Os::Loop::Handle begun(std::unique_ptr<EventWatch> watch, timeval const * time = nullptr) {
  watch->begin(time);
  return watch;
}

} // namespace

void EventLoop::BaseFree::operator()(event_base * base) const {
  event_base_free(base);
}

EventLoop::EventLoop() : base_(newBase()) {
  if (!base_)
    throw std::runtime_error("cannot make an event loop: out of descriptors or memory");
  std::signal(SIGPIPE, SIG_IGN); // libevent writes to connections that may have gone
}
EventLoop::~EventLoop() = default;

Os::Loop::Handle EventLoop::readable(int descriptor, std::function<void()> ready) {
  return begun(
      std::make_unique<EventWatch>(base(), descriptor, EV_READ | EV_PERSIST, std::move(ready)));
}

Os::Loop::Handle EventLoop::writable(int descriptor, std::function<void()> ready) {
  return begun(
      std::make_unique<EventWatch>(base(), descriptor, EV_WRITE | EV_PERSIST, std::move(ready)));
}

Os::Loop::Handle EventLoop::after(std::chrono::milliseconds time, std::function<void()> due) {
  auto const wait = Os::toTimeval(time);
  return begun(std::make_unique<EventWatch>(base(), -1, 0, std::move(due)), &wait);
}

Os::Loop::Handle EventLoop::every(std::chrono::milliseconds time, std::function<void()> due) {
  auto const period = Os::toTimeval(time);
  return begun(std::make_unique<EventWatch>(base(), -1, EV_PERSIST, std::move(due)), &period);
}

Os::Loop::Handle EventLoop::signal(int number, std::function<void()> caught) {
  return begun(
      std::make_unique<EventWatch>(base(), number, EV_SIGNAL | EV_PERSIST, std::move(caught)));
}

void EventLoop::run(std::function<bool()> const & work) {
  stopped_ = false;
  while (!stopped_) {
    auto const more = work();
    // ONCE in both cases: NONBLOCK alone would go on for as long as events keep coming.
    auto const flags = more ? EVLOOP_ONCE | EVLOOP_NONBLOCK : EVLOOP_ONCE;
    // 1: there is no event to wait for, so nothing can happen any more.
    if (event_base_loop(base(), flags) == 1 && !more)
      return;
  }
}

} // namespace Agent
