// The handlers call only what may be called there (signal-safety(7)), and find what they need in
// variables that are set before the signals are.
#include "agent/EndSignals.h"
#include "os/UnixAddress.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <poll.h>
#include <stdexcept>
#include <string_view>
#include <sys/eventfd.h>
#include <tuple>
#include <unistd.h>

namespace Agent {

namespace {

// With what the system takes to end a process, it is over within a second.
#ifdef SANITIZED
constexpr itimerspec patience{.it_interval = {}, .it_value = {.tv_sec = 60, .tv_nsec = 0}};
#else
constexpr itimerspec patience{.it_interval = {}, .it_value = {.tv_sec = 0, .tv_nsec = 700'000'000}};
#endif

constexpr std::array ending{SIGTERM, SIGINT, SIGQUIT};
constexpr std::array ignored{SIGUSR1, SIGUSR2};

std::atomic<int> eventDescriptor = Os::Descriptor::none;
timer_t deadline;
std::array<char, Os::UnixAddress::longestPath + 1> file{};
std::atomic<bool> hasFile = false;
std::atomic<bool> isAsked = false;
std::atomic<bool> undoing = false; // what is left to do only gives memory back

void asked(int) {
  auto const error = errno;
  std::uint64_t const one = 1;
  std::ignore = write(eventDescriptor, &one, sizeof one);
  if (!isAsked.exchange(true)) // who asks again waits no longer for it
    timer_settime(deadline, 0, &patience, nullptr);
  errno = error;
}

void say(std::string_view line) {
  pollfd stream{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  if (poll(&stream, 1, 0) == 1)
    std::ignore = write(STDERR_FILENO, line.data(), line.size());
}

/// Only the timer ends the daemon: an alarm that somebody sends does nothing.
void deadlineIsOver(int, siginfo_t * information, void *) {
  if (information->si_code != SI_TIMER)
    return;
  if (hasFile)
    unlink(file.data());
  if (!undoing)
    say("tunnelsnmpd: ended in the middle of a long step\n");
  _exit(0);
}

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

void handleDeadline() {
  struct sigaction action {};
  action.sa_sigaction = &deadlineIsOver;
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  sigaction(SIGALRM, &action, nullptr);
}

/// The process that started this one may have blocked them, which is inherited.
void unblock() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGALRM);
  for (auto const number : ending)
    sigaddset(&signals, number);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

timer_t newTimer() {
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGALRM;
  timer_t timer{};
  if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0)
    throw std::runtime_error("cannot make a timer: out of resources");
  return timer;
}

} // namespace

EndSignals::EndSignals(EventLoop & loop)
    : loop_(loop),
      event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_(newTimer()),
      watch_(loop.readable(event_.get(), [this] { noticed(); })) {
  eventDescriptor = event_.get();
  deadline = timer_;
  isAsked = false;
  undoing = false;
  handleDeadline();
  for (auto const number : ending)
    handle(number, &asked);
  for (auto const number : ignored)
    handle(number, SIG_IGN);
  unblock();
}

EndSignals::~EndSignals() {
  for (auto const number : ending)
    handle(number, SIG_DFL);
  for (auto const number : ignored)
    handle(number, SIG_DFL);
  timer_delete(timer_);
  handle(SIGALRM, SIG_DFL);
}

void EndSignals::fileIs(std::string_view path) {
  hasFile = false;
  *std::ranges::copy(path, file.data()).out = '\0';
  hasFile = !path.empty();
}

void EndSignals::noticed() {
  undoing = true;
  watch_.reset();
  loop_.stop();
}

} // namespace Agent
