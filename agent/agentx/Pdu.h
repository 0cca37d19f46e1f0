// The messages of AgentX version 1 (RFC 2741 sections 5 and 6) as values, and as octets.
//
// Both directions are here, those of a master too: what is decoded can be encoded again, which is
// how the codec is tried out. Notifications, indexes and agent capabilities are left out, since a
// subagent that has none of them is never sent one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace Agent::AgentX {

/// Sub-identifiers, at most longestOid of them. As the end of a search range, none: no end.
using Oid = std::vector<std::uint32_t>;
inline constexpr std::size_t longestOid = 128;
/// "1.3.6.1.2.1.10.131"; of none, "".
std::string oidText(Oid const & oid);

/// RFC 2741 section 6.1, h.type.
enum class Type : std::uint8_t {
  open = 1,
  close = 2,
  registration = 3,
  unregistration = 4,
  get = 5,
  getNext = 6,
  getBulk = 7,
  testSet = 8,
  commitSet = 9,
  undoSet = 10,
  cleanupSet = 11,
  ping = 13,
  response = 18,
};

enum class ByteOrder : std::uint8_t { little, big };

/// What stands in front of every message. `type` is any number, known or not.
struct Header {
  Type type = Type::ping;
  ByteOrder order = ByteOrder::big;
  bool isInstance = false; ///< of a registration: the subtree is one whole name of an instance
  bool hasContext = false; ///< set by encode() itself
  std::uint32_t session = 0;
  std::uint32_t transaction = 0;
  std::uint32_t packet = 0;
  bool operator==(Header const &) const = default;
};

/// RFC 2741 section 5.4; the numbers are those of SNMP's own tags.
enum class ValueType : std::uint16_t {
  integer = 2,
  octetString = 4,
  null = 5,
  objectIdentifier = 6,
  ipAddress = 64,
  counter32 = 65,
  gauge32 = 66,
  timeTicks = 67,
  opaque = 68,
  counter64 = 70,
  noSuchObject = 128,
  noSuchInstance = 129,
  endOfMibView = 130,
};

struct VarBind {
  Oid name;
  ValueType type = ValueType::null;
  /// By the type: nothing for null and the three that say that there is no value; 32 bits (of an
  /// integer, its two's complement); 64 bits; octets, 4 of them for an address; or a name.
  std::variant<std::monostate, std::uint32_t, std::uint64_t, std::string, Oid> value;
  bool operator==(VarBind const &) const = default;
};

struct SearchRange {
  Oid start;
  bool includesStart = false;
  Oid end; ///< the first name that is no longer asked for
  bool operator==(SearchRange const &) const = default;
};

struct Open {
  std::uint8_t timeout = 0; ///< in seconds; 0: the master's own
  Oid id;
  std::string description;
  bool operator==(Open const &) const = default;
};

/// RFC 2741 section 6.2.2.
enum class CloseReason : std::uint8_t {
  other = 1,
  parseError = 2,
  protocolError = 3,
  timeouts = 4,
  shutdown = 5,
  byManager = 6,
};
struct Close {
  CloseReason reason = CloseReason::other;
  bool operator==(Close const &) const = default;
};

/// A part of the MIB in a context (empty: the default one). With a `rangeSubId` of n it is a row of
/// subtrees, in which the n-th sub-identifier runs from the subtree's own to `upperBound`.
struct Region {
  std::string context;
  Oid subtree;
  std::uint8_t priority = 127;
  std::uint8_t rangeSubId = 0;
  std::uint32_t upperBound = 0; ///< only with a rangeSubId
  bool operator==(Region const &) const = default;
};
struct Registration {
  std::uint8_t timeout = 0; ///< in seconds; 0: that of the session
  Region region;
  bool operator==(Registration const &) const = default;
};
struct Unregistration {
  Region region;
  bool operator==(Unregistration const &) const = default;
};

struct Get {
  std::string context;
  std::vector<SearchRange> ranges;
  bool operator==(Get const &) const = default;
};
struct GetNext {
  std::string context;
  std::vector<SearchRange> ranges;
  bool operator==(GetNext const &) const = default;
};
struct GetBulk {
  std::string context;
  std::uint16_t nonRepeaters = 0;
  std::uint16_t maxRepetitions = 0;
  std::vector<SearchRange> ranges;
  bool operator==(GetBulk const &) const = default;
};

struct TestSet {
  std::string context;
  std::vector<VarBind> varBinds;
  bool operator==(TestSet const &) const = default;
};
struct CommitSet {
  bool operator==(CommitSet const &) const = default;
};
struct UndoSet {
  bool operator==(UndoSet const &) const = default;
};
struct CleanupSet {
  bool operator==(CleanupSet const &) const = default;
};

struct Ping {
  std::string context;
  bool operator==(Ping const &) const = default;
};

/// RFC 2741 section 6.2.16: an error status of SNMP, or one of AgentX's own.
enum class Error : std::uint16_t {
  none = 0,
  generic = 5,
  resourceUnavailable = 13,
  commitFailed = 14,
  undoFailed = 15,
  openFailed = 256,
  notOpen = 257,
  unsupportedContext = 262,
  duplicateRegistration = 263,
  unknownRegistration = 264,
  parseError = 266,
  requestDenied = 267,
  processingError = 268,
};
/// The name that the RFC gives it, "error N" for one that is not listed above.
std::string errorText(Error error);

struct Response {
  std::uint32_t sysUpTime = 0; ///< in hundredths of a second; of a master only
  Error error = Error::none;
  std::uint16_t index = 0; ///< of the varbind at fault, from 1 on
  std::vector<VarBind> varBinds;
  bool operator==(Response const &) const = default;
};

using Body = std::variant<Open, Close, Registration, Unregistration, Get, GetNext, GetBulk, TestSet,
                          CommitSet, UndoSet, CleanupSet, Ping, Response>;

inline constexpr std::size_t headerSize = 20;
/// What may follow a header, in octets. A request of SNMP has 64 KiB, and in AgentX a name of one
/// octet for each sub-identifier has four, twice.
inline constexpr std::size_t largestPayload = 1U << 20U;
/// In one message: as many as fit into one of SNMP, which needs ten octets for each.
inline constexpr std::size_t mostVarBinds = 6553;

struct Malformed {
  std::string reason;
};
struct Frame {
  Header header;
  std::size_t payloadSize = 0; ///< at most largestPayload, and a multiple of 4
};

/// Reads a header. Where it is malformed, nothing after it can be understood either.
std::variant<Frame, Malformed> decodeHeader(std::span<std::uint8_t const, headerSize> octets);
/// Reads what follows a header. A type that is not known here is malformed, too.
std::variant<Body, Malformed> decodeBody(Header const & header,
                                         std::span<std::uint8_t const> payload);

/// Appends the message. The header's type and its hasContext follow from the body. Requires: no
/// name is longer than longestOid, and each value is what its type asks for.
void encode(std::string & out, Header header, Body const & body);

} // namespace Agent::AgentX
