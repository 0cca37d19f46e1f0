// Snmp, what a MIB plug-in and the agent that hosts it need of each other: value types and their
// encodings, the modules that a loaded library brings, and the entities they serve.
//
// Nothing of net-snmp shows here: buffers and numbers only.
#pragma once

#include "platform/Plexa.h"
#include "platform/Zel.h"
#include <absl/container/inlined_vector.h>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <endian.h>
#include <functional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace Snmp {

/// An immutable byte string. Ordered by length, then byte by byte: the order of a length-prefixed
/// index (RFC 2578 section 7.7). Its text form is its bytes in hexadecimal between single quotes.
class Bytes {
public:
  Bytes() : octets_(inside) { octets_.clear(); }
  explicit Bytes(std::span<std::uint8_t const> bytes) : octets_(inside) {
    octets_.assign(bytes.begin(), bytes.end());
  }

  std::span<std::uint8_t const> span() const { return octets_; }
  std::size_t size() const { return octets_.size(); }
  std::uint32_t hash(std::uint32_t seed) const;
  bool operator==(Bytes const & other) const { return *this <=> other == 0; }
  std::strong_ordering operator<=>(Bytes const & other) const {
    if (size() != other.size())
      return size() <=> other.size();
    return compare(octets_.data(), other.octets_.data(), size());
  }

private:
  // Addresses have 4 or 16 octets: a few numbers are sooner compared than memcmp() is called.
  static std::strong_ordering compare(std::uint8_t const * left, std::uint8_t const * right,
                                      std::size_t size) {
    for (; size >= 4; left += 4, right += 4, size -= 4)
      if (auto const order = wordAt(left) <=> wordAt(right); order != 0)
        return order;
    return std::memcmp(left, right, size) <=> 0;
  }
  // As a number, which orders as its four octets do.
  static std::uint32_t wordAt(std::uint8_t const * octets) {
    std::uint32_t word;
    std::memcpy(&word, octets, sizeof word);
    return be32toh(word);
  }

  // An address stands in the object itself: a search in an ordered table compares keys without
  // leaving them. The place for it is set as a whole when it is made, because a copy copies all of
  // it, and the compiler warns of octets that never were.
  static constexpr std::size_t inside = 16;
  absl::InlinedVector<std::uint8_t, inside> octets_;
};
void strepWrite(std::string & out, Bytes const & bytes);
void strepRead(Zel::StrepReader & in, Bytes & bytes);
std::ostream & operator<<(std::ostream & out, Bytes const & bytes);

/// An InetAddressType and the octets of an InetAddress (RFC 4001). Ordered by type, then as Bytes.
class InetAddress {
public:
  InetAddress() = default; ///< type 0 (unknown), no octets
  InetAddress(std::uint32_t addressType, Bytes address)
      : addressType_(addressType),
        address_(std::move(address)) {}

  /// ipv4 (1) with 4 octets, ipv6 (2) with 16. Requires: the address is of one of these families;
  /// any other is fatal.
  static InetAddress fromIpGenAddr(Plexa::IpGenAddr const & address);
  /// As above, and unknown (0) with no octets for an address of no family or any other.
  static InetAddress fromIpGenAddrOrUnknown(Plexa::IpGenAddr const & address);

  std::uint32_t addressType() const { return addressType_; }
  Bytes const & address() const { return address_; }
  std::uint32_t hash(std::uint32_t seed) const;
  bool operator==(InetAddress const &) const = default;
  std::strong_ordering operator<=>(InetAddress const &) const = default;

  static constexpr std::string_view typeName = "Snmp::InetAddress";
  static constexpr auto fields();

private:
  std::uint32_t addressType_ = 0;
  Bytes address_;
};
constexpr auto InetAddress::fields() {
  return std::tuple{Zel::Field{"addressType", &InetAddress::addressType_},
                    Zel::Field{"address", &InetAddress::address_}};
}
std::string valueToStrep(Bytes const & bytes);
std::string valueToStrep(InetAddress const & address);

// Encoders write into `buffer` what snmp_set_var_typed_value expects of the ASN type that they name
// and return the number of bytes written: never 0 for an integer. When the value does not fit into
// `capacity` bytes they return a negative number and leave the buffer alone.

/// An INTEGER of the machine's own `long`: the only width that carries 2^31 and more unharmed.
int U32ToAsnUnsigned(std::uint32_t value, std::uint8_t * buffer, std::size_t capacity);
int S32ToAsnInteger(std::int32_t value, std::uint8_t * buffer, std::size_t capacity);
/// An OCTET STRING of the bytes.
int BytesToAsnOctetString(Bytes const & bytes, std::uint8_t * buffer, std::size_t capacity);
/// An OCTET STRING of 4, 16 or, for no known family, 0 octets in network order.
int PlexaIpGenAddrToAsnOctetString(Plexa::IpGenAddr const & address, std::uint8_t * buffer,
                                   std::size_t capacity);

/// The integer of a varbind as a signed 32-bit number. Raises Zel::RangeException when it does not
/// fit.
std::int32_t AsnIntegerToS32(long value);
/// The octets of a varbind. `octets` may be null when `size` is 0.
Bytes AsnOctetStringToSnmpBytes(std::uint8_t const * octets, std::size_t size);

/// The agent's SNMP configuration, as far as a plug-in may see it.
class Config : public Zel::PtrInterface {
public:
  using PtrConst = Zel::Ptr<Config const>;
  /// The name that the managed system goes by.
  std::string systemName;
};

/// Tells the agent that `module` now serves, or no longer serves, the context (empty: the default).
/// Registering twice counts once.
void registerMibContext(Zel::String const & module, Zel::String const & context);
void unregisterMibContext(Zel::String const & module, Zel::String const & context);

/// What a MIB module of a loaded library offers the agent.
class HandlerRegistration {
public:
  virtual ~HandlerRegistration() = default;
  /// Starts to serve the context. The agent calls it once for each context.
  virtual void initHandler(Zel::String context) = 0;
};

/// Enrols a module with the agent for as long as it lives: a static object of the module's unit.
class AutoRegistree {
public:
  explicit AutoRegistree(HandlerRegistration * registration);
  AutoRegistree(AutoRegistree const &) = delete;
  AutoRegistree & operator=(AutoRegistree const &) = delete;
  ~AutoRegistree();

private:
  HandlerRegistration * const registration_;
};

// For the host.

/// The enrolled modules, in the order in which they came.
std::vector<HandlerRegistration *> handlerRegistrations();
/// The announced (module, context) pairs, in the order in which they came.
std::vector<std::pair<std::string, std::string>> mibContexts();

} // namespace Snmp

namespace SnmpUtil {

/// The configuration given last; never null.
Snmp::Config::PtrConst getSnmpConfig();
/// The entity mounted at `path` below the agent's root, or null.
Zel::Ptr<Zel::Entity> getEntityRelative(std::string_view path);

// For the host.

void snmpConfigIs(Snmp::Config::PtrConst config);
/// How paths are resolved from now on; an empty function resolves nothing.
void entityRootIs(std::function<Zel::Ptr<Zel::Entity>(std::string_view path)> resolve);

} // namespace SnmpUtil
