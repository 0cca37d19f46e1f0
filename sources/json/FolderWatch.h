// Hears when a file of a folder may have changed (inotify).
#pragma once

#include "os/Descriptor.h"
#include "os/Loop.h"
#include <cstdint>
#include <functional>
#include <string>

namespace Sources {

/// Watches from its construction to its destruction. "Changed" means: created, written and closed,
/// moved here or away, removed, given other rights, or an unknown number of changes was lost.
class FolderWatch {
public:
  /// Calls `changed`, once for everything that has piled up since. It may destroy the watch.
  /// Raises std::system_error when the folder cannot be watched.
  FolderWatch(std::string const & folder, std::string file, Os::Loop & loop,
              std::function<void()> changed);
  FolderWatch(FolderWatch const &) = delete;
  FolderWatch & operator=(FolderWatch const &) = delete;

  /// False once the folder has been removed, moved or unmounted: nothing more will be heard.
  bool isAlive() const { return alive_; }

private:
  void onReadable();
  bool drain();
  bool concerns(std::uint32_t mask, char const * name);

  std::string const file_;
  std::function<void()> const changed_;
  Os::Descriptor const descriptor_; // before its watch, which must go first
  bool alive_ = true;
  Os::Loop::Handle watch_;
};

} // namespace Sources
