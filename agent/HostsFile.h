// net-snmp has libwrap read /etc/hosts.allow and /etc/hosts.deny for every packet, which takes more
// system calls than all the rest. Most such files hold comments at most, and decide nothing.
#pragma once

#include <chrono>
#include <optional>
#include <sys/types.h>

namespace Agent {

/// One of libwrap's two files. While it holds no rule, and has not changed just now, libwrap is
/// told of none to read in its place: a missing file and one without rules mean the same
/// (hosts_access(5)). A new rule counts a hundredth of a second later at most.
class HostsFile {
public:
  /// `table` is libwrap's variable for the file's path. It gets its value back at the end.
  explicit HostsFile(char *& table) : table_(table), path_(table) {}
  HostsFile(HostsFile const &) = delete;
  HostsFile & operator=(HostsFile const &) = delete;
  ~HostsFile() { table_ = path_; }

  using Clock = std::chrono::system_clock; // the one of the files' times

  /// To be called before libwrap is asked. Does nothing within a hundredth of a second since it did
  /// something: a look costs a tenth of what a packet does. A file that has changed within the last
  /// second may do so again and look the same: it is left to libwrap.
  void look(Clock::time_point now);
  /// True if and only if the last look found no descriptor to look with: libwrap will not either.
  bool isOutOfDescriptors() const { return outOfDescriptors_; }

private:
  /// What tells a file from another one, and from itself when it has changed.
  struct Stamp {
    dev_t device;
    ino_t inode;
    off_t size;
    time_t changedSeconds;
    long changedNanoseconds;
    bool operator==(Stamp const &) const = default;
  };

  bool isWithoutRules(Clock::time_point now);

  char *& table_;
  char * const path_;
  Clock::time_point looked_;
  std::optional<Stamp> known_; // what was read last
  bool hasRules_ = true;       // and what it held
  bool outOfDescriptors_ = false;
};

} // namespace Agent
