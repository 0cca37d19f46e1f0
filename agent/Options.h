// The command line of the daemon.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

struct TraceOption {
  std::string handle;
  std::uint32_t levelMask;
};

/// What finds the rows that are asked for: net-snmp's table iterator, or the daemon's own in its
/// place (agent/iterator/HostIterator.h).
enum class Iterator : std::uint8_t { stock, host };

struct Options {
  std::string listen = "udp:127.0.0.1:1161"; ///< net-snmp's notation; port 0 takes a free one
  std::optional<std::string> agentx; ///< the master's socket: a subagent of its, no listener
  std::vector<std::string> sources;  ///< in the order in which they start
  std::string configFile;            ///< empty: read-only community "public" from loopback
  std::vector<TraceOption> traces;
  /// Empty: none, which only a guest may be told.
  std::string controlPath = "/run/tunnelsnmpd/tunnelsnmpd.sock";
  std::string pluginFile;
  Iterator iterator = Iterator::host;
  bool isGuest = false; ///< of an agent that has net-snmp already, as dlmod/ is of snmpd
};

/// Either options, or the end of the process before it began: what to print and the exit status (0
/// for --help and --version, 2 for a wrong command line).
struct ParsedOptions {
  std::optional<Options> options;
  std::string text;
  int exitStatus = 0;
};

/// Reads the command line. `defaultPlugin` is the plug-in to load when none is named.
ParsedOptions parseOptions(std::vector<std::string> arguments, std::string const & defaultPlugin);

} // namespace Agent
