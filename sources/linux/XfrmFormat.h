// What XFRM messages about policies and about states have in common: how the kernel's structures
// say an address, a mark, a mode.
#pragma once

#include "platform/Plexa.h"
#include "sources/linux/NetlinkMessage.h"
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <linux/xfrm.h>

namespace Sources::Linux {

/// A mark as policies and states have it: of a packet's mark, the bits of `mask` are those of
/// `value`.
struct Mark {
  std::uint32_t value = 0;
  std::uint32_t mask = 0;
  /// True if and only if a packet of that mark is meant.
  bool covers(std::uint32_t mark) const { return (mark & mask) == (value & mask); }
  bool operator==(Mark const &) const = default;
};

/// In the kernel's numbers; there are others, which carry no tunnel.
enum class XfrmMode : std::uint8_t {
  transport = XFRM_MODE_TRANSPORT,
  tunnel = XFRM_MODE_TUNNEL,
  beet = XFRM_MODE_BEET,
};

/// True if and only if the mode makes a new outer header, with addresses of its own.
inline bool hasEndpoints(XfrmMode mode) {
  return mode == XfrmMode::tunnel || mode == XfrmMode::beet;
}

/// The family of the system's number, AF_INET or AF_INET6. Raises MalformedMessage for another.
Plexa::AddressFamily familyOf(std::uint16_t number);
/// The address, also when it is zero.
Plexa::IpGenAddr addressOf(xfrm_address_t const & address, Plexa::AddressFamily family);
/// The same, but the empty address for the zero one.
Plexa::IpGenAddr endpointOf(xfrm_address_t const & address, Plexa::AddressFamily family);
/// The address with zeros behind its first `length` bits. It keeps its family.
Plexa::IpGenAddr maskedAddress(Plexa::IpGenAddr const & address, std::uint8_t length);
/// Mark 0 of no bits, which covers every packet, when there is no such attribute.
Mark markOf(Attributes const & attributes);

/// The structure that the bytes begin with, which need not be aligned for it. Requires: there are
/// so many.
template <class T>
T structureOf(Bytes bytes) {
  T structure;
  std::memcpy(&structure, bytes.data(), sizeof structure);
  return structure;
}

/// The attributes that follow such a structure.
template <class T>
Attributes attributesBehind(Bytes payload) {
  return Attributes(payload.subspan(std::min<std::size_t>(payload.size(), NLMSG_ALIGN(sizeof(T)))));
}

} // namespace Sources::Linux
