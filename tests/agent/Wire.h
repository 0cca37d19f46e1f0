// A manager of a few lines: writes the bytes of a request itself and hands back those of the
// answer, so that two answers can be compared bit by bit.
#pragma once

#include "tests/support/TestLoop.h"
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Wire {

using Oid = std::vector<unsigned long>;

/// The tags of RFC 3416 section 3.
enum class Command : std::uint8_t { get = 0xA0, getNext = 0xA1, set = 0xA3, getBulk = 0xA5 };

struct Request {
  Command command = Command::get;
  std::vector<Oid> names;
  long nonRepeaters = 0; ///< GETBULK only
  long repetitions = 0;
  std::string community = "public";
  int version = 1; ///< as it is sent: 0 for SNMPv1, 1 for SNMPv2c
};
/// Readable, for the message of a failed comparison.
std::ostream & operator<<(std::ostream & out, Request const & request);

/// The message. The request id is always the same; a SET sets every name to the INTEGER 1.
std::string encoded(Request const & request);

/// A socket that talks with an agent that the loop serves.
class Manager {
public:
  /// `address` as SnmpEngine::listen returns it, on loopback.
  Manager(TestLoop & loop, std::string const & address);
  Manager(Manager const &) = delete;
  Manager & operator=(Manager const &) = delete;
  ~Manager();

  /// The bytes of the answer, none when the agent gives no answer.
  std::string ask(Request const & request);

private:
  TestLoop & loop_;
  int const socket_;
};

} // namespace Wire
