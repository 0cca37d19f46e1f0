// From a line to the octets of one call, and which call it is for each kind of file.
#include "agent/LineWriter.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Agent {

namespace {

static_assert(LineWriter::longest <= PIPE_BUF);

Lumo::Counter linesLost("agent-lines-lost");

constexpr std::string_view ellipsis = "...";

bool isSame(struct stat const & one, struct stat const & other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_mode == other.st_mode;
}

/// The same file by a description of our own; none when it may not be opened.
int openAnew(int descriptor) noexcept {
  std::array<char, 32> path{};
  std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", descriptor);
  return open(path.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

/// A signal may come in between.
ssize_t writeTo(int descriptor, std::string_view octets) noexcept {
  ssize_t written = 0;
  do
    written = write(descriptor, octets.data(), octets.size());
  while (written < 0 && errno == EINTR);
  return written;
}

bool hasRoom(int descriptor) noexcept {
  pollfd wanted{.fd = descriptor, .events = POLLOUT, .revents = 0};
  return poll(&wanted, 1, 0) == 1 && (wanted.revents & POLLOUT) != 0;
}

} // namespace

bool LineWriter::line(std::string_view text) noexcept {
  auto const done = put(text);
  if (done)
    lostUnsaid_ = 0;
  else {
    ++lost_;
    ++lostUnsaid_;
    linesLost.inc();
  }
  return done;
}

// The notice goes out with the line that follows it: alone it might take the last of the room.
bool LineWriter::put(std::string_view text) noexcept {
  std::array<char, longest> buffer;
  auto * end = buffer.data();
  if (isInLine_)
    *end++ = '\n';
  if (lostUnsaid_ != 0)
    end += std::snprintf(end, 64, "tunnelsnmpd: %llu lines were lost\n",
                         static_cast<unsigned long long>(lostUnsaid_));
  auto const room = static_cast<std::size_t>(buffer.data() + longest - end) - 1;
  auto const whole = text.size() <= room;
  end = std::ranges::copy(text.substr(0, whole ? room : room - ellipsis.size()), end).out;
  if (!whole)
    end = std::ranges::copy(ellipsis, end).out;
  *end++ = '\n';
  auto const size = end - buffer.data();
  auto const written = writeNow({buffer.data(), static_cast<std::size_t>(size)});
  if (written > 0)
    isInLine_ = written != size;
  return written == size;
}

ssize_t LineWriter::writeNow(std::string_view octets) noexcept {
  struct stat is {};
  if (fstat(descriptor_, &is) != 0)
    return -1;
  if (S_ISSOCK(is.st_mode))
    return send(descriptor_, octets.data(), octets.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (S_ISREG(is.st_mode))
    return writeTo(descriptor_, octets);
  // It may have become another file since the last time.
  if (!isSame(is, opened_)) {
    opened_ = is;
    own_ = Os::Descriptor(openAnew(descriptor_));
  }
  auto const to = writable();
  return to == Os::Descriptor::none ? -1 : writeTo(to, octets);
}

int LineWriter::writable() noexcept {
  if (own_)
    return own_.get();
  return hasRoom(descriptor_) ? descriptor_ : Os::Descriptor::none;
}

LineWriter & errorStream() noexcept {
  static LineWriter stream(STDERR_FILENO);
  return stream;
}

} // namespace Agent
