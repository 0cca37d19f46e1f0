// The whole daemon inside a fuzz target: its event loop, the plug-in, a few tunnels, a control
// socket and an SNMP port on loopback. What is tried on it goes through real sockets.
#pragma once

#include "agent/Agent.h"
#include "fuzz/Require.h"
#include "os/Descriptor.h"
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Fuzz {

/// There is one in a process: net-snmp keeps its state in globals.
class Daemon {
public:
  static Daemon & instance();

  /// Sends the packet to the SNMP port and then, from another port, a GET of a row, whose answer
  /// must come and be what it was at the start: no packet changes what others are told.
  void packet(std::span<std::uint8_t const> octets);
  /// Writes the text and a line end to a control connection of its own and closes that. Then asks
  /// for the version on another, whose answer must come.
  void control(std::string_view text);

private:
  Daemon();
  Os::Descriptor connectToControl() const;
  /// To the manager's GET.
  std::string answer();
  std::string firstRightAnswer();
  /// Runs the daemon until the descriptor can be read.
  void untilReadable(int descriptor);

  std::string const folder_;
  Agent::EventLoop loop_;
  Agent::Agent agent_;
  std::string const address_;
  Os::Descriptor const stranger_;
  Os::Descriptor const manager_;
  std::string const rightAnswer_;
};

} // namespace Fuzz
