// One turn after the other, none of which waits.
//
// libevent tells neither its poller's descriptor nor when its next timer is due. The first is the
// lowest free one at the moment at which the loop is made, as POSIX has it for every new
// descriptor, and is tried out. The second is found among the events, whose times are told as times
// of day: measured from an event whose time is known, so that a clock that is set plays no part.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/fd_event_manager.h>

#include "agent/Report.h"
#include "dlmod/GuestLoop.h"
#include "os/Time.h"
#include <algorithm>
#include <cstdint>
#include <event2/event.h>
#include <fcntl.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <tuple>

namespace Dlmod {

namespace {

Lumo::Counter turnExceptions("dlmod-turn-exceptions");

/// No timer is longer.
constexpr std::chrono::hours longestTime{24};

int lowestFreeDescriptor();
bool isPoller(int descriptor);
Os::Descriptor newTimer();
std::chrono::microseconds between(timeval const & from, timeval const & to);

} // namespace

GuestLoop::Watch::Watch(int descriptor, GuestLoop & owner) : descriptor_(descriptor) {
  auto const ready = [](int, void * self) { static_cast<GuestLoop *>(self)->turn(); };
  if (register_readfd(descriptor, ready, &owner) != FD_REGISTERED_OK)
    throw std::runtime_error("snmpd watches no more descriptors: unload another module");
}

GuestLoop::Watch::~Watch() {
  unregister_readfd(descriptor_);
}

void GuestLoop::EventFree::operator()(event * one) const {
  event_free(one);
}

GuestLoop::GuestLoop(std::function<bool()> work)
    : work_(std::move(work)),
      lowest_(lowestFreeDescriptor()),
      mark_(event_new(
          loop_.base(), -1, 0, [](evutil_socket_t, short, void *) {}, nullptr)),
      timer_(newTimer()),
      events_(lowest_, *this),
      time_(timer_.get(), *this) {
  if (!mark_ || !isPoller(lowest_))
    throw std::runtime_error("cannot make an event loop: out of memory, or libevent does not poll "
                             "by epoll");
  wakeAfter({});
}

GuestLoop::~GuestLoop() = default;

// Called from C: nothing may be raised.
void GuestLoop::turn() {
  try {
    std::uint64_t count = 0;
    std::ignore = read(timer_.get(), &count, sizeof count);
    wakeAfter(takeTurn() ? std::chrono::nanoseconds(0) : untilNextTimer());
  } catch (std::exception const & exception) {
    Agent::reportFailure(turnExceptions, "in a turn", exception);
    wakeAfter(std::chrono::seconds(1));
  }
}

/// True if and only if there is more to do at once. The work comes last: events schedule tasks, of
/// which nothing else would tell.
bool GuestLoop::takeTurn() {
  event_base_loop(loop_.base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
  auto const more = work_();
  return more || event_base_get_num_events(loop_.base(), EVENT_BASE_COUNT_ACTIVE) != 0;
}

std::chrono::nanoseconds GuestLoop::untilNextTimer() {
  auto const time = Os::toTimeval(longestTime);
  timeval end{};
  if (event_add(mark_.get(), &time) != 0 || event_pending(mark_.get(), EV_TIMEOUT, &end) == 0)
    throw std::runtime_error("out of memory for a timer");
  auto first = end;
  auto const takeEarlier = [](event_base const *, event const * one, void * earliest) {
    timeval due{};
    auto & until = *static_cast<timeval *>(earliest);
    if (event_pending(one, EV_TIMEOUT, &due) != 0 && evutil_timercmp(&due, &until, <))
      until = due;
    return 0;
  };
  event_base_foreach_event(loop_.base(), takeEarlier, &first);
  return longestTime - between(first, end);
}

// A time of zero would stop the timer.
void GuestLoop::wakeAfter(std::chrono::nanoseconds time) {
  using namespace std::chrono_literals;
  auto const wait = std::max<std::chrono::nanoseconds>(time, 1ns);
  itimerspec const when{.it_interval = {},
                        .it_value = {.tv_sec = wait / 1s, .tv_nsec = (wait % 1s).count()}};
  timerfd_settime(timer_.get(), 0, &when, nullptr);
}

namespace {

int lowestFreeDescriptor() {
  Os::Descriptor const probe(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!probe)
    throw std::runtime_error("cannot make an event loop: out of descriptors");
  return probe.get();
}

bool isPoller(int descriptor) {
  auto const other = newTimer();
  epoll_event nothing{};
  return epoll_ctl(descriptor, EPOLL_CTL_ADD, other.get(), &nothing) == 0 &&
         epoll_ctl(descriptor, EPOLL_CTL_DEL, other.get(), nullptr) == 0;
}

Os::Descriptor newTimer() {
  Os::Descriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!timer)
    throw std::runtime_error("cannot make a timer: out of descriptors");
  return timer;
}

std::chrono::microseconds between(timeval const & from, timeval const & to) {
  timeval difference{};
  evutil_timersub(&to, &from, &difference);
  return std::chrono::seconds(difference.tv_sec) + std::chrono::microseconds(difference.tv_usec);
}

} // namespace

} // namespace Dlmod
