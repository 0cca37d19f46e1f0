// What a part of the program needs of the process's event loop. The daemon gives the real one; a
// test gives one whose time and descriptors it drives itself.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace Os {

/// Calls back, on the one thread, never from inside a call of its own methods.
class Loop {
public:
  /// A wish to be called; ends with its destruction, also from inside the call itself.
  class Watch {
  public:
    virtual ~Watch() = default;
  };
  using Handle = std::unique_ptr<Watch>;

  virtual ~Loop() = default;
  /// Calls `ready` whenever the descriptor can be read without blocking, or has an error.
  [[nodiscard]] virtual Handle readable(int descriptor, std::function<void()> ready) = 0;
  /// Calls `ready` whenever the descriptor can be written without blocking, or has an error: for as
  /// long as the watch lives, so its owner ends it when there is nothing left to write.
  [[nodiscard]] virtual Handle writable(int descriptor, std::function<void()> ready) = 0;
  /// Calls `due` once, when the time is over.
  [[nodiscard]] virtual Handle after(std::chrono::milliseconds time, std::function<void()> due) = 0;
  /// Calls `due` each time that so much time is over, and needs no memory for it any more.
  [[nodiscard]] virtual Handle every(std::chrono::milliseconds time, std::function<void()> due) = 0;
};

} // namespace Os
