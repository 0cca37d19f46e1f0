// net-snmp inside the daemon's event loop: a stand-alone master agent, or an AgentX subagent.
//
// net-snmp keeps its state in the process, so there is one engine at a time. It writes no file,
// reads none but the configuration that it is given and libwrap's two, and opens no port but the
// one that it is told.
#pragma once

#include "agent/HostsFile.h"
#include "agent/SnmpEndpoint.h"
#include "os/Descriptor.h"
#include "os/Loop.h"
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

struct SnmpSettings {
  std::string configFile;            ///< empty: community "public" may read from 127.0.0.1
  std::optional<std::string> agentx; ///< the master's socket; nothing: stand-alone
};

/// Life cycle: constructed, then the MIB modules register, then listen(); at the end stopServing(),
/// then the MIB modules unregister, then it is destroyed. Within construction a subagent connects
/// to its master; one that finds none tries again every few seconds.
class SnmpEngine {
public:
  /// Starts net-snmp and reads the configuration. Raises ConfigurationError, one line, for a file
  /// that cannot be read or has a line that is not understood.
  SnmpEngine(Os::Loop & loop, SnmpSettings settings);
  SnmpEngine(SnmpEngine const &) = delete;
  SnmpEngine & operator=(SnmpEngine const &) = delete;
  ~SnmpEngine();

  /// Begins to serve: at `address` when stand-alone, else through the master. Returns where, with
  /// the real port: "udp:127.0.0.1:1161", "agentx:/var/agentx/master". Raises std::runtime_error
  /// when the address cannot be had.
  std::string listen(std::string const & address);

  /// Answers nobody from now on. A subagent hangs up: its master drops what it registered, and the
  /// MIB modules can unregister without an answer that a stuck master would never give.
  void stopServing();

  /// Replaces the configuration by the one that stands in the file now. Raises
  /// ConfigurationError as the constructor does; the lines that were understood are in force then,
  /// all of the old ones when the file could not be read.
  void reread();

private:
  class Log;
  struct Watched {
    unsigned long inode; // tells a descriptor from a new one with the same number, or 0
    Os::Loop::Handle watch;
  };

  void setUp();
  void shutDown();
  void checkReadable() const;
  void requireUnderstood(std::vector<std::string> const & complaints) const;
  void read(int descriptor);
  void timeOut();
  void update();
  void watchDescriptor(int descriptor, std::map<int, Watched> & before);
  unsigned long inodeOf(int descriptor) const;

  Os::Loop & loop_;
  SnmpSettings const settings_;
  std::unique_ptr<Log> log_;
  std::array<HostsFile, 2> hostsFiles_;
  Os::Descriptor spare_;                   // for libwrap, when there is no other
  std::unique_ptr<SnmpEndpoint> endpoint_; // where it listens, when stand-alone
  Os::Loop::Handle acceptAgain_;           // while connections wait there that cannot be accepted
  std::map<int, Watched> watched_;
  Os::Loop::Handle timer_;
};

} // namespace Agent
