// Reads one rtnetlink message about a link: which link it is, and if it is a tunnel, what the state
// database wants to know of it.
//
// Works on the attributes as the kernel sends them, all kinds the same way; the typed link objects
// of libraries leave some kinds and some attributes out. Takes bytes, returns a value, touches
// nothing else.
#pragma once

#include "platform/Interface.h"
#include "sources/linux/NetlinkMessage.h"
#include "sources/linux/TunnelKind.h"
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>

namespace Sources::Linux {

/// A tunnel link: its status as it is published, and what Sources::Link says of it besides.
struct TunnelLink {
  std::uint32_t index = 0; ///< the kernel's, 1 to 2147483647
  std::string name;
  TunnelKind kind = TunnelKind::gre;
  /// What the record of its status will say. An address is the empty one where the kernel has none
  /// or the zero address; a multicast group that a vxlan link sends to counts as remote.
  Interface::TunnelIntfStatusValues status{};
  /// In the order of this machine. Nothing where the kind has none, or the link is set to none.
  std::optional<std::uint32_t> ifId = {};      ///< of kind xfrm
  std::optional<std::uint32_t> inputKey = {};  ///< of the gre, erspan and vti kinds
  std::optional<std::uint32_t> outputKey = {}; ///< of the same kinds
  /// The index of the link of the same namespace that carries the outer packets.
  std::optional<std::uint32_t> lower = {};
  std::optional<std::uint16_t> port = {}; ///< of vxlan and geneve
  /// True if and only if the outer packets leave in another namespace.
  bool isCarriedElsewhere = false;

  bool operator==(TunnelLink const &) const = default;
};

/// The link of that index is now so; no tunnel: it is gone, is none of a known kind, or is a
/// fallback device, the one that the kernel makes by itself when it loads a kind's module.
struct LinkState {
  std::uint32_t index = 0;
  std::optional<TunnelLink> tunnel;
};
/// An OtherMessage is one that is not about a link, or only about its place in a bridge.
using LinkMessage = std::variant<LinkState, OtherMessage, MalformedMessage>;

/// What the kernel puts into the outer packet of tunnels that have no value of their own.
struct DefaultHopLimits {
  std::uint8_t ipv4 = 64;
  std::uint8_t ipv6 = 64;
};

/// Decodes one message, from its nlmsghdr on; bytes beyond its length are ignored. Any bytes will
/// do. Requires: they begin at an address that is a multiple of 4, as in every netlink buffer.
LinkMessage decodeLink(Bytes message, DefaultHopLimits const & defaults);

} // namespace Sources::Linux
