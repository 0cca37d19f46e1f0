// A traffic selector: which packets a security association or a policy is for (RFC 7296 section
// 3.13).
#pragma once

#include "platform/Plexa.h"
#include <cstdint>
#include <optional>
#include <string_view>

namespace Sources::Ike {

/// Addresses from `first` to `last`, both included and of one family; of no family: those that the
/// connection itself uses ("dynamic"). Ports are in the order of this machine.
struct Selector {
  Plexa::IpGenAddr first{};
  Plexa::IpGenAddr last{};
  std::uint8_t protocol = 0; ///< IP protocol number; 0: any
  std::uint16_t firstPort = 0;
  std::uint16_t lastPort = 65535;

  bool isDynamic() const { return first.family() == Plexa::AddressFamily::none; }
  /// True if and only if it is for that one address alone.
  bool isHost() const { return !isDynamic() && first == last; }
  /// True if and only if the address is of its family and in its range; never of a dynamic one.
  bool covers(Plexa::IpGenAddr const & address) const;
  bool operator==(Selector const &) const = default;
};

/// The selector that `text` is, in a form that strongSwan prints, or nothing:
///
///   10.9.0.0/24   2001:db8::1/128   10.0.0.1..10.0.0.9   10.9.0.1/32[gre]   10.9.0.1/32[47]
///   10.9.0.1/32[udp/4789]   10.9.0.1/32[17/1000-2000]   10.9.0.1/32[tcp/http]   dynamic
///   dynamic[gre]
///
/// Protocols and ports come as numbers, or by a name that /etc/protocols or /etc/services of the
/// daemon's machine has. Of names those of the tunnel protocols, of UDP, TCP, ICMP, ESP and AH are
/// known; a port by name is one of unknown number and gives nothing. "opaque" ports are any.
std::optional<Selector> selectorFromText(std::string_view text);

} // namespace Sources::Ike
