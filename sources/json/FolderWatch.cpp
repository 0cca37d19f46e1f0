// The inotify side of the JSON source.
#include "sources/json/FolderWatch.h"
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>

namespace Sources {

namespace {

constexpr std::uint32_t fileEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_ATTRIB;

std::system_error failure(char const * what) {
  return std::system_error(errno, std::generic_category(), what);
}

} // namespace

FolderWatch::FolderWatch(std::string const & folder, std::string file, Os::Loop & loop,
                         std::function<void()> changed)
    : file_(std::move(file)),
      changed_(std::move(changed)),
      descriptor_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!descriptor_)
    throw failure("inotify_init1");
  if (::inotify_add_watch(descriptor_.get(), folder.c_str(),
                          fileEvents | IN_MOVE_SELF | IN_ONLYDIR) < 0)
    throw failure("inotify_add_watch");
  watch_ = loop.readable(descriptor_.get(), [this] { onReadable(); });
}

void FolderWatch::onReadable() {
  if (!drain())
    return;
  auto const changed = changed_; // it may destroy this
  changed();
}

// Takes every event that waits. True if and only if one of them concerns the file.
bool FolderWatch::drain() {
  alignas(inotify_event) std::array<char, 16 * 1024> buffer;
  bool concerned = false;
  for (;;) {
    auto const size = ::read(descriptor_.get(), buffer.data(), buffer.size());
    if (size <= 0)
      return concerned;
    for (auto at = std::size_t{0}; at < static_cast<std::size_t>(size);) {
      inotify_event event;
      std::memcpy(&event, buffer.data() + at, sizeof event);
      auto const * name = event.len == 0 ? "" : buffer.data() + at + sizeof event;
      concerned |= concerns(event.mask, name);
      at += sizeof event + event.len;
    }
  }
}

bool FolderWatch::concerns(std::uint32_t mask, char const * name) {
  if (mask & (IN_IGNORED | IN_MOVE_SELF))
    alive_ = false;
  return !alive_ || (mask & IN_Q_OVERFLOW) || file_ == name;
}

} // namespace Sources
