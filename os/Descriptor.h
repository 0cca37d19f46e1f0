// A file descriptor that is closed when its owner goes.
#pragma once

#include <unistd.h>
#include <utility>

namespace Os {

/// Owns one descriptor of the system, or none.
class Descriptor {
public:
  static constexpr int none = -1;

  Descriptor() = default;
  /// Takes the descriptor over; -1, which is how system calls say that they failed, is none.
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor && other) noexcept : number_(other.release()) {}
  Descriptor & operator=(Descriptor && other) noexcept {
    Descriptor before(std::exchange(number_, other.release()));
    return *this;
  }
  /// Leaves errno as it is: the error that is told is the one before.
  ~Descriptor();

  /// True if and only if there is one.
  explicit operator bool() const { return number_ != none; }
  /// The descriptor, which stays ours; -1 for none.
  int get() const { return number_; }
  /// The descriptor, which is the caller's from now on; -1 for none.
  [[nodiscard]] int release() { return std::exchange(number_, none); }

private:
  int number_ = none;
};

} // namespace Os
