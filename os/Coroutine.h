// A function that pauses in the middle and goes on later: for work inside a library that calls us
// back and has no way to be left and entered again, such as a parser.
//
// The function has a thread of its own, for its stack alone. The thread and the one that resumes it
// take turns strictly: one waits while the other works, so nothing needs a lock and the program
// stays one of a single thread in all but name. A thread is the one kind of second stack that
// sanitizers, debuggers and thread-local variables of libraries know; a turn costs some
// microseconds, which is nothing beside a share of two milliseconds.
#pragma once

#include <exception>
#include <functional>
#include <semaphore>
#include <thread>

namespace Os {

/// Life cycle: constructed, resumed until it is over or no longer wanted, destroyed. All of it by
/// one thread, and never from inside the function.
class Coroutine {
public:
  /// The function's side.
  class Pause {
  public:
    /// Lets the caller of resume() go on, and returns when it calls again. False when nobody will:
    /// the function must return soon then, and is not paused any more.
    [[nodiscard]] bool operator()() const { return owner_.pause(); }

  private:
    friend class Coroutine;
    explicit Pause(Coroutine & owner) : owner_(owner) {}
    Coroutine & owner_;
  };

  /// Nothing is called before the first resume(). Raises std::system_error when there is no thread
  /// to be had.
  explicit Coroutine(std::function<void(Pause const & pause)> function);
  Coroutine(Coroutine const &) = delete;
  Coroutine & operator=(Coroutine const &) = delete;
  /// Has a function that is under way return: its pause() gives false. What it raises then is lost.
  ~Coroutine();

  /// Lets the function work until it pauses or returns. True if and only if it has paused. Raises
  /// what the function raised. Requires: it is not over.
  bool resume();
  /// True if and only if the function has returned or raised.
  bool isOver() const { return over_; }

private:
  bool pause();
  void run();

  std::function<void(Pause const &)> const function_;
  std::binary_semaphore functionsTurn_{0};
  std::binary_semaphore callersTurn_{0};
  // Each is written by the side whose turn it is, so the semaphores order the accesses.
  bool unwanted_ = false;
  bool over_ = false;
  std::exception_ptr exception_;
  std::thread thread_; // last: begins when all else is there
};

} // namespace Os
