// The handing over of turns.
#include "os/Coroutine.h"
#include <csignal>
#include <utility>

namespace Os {

namespace {

/// No signal is delivered to a thread that is made while this lives: those of the process belong to
/// the thread that waits for them.
class SignalsBlocked {
public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  SignalsBlocked(SignalsBlocked const &) = delete;
  SignalsBlocked & operator=(SignalsBlocked const &) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
  sigset_t before_;
};

} // namespace

Coroutine::Coroutine(std::function<void(Pause const &)> function) : function_(std::move(function)) {
  SignalsBlocked const blocked;
  thread_ = std::thread([this] { run(); });
}

Coroutine::~Coroutine() {
  unwanted_ = true;
  functionsTurn_.release();
  thread_.join();
}

bool Coroutine::resume() {
  functionsTurn_.release();
  callersTurn_.acquire();
  if (exception_)
    std::rethrow_exception(std::exchange(exception_, nullptr));
  return !over_;
}

bool Coroutine::pause() {
  if (unwanted_)
    return false;
  callersTurn_.release();
  functionsTurn_.acquire();
  return !unwanted_;
}

void Coroutine::run() {
  functionsTurn_.acquire();
  try {
    if (!unwanted_)
      function_(Pause(*this));
  } catch (...) {
    exception_ = std::current_exception();
  }
  over_ = true;
  callersTurn_.release();
}

} // namespace Os
