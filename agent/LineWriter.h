// Whole lines to a stream that nobody may be waiting at: a terminal that was stopped, a pipe whose
// reader has gone or does not read, a full disk. A line that cannot be written at once is lost and
// counted; the daemon never waits for its log, and never fails because of it.
//
// The descriptor is inherited, and shares its flags with whoever else holds it: to make it
// non-blocking would make theirs so. Instead each call is told not to wait where the system can
// tell that to a call (sockets), or goes through a description of our own that is opened anew and
// non-blocking (pipes, terminals). Where that may not be opened, a pipe is asked first whether
// there is room: it says so when a line of PIPE_BUF octets fits.
#pragma once

#include "os/Descriptor.h"
#include <cstdint>
#include <string_view>
#include <sys/stat.h>

namespace Agent {

/// Raises nothing, allocates nothing, blocks nowhere but on a file of a file system that hangs.
class LineWriter {
public:
  /// The longest line with its end, in octets; what is longer is cut. Not larger than PIPE_BUF.
  static constexpr std::size_t longest = 4096;

  /// Writes to the descriptor, which stays the caller's.
  explicit LineWriter(int descriptor) : descriptor_(descriptor) {}

  /// Writes the line and a newline, or loses it. The first line after lost ones is "tunnelsnmpd: N
  /// lines were lost". True if and only if the line was written.
  bool line(std::string_view text) noexcept;

  /// How many were lost until now.
  std::uint64_t lost() const { return lost_; }

private:
  bool put(std::string_view text) noexcept;
  ssize_t writeNow(std::string_view octets) noexcept;
  int writable() noexcept;

  int const descriptor_;
  Os::Descriptor own_;    // the same pipe or terminal, non-blocking
  struct stat opened_ {}; // what own_ was opened for, or was tried to be
  bool isInLine_ = false; // what was written last has no end
  std::uint64_t lost_ = 0;
  std::uint64_t lostUnsaid_ = 0;
};

/// The process's error stream, for everything that it says there.
LineWriter & errorStream() noexcept;

} // namespace Agent
