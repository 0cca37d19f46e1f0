// Plexa, the networking value types.
#pragma once

#include "platform/Zel.h"
#include <array>
#include <compare>
#include <cstdint>
#include <fmt/format.h>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Plexa {

/// A 64-bit interface identifier. Its text form is decimal.
class IntfId {
public:
  constexpr IntfId() = default;
  constexpr explicit IntfId(std::uint64_t value) : value_(value) {}

  constexpr std::uint64_t value() const { return value_; }
  std::string stringValue() const { return std::to_string(value_); }
  std::uint32_t hash(std::uint32_t seed) const { return Zel::hashOf(value_, seed); }
  constexpr auto operator<=>(IntfId const &) const = default;

private:
  std::uint64_t value_ = 0;
};
inline std::string valueToStrep(IntfId intfId) {
  return intfId.stringValue();
}

enum class AddressFamily : std::uint8_t { none = 0, ipv4 = 1, ipv6 = 2 };

/// An IPv4 address; bytes in network order.
struct Ip4Addr {
  std::array<std::uint8_t, 4> bytes{};
  /// True if and only if it is 0.0.0.0.
  bool isAny() const { return *this == Ip4Addr(); }
  bool operator==(Ip4Addr const &) const = default;
};

/// An IPv6 address; bytes in network order.
struct Ip6Addr {
  std::array<std::uint8_t, 16> bytes{};
  /// True if and only if it is ::.
  bool isUnspecified() const { return *this == Ip6Addr(); }
  bool operator==(Ip6Addr const &) const = default;
};

/// An IPv4 address, an IPv6 address, or none. A host may give it a family that has no enumerator
/// here: such an address is no address, but differs from that of family none.
class IpGenAddr {
public:
  constexpr IpGenAddr() = default;
  /// The zero address of that family; the empty address for family none or an unknown one.
  constexpr explicit IpGenAddr(AddressFamily family) : family_(family) {}
  explicit IpGenAddr(Ip4Addr address);
  explicit IpGenAddr(Ip6Addr address);

  AddressFamily family() const { return family_; }
  /// The address; zero when the family is another.
  Ip4Addr v4Addr() const;
  Ip6Addr v6Addr() const;
  /// The address's octets in network order: 4, 16 or 0 of them. Lives as long as this address.
  std::span<std::uint8_t const> octets() const;
  /// True if and only if it is the any-address, the unspecified address, or of no known family.
  bool isAddrZero() const;
  /// "10.0.0.1", "2001:db8::1", "" for no known family.
  std::string stringValue() const;
  /// The address that `text` is in one of these forms, or nothing.
  static std::optional<IpGenAddr> fromString(std::string_view text);

  bool operator==(IpGenAddr const &) const = default;

private:
  AddressFamily family_ = AddressFamily::none;
  std::array<std::uint8_t, 16> octets_{};
};
inline std::string valueToStrep(IpGenAddr const & address) {
  return address.stringValue();
}

/// What a tunnel does to its payload. Only gre and direct have an encapsulation number of their own
/// in the MIB; the other kinds are told apart for the reader of a trace.
enum class TunnelIntfMode : std::uint8_t {
  unknown = 0,
  gre = 1,
  direct = 2, ///< IP directly in IP
  vti = 3,
  xfrm = 4,
  erspan = 5,
  vxlan = 6,
  geneve = 7,
  wireguard = 8,
  sitSpecial = 9, ///< IPv6 in IPv4 by ISATAP, 6rd or 6to4: the far end is not configured
};
/// The enumerator's name, or the number in decimal where it has none.
std::string valueToStrep(TunnelIntfMode mode);
/// The mode whose name `text` is, or nothing.
std::optional<TunnelIntfMode> tunnelIntfModeFromString(std::string_view text);

} // namespace Plexa

template <>
struct fmt::formatter<Plexa::IntfId> : fmt::formatter<std::uint64_t> {
  template <class Context>
  auto format(Plexa::IntfId const & intfId, Context & context) const {
    return fmt::formatter<std::uint64_t>::format(intfId.value(), context);
  }
};
