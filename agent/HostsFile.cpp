// Finds out whether libwrap would read a rule, by the file's stamp, and by its lines when that has
// changed. What is not plain is taken for a rule: libwrap reads the file then, as it always did.
#include "agent/HostsFile.h"
#include "os/Descriptor.h"
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

namespace {

/// Anything but a comment and a blank line. Also a comment that goes on in the next line, and what
/// libwrap complains of: a line that does not end, is long, or holds an octet of zero.
bool isRule(std::string const & line, bool ends) {
  constexpr std::size_t longest = 1000; // not all that libwrap takes, and more than comments need
  auto const decidesNothing = line.starts_with('#') || line.find_first_not_of(" \t") == line.npos;
  return !decidesNothing || !ends || line.ends_with('\\') || line.size() > longest ||
         line.find('\0') != line.npos;
}

bool hasRules(char const * path) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line))
    if (isRule(line, !file.eof()))
      return true;
  return !file.eof(); // it cannot be read
}

/// Of the opened file: a file system of another machine may answer stat() from its memory.
std::optional<struct stat> statusOf(char const * path) {
  Os::Descriptor const descriptor(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!descriptor)
    return std::nullopt;
  struct stat status {};
  return fstat(descriptor.get(), &status) == 0 ? std::optional(status) : std::nullopt;
}

} // namespace

void HostsFile::look(Clock::time_point now) {
  static char none[] = "";
  if (now >= looked_ && now - looked_ < std::chrono::milliseconds(10))
    return;
  looked_ = now;
  table_ = isWithoutRules(now) ? none : path_;
}

bool HostsFile::isWithoutRules(Clock::time_point now) {
  errno = 0;
  auto const status = statusOf(path_);
  outOfDescriptors_ = !status && (errno == EMFILE || errno == ENFILE);
  if (!status || !S_ISREG(status->st_mode) || Clock::to_time_t(now) - status->st_ctim.tv_sec < 2)
    return false;
  Stamp const stamp{status->st_dev, status->st_ino, status->st_size, status->st_ctim.tv_sec,
                    status->st_ctim.tv_nsec};
  if (known_ != stamp) {
    known_ = stamp;
    hasRules_ = hasRules(path_);
  }
  return !hasRules_;
}

} // namespace Agent
