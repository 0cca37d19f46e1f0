// net-snmp inside the daemon's event loop: stand-alone, or behind an AgentX master, to which a
// session of our own leads (agent/agentx/).
//
// net-snmp keeps its state in the process, so there is one engine at a time. It writes no file,
// reads none but the configuration that it is given and libwrap's two, and opens no port but the
// one that it is told.
#pragma once

#include "agent/HostsFile.h"
#include "agent/SnmpEndpoint.h"
#include "agent/agentx/SessionStatus.h"
#include "os/Descriptor.h"
#include "os/Loop.h"
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

namespace AgentX {
class Subagent;
} // namespace AgentX

struct SnmpSettings {
  std::string configFile;            ///< empty: community "public" may read from 127.0.0.1
  std::optional<std::string> agentx; ///< where the master is; nothing: stand-alone
};

/// Life cycle: constructed, then the MIB modules register, then listen(); at the end
/// stopServing(), then the MIB modules unregister, then it is destroyed. Of an AgentX master
/// nothing is expected at any time: it may come, go, or be stuck.
class SnmpEngine {
public:
  /// Starts net-snmp and reads the configuration. Raises ConfigurationError, one line, for a file
  /// that cannot be read or has a line that is not understood, and for a master's address that is
  /// none.
  SnmpEngine(Os::Loop & loop, SnmpSettings settings);
  SnmpEngine(SnmpEngine const &) = delete;
  SnmpEngine & operator=(SnmpEngine const &) = delete;
  ~SnmpEngine();

  /// Begins to serve: at `address` when stand-alone, else through the master. Returns where, with
  /// the real port: "udp:127.0.0.1:1161", "agentx:/var/agentx/master". Raises std::runtime_error
  /// when the address cannot be had.
  std::string listen(std::string const & address);

  /// Answers nobody from now on. A subagent hangs up: its master drops what it registered.
  void stopServing();

  /// What there is to tell of the session with the AgentX master; null when stand-alone. Lives as
  /// long as the engine.
  AgentX::SessionStatus const * agentx() const;

  /// Replaces the configuration by the one that stands in the file now. Raises
  /// ConfigurationError as the constructor does; the lines that were understood are in force
  /// then, all of the old ones when the file could not be read.
  void reread();

private:
  class Log;
  using Watches = std::map<int, Os::Loop::Handle>;

  void setUp();
  void configure();
  void begin();
  void shutDown();
  void checkReadable() const;
  void requireUnderstood(std::vector<std::string> const & complaints) const;
  void read(int descriptor);
  void timeOut();
  void settle();
  void update();
  void watchDescriptor(int descriptor, Watches & before);

  Os::Loop & loop_;
  SnmpSettings const settings_;
  std::unique_ptr<Log> log_;
  std::array<HostsFile, 2> hostsFiles_;
  Os::Descriptor spare_;                   // for libwrap, when there is no other
  std::unique_ptr<SnmpEndpoint> endpoint_; // where it listens, when stand-alone
  Os::Loop::Handle acceptAgain_;           // while connections wait there that cannot be accepted
  Watches watched_;
  Os::Loop::Handle timer_;
  std::unique_ptr<AgentX::Subagent> subagent_; // while behind a master
};

} // namespace Agent
