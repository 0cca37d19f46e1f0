// Reads one XFRM message about an IPsec policy of the kernel's.
//
// Takes bytes, returns a value, touches nothing else.
#pragma once

#include "platform/Plexa.h"
#include "sources/linux/NetlinkMessage.h"
#include "sources/linux/XfrmFormat.h"
#include <cstdint>
#include <variant>
#include <vector>

namespace Sources::Linux {

/// One transformation that a policy asks for.
struct PolicyTemplate {
  std::uint8_t protocol = 0; ///< the IP protocol: 50 ESP, 51 AH, 108 IPComp
  XfrmMode mode = XfrmMode::transport;
  bool isOptional = false;
  /// Of tunnel mode: the ends of the tunnel; the empty address where it says none.
  Plexa::IpGenAddr source{};
  Plexa::IpGenAddr destination{};
  std::uint32_t reqid = 0;
  std::uint32_t spi = 0; ///< in the order of this machine; 0: any
  /// True if and only if packets cannot go without ESP or AH.
  bool demandsIpsec() const;
  bool operator==(PolicyTemplate const &) const = default;
};

/// Which packets a policy is for. An address is given by its first octets; both are of `family`,
/// zero behind their prefix. Ports are in the order of this machine, zero outside their masks.
struct PolicySelector {
  Plexa::AddressFamily family = Plexa::AddressFamily::none;
  Plexa::IpGenAddr source{};
  Plexa::IpGenAddr destination{};
  std::uint8_t sourceLength = 0; ///< in bits, at most those of an address of the family
  std::uint8_t destinationLength = 0;
  std::uint8_t protocol = 0; ///< 0: any
  std::uint16_t sourcePort = 0;
  std::uint16_t sourcePortMask = 0;
  std::uint16_t destinationPort = 0;
  std::uint16_t destinationPortMask = 0;
  std::uint32_t interface = 0; ///< a link's index; 0: any
  bool operator==(PolicySelector const &) const = default;
};

/// A policy of the main type.
struct Policy {
  enum class Direction : std::uint8_t { in = 0, out = 1, forward = 2 };

  std::uint32_t index = 0; ///< the kernel's number for it, which an update keeps
  Direction direction = Direction::in;
  std::uint32_t priority = 0; ///< the lowest decides
  bool isAllowed = false;     ///< packets are let through, transformed as the templates say
  PolicySelector selector{};
  Mark mark{};
  std::uint32_t ifId = 0;
  std::vector<PolicyTemplate> templates{};

  /// True if and only if packets for which it decides are protected by ESP or AH, or not sent.
  bool demandsIpsec() const;
  bool operator==(Policy const &) const = default;
};

/// The policy is there and is so; it may have been another one.
struct PolicyIs {
  Policy policy;
};
/// The policy of that index is gone: deleted, or past its life time.
struct PolicyGone {
  std::uint32_t index = 0;
};
/// Nobody tells which ones are gone: all of them, as a rule.
struct PoliciesFlushed {};
/// An OtherMessage is also one about a policy of a single socket, or of the sub type.
using PolicyMessage =
    std::variant<PolicyIs, PolicyGone, PoliciesFlushed, OtherMessage, MalformedMessage>;

/// Decodes one message, from its nlmsghdr on; bytes beyond its length are ignored. Any bytes will
/// do. Requires: they begin at an address that is a multiple of 4, as in every netlink buffer.
PolicyMessage decodePolicy(Bytes message);

} // namespace Sources::Linux
