// Where an AgentX master listens, in net-snmp's notation (snmpd(8), LISTENING ADDRESSES), and the
// first step towards it.
#pragma once

#include "os/Descriptor.h"
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace Agent::AgentX {

class MasterAddress {
public:
  /// "unix:PATH", "tcp:HOST:PORT", "tcp6:[HOST]:PORT"; the port may be left out (705), or the host
  /// (loopback). Without a prefix, what reads as a TCP address is one, and all else a path. A host
  /// is a numeric address or "localhost": to look up a name is to wait for somebody. Raises
  /// std::invalid_argument, one line.
  explicit MasterAddress(std::string text);

  /// As it was given.
  std::string const & text() const { return text_; }

  /// Begins to connect, without waiting. When the socket can be written, its SO_ERROR tells what
  /// came of it. Raises std::runtime_error with the system's text when it fails at once.
  Os::Descriptor connect() const;

private:
  void setPath(std::string_view path);
  bool setTcp(std::string_view hostAndPort);

  std::string text_;
  sockaddr_storage address_{};
  socklen_t size_ = 0;
};

} // namespace Agent::AgentX
