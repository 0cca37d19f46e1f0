// The layout of each kind's attributes, and the reading of them.
//
// Byte orders are the kernel's: addresses, flow information and ports big-endian, flags and the
// header in the order of this machine.
#include "sources/linux/LinkDecoder.h"
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <fmt/format.h>
#include <linux/if_link.h>
#include <linux/if_tunnel.h>
#include <linux/ip6_tunnel.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

namespace Sources::Linux {
namespace {

using Plexa::TunnelIntfMode;

/// Where the attributes of a kind are, and what follows from the kind alone. 0: it has none.
struct Layout {
  TunnelKind kind = TunnelKind::gre;
  TunnelIntfMode mode = TunnelIntfMode::unknown;
  std::string_view fallbackName = "";
  std::uint16_t metadata = 0;
  std::uint16_t local4 = 0;
  std::uint16_t local6 = 0;
  std::uint16_t remote4 = 0;
  std::uint16_t remote6 = 0;
  std::uint16_t ttl = 0;
  std::uint16_t ttlInherit = 0;
  std::uint16_t tos = 0;        // one byte, bit 0: inherit
  std::uint16_t flowInfo = 0;   // holds the traffic class of the kinds over IPv6
  std::uint16_t flags = 0;      // holds whether that is inherited
  std::uint16_t inputFlags = 0; // of two bytes, says whether there is the key
  std::uint16_t inputKey = 0;
  std::uint16_t outputFlags = 0;
  std::uint16_t outputKey = 0;
  std::uint16_t ifId = 0;
  std::uint16_t lower = 0; // of kinds that say it here and not with the link
  std::uint16_t port = 0;
};

constexpr Layout greV4(TunnelKind kind, TunnelIntfMode mode, std::string_view fallbackName) {
  return {.kind = kind,
          .mode = mode,
          .fallbackName = fallbackName,
          .metadata = IFLA_GRE_COLLECT_METADATA,
          .local4 = IFLA_GRE_LOCAL,
          .remote4 = IFLA_GRE_REMOTE,
          .ttl = IFLA_GRE_TTL,
          .tos = IFLA_GRE_TOS,
          .inputFlags = IFLA_GRE_IFLAGS,
          .inputKey = IFLA_GRE_IKEY,
          .outputFlags = IFLA_GRE_OFLAGS,
          .outputKey = IFLA_GRE_OKEY};
}
constexpr Layout greV6(TunnelKind kind, TunnelIntfMode mode, std::string_view fallbackName) {
  return {.kind = kind,
          .mode = mode,
          .fallbackName = fallbackName,
          .metadata = IFLA_GRE_COLLECT_METADATA,
          .local6 = IFLA_GRE_LOCAL,
          .remote6 = IFLA_GRE_REMOTE,
          .ttl = IFLA_GRE_TTL,
          .flowInfo = IFLA_GRE_FLOWINFO,
          .flags = IFLA_GRE_FLAGS,
          .inputFlags = IFLA_GRE_IFLAGS,
          .inputKey = IFLA_GRE_IKEY,
          .outputFlags = IFLA_GRE_OFLAGS,
          .outputKey = IFLA_GRE_OKEY};
}
constexpr Layout ipInIpv4(TunnelKind kind, std::string_view fallbackName) {
  return {.kind = kind,
          .mode = TunnelIntfMode::direct,
          .fallbackName = fallbackName,
          .metadata = IFLA_IPTUN_COLLECT_METADATA,
          .local4 = IFLA_IPTUN_LOCAL,
          .remote4 = IFLA_IPTUN_REMOTE,
          .ttl = IFLA_IPTUN_TTL,
          .tos = IFLA_IPTUN_TOS};
}

constexpr std::array<Layout, tunnelKinds> layouts{
    greV4(TunnelKind::gre, TunnelIntfMode::gre, "gre0"),
    greV6(TunnelKind::ip6gre, TunnelIntfMode::gre, "ip6gre0"),
    ipInIpv4(TunnelKind::ipip, "tunl0"),
    ipInIpv4(TunnelKind::sit, "sit0"),
    Layout{.kind = TunnelKind::ip6tnl,
           .mode = TunnelIntfMode::direct,
           .fallbackName = "ip6tnl0",
           .metadata = IFLA_IPTUN_COLLECT_METADATA,
           .local6 = IFLA_IPTUN_LOCAL,
           .remote6 = IFLA_IPTUN_REMOTE,
           .ttl = IFLA_IPTUN_TTL,
           .flowInfo = IFLA_IPTUN_FLOWINFO,
           .flags = IFLA_IPTUN_FLAGS},
    Layout{.kind = TunnelKind::vti,
           .mode = TunnelIntfMode::vti,
           .fallbackName = "ip_vti0",
           .local4 = IFLA_VTI_LOCAL,
           .remote4 = IFLA_VTI_REMOTE,
           .inputKey = IFLA_VTI_IKEY,
           .outputKey = IFLA_VTI_OKEY},
    Layout{.kind = TunnelKind::vti6,
           .mode = TunnelIntfMode::vti,
           .fallbackName = "ip6_vti0",
           .local6 = IFLA_VTI_LOCAL,
           .remote6 = IFLA_VTI_REMOTE,
           .inputKey = IFLA_VTI_IKEY,
           .outputKey = IFLA_VTI_OKEY},
    Layout{.kind = TunnelKind::xfrm, .mode = TunnelIntfMode::xfrm, .ifId = IFLA_XFRM_IF_ID},
    greV4(TunnelKind::gretap, TunnelIntfMode::gre, "gretap0"),
    greV6(TunnelKind::ip6gretap, TunnelIntfMode::gre, ""),
    greV4(TunnelKind::erspan, TunnelIntfMode::erspan, "erspan0"),
    greV6(TunnelKind::ip6erspan, TunnelIntfMode::erspan, ""),
    Layout{.kind = TunnelKind::vxlan,
           .mode = TunnelIntfMode::vxlan,
           .metadata = IFLA_VXLAN_COLLECT_METADATA,
           .local4 = IFLA_VXLAN_LOCAL,
           .local6 = IFLA_VXLAN_LOCAL6,
           .remote4 = IFLA_VXLAN_GROUP,
           .remote6 = IFLA_VXLAN_GROUP6,
           .ttl = IFLA_VXLAN_TTL,
           .ttlInherit = IFLA_VXLAN_TTL_INHERIT,
           .tos = IFLA_VXLAN_TOS,
           .lower = IFLA_VXLAN_LINK,
           .port = IFLA_VXLAN_PORT},
    Layout{.kind = TunnelKind::geneve,
           .mode = TunnelIntfMode::geneve,
           .metadata = IFLA_GENEVE_COLLECT_METADATA,
           .remote4 = IFLA_GENEVE_REMOTE,
           .remote6 = IFLA_GENEVE_REMOTE6,
           .ttl = IFLA_GENEVE_TTL,
           .ttlInherit = IFLA_GENEVE_TTL_INHERIT,
           .tos = IFLA_GENEVE_TOS,
           .port = IFLA_GENEVE_PORT},
    Layout{.kind = TunnelKind::wireguard, .mode = TunnelIntfMode::wireguard},
};

/// The layout of the kind of that name, or null.
Layout const * findLayout(std::string_view name) {
  auto const kind = tunnelKindFromName(name);
  if (!kind)
    return nullptr;
  auto const found = std::find_if(layouts.begin(), layouts.end(),
                                  [&](Layout const & layout) { return layout.kind == *kind; });
  return found == layouts.end() ? nullptr : &*found;
}

LinkState decodeState(Bytes message, bool gone, DefaultHopLimits const & defaults);
std::optional<TunnelLink> decodeTunnel(Attributes const & link, DefaultHopLimits const & defaults);

} // namespace

LinkMessage decodeLink(Bytes message, DefaultHopLimits const & defaults) try {
  auto const type = messageHeader(message).nlmsg_type;
  if (type != RTM_NEWLINK && type != RTM_DELLINK)
    return OtherMessage();
  auto const payload = messagePayload(message, sizeof(ifinfomsg), "a link");
  // A link that leaves a bridge is told with the bridge's family, and looks like a deletion.
  if (reinterpret_cast<ifinfomsg const *>(payload.data())->ifi_family != AF_UNSPEC)
    return OtherMessage();
  return decodeState(payload, type == RTM_DELLINK, defaults);
} catch (MalformedMessage const & malformed) {
  return malformed;
}

namespace {

LinkState decodeState(Bytes payload, bool gone, DefaultHopLimits const & defaults) {
  auto const & info = *reinterpret_cast<ifinfomsg const *>(payload.data());
  if (info.ifi_index <= 0)
    throw MalformedMessage{fmt::format("{} is no link index", info.ifi_index)};
  LinkState state{static_cast<std::uint32_t>(info.ifi_index), {}};
  if (gone)
    return state;
  try {
    state.tunnel = decodeTunnel(Attributes(payload.subspan(NLMSG_ALIGN(sizeof info))), defaults);
  } catch (MalformedMessage & malformed) {
    malformed.index = state.index;
    throw;
  }
  if (state.tunnel)
    state.tunnel->index = state.index;
  return state;
}

Plexa::IpGenAddr endpoint(Attributes const & data, std::uint16_t type4, std::uint16_t type6);
bool isFallback(Layout const & layout, TunnelLink const & link);
TunnelIntfMode mode(Layout const & layout, Attributes const & data, TunnelLink const & link);
std::uint8_t hopLimit(Layout const & layout, Attributes const & data, std::uint8_t fromSystem);
std::uint8_t tos(Layout const & layout, Attributes const & data);
void decodeKeys(Layout const & layout, Attributes const & data, TunnelLink & tunnel);
std::optional<std::uint32_t> lower(Layout const & layout, Attributes const & link,
                                   Attributes const & data);
std::optional<std::uint16_t> port(Layout const & layout, Attributes const & data);
bool overIpv6(TunnelLink const & link);

std::optional<TunnelLink> decodeTunnel(Attributes const & link, DefaultHopLimits const & defaults) {
  auto const info = link.nested(IFLA_LINKINFO);
  auto const * const layout = findLayout(info.text(IFLA_INFO_KIND));
  if (layout == nullptr)
    return std::nullopt;
  auto const data = info.nested(IFLA_INFO_DATA);
  TunnelLink tunnel;
  tunnel.kind = layout->kind;
  tunnel.name = link.text(IFLA_IFNAME);
  // "External": each packet brings its endpoints with it.
  auto const external = data.flag(layout->metadata);
  if (!external) {
    tunnel.status.srcAddr = endpoint(data, layout->local4, layout->local6);
    tunnel.status.dstAddr = endpoint(data, layout->remote4, layout->remote6);
    if (isFallback(*layout, tunnel))
      return std::nullopt;
  }
  tunnel.status.mode = mode(*layout, data, tunnel);
  tunnel.status.hopLimit =
      hopLimit(*layout, data, overIpv6(tunnel) ? defaults.ipv6 : defaults.ipv4);
  tunnel.status.tos = tos(*layout, data);
  decodeKeys(*layout, data, tunnel);
  tunnel.lower = lower(*layout, link, data);
  tunnel.port = port(*layout, data);
  tunnel.isCarriedElsewhere = link.find(IFLA_LINK_NETNSID) != nullptr;
  tunnel.status.ipsec =
      tunnel.status.mode == TunnelIntfMode::vti || tunnel.status.mode == TunnelIntfMode::xfrm;
  return tunnel;
}

bool isFallback(Layout const & layout, TunnelLink const & link) {
  return !link.name.empty() && link.name == layout.fallbackName &&
         link.status.srcAddr.isAddrZero() && link.status.dstAddr.isAddrZero();
}

TunnelIntfMode mode(Layout const & layout, Attributes const & data, TunnelLink const & link) {
  if (layout.kind != TunnelKind::sit)
    return layout.mode;
  auto const isatap = (data.u16(IFLA_IPTUN_FLAGS) & SIT_ISATAP) != 0;
  // Without a remote endpoint it is found in the payload's destination: 6to4 or 6rd.
  return isatap || link.status.dstAddr.isAddrZero() ? TunnelIntfMode::sitSpecial : layout.mode;
}

std::uint8_t hopLimit(Layout const & layout, Attributes const & data, std::uint8_t fromSystem) {
  if (layout.ttl == 0)
    return fromSystem;
  auto const ttl = data.u8(layout.ttl);
  if (layout.ttlInherit == 0)
    return ttl; // 0 is inherit here as there
  if (data.flag(layout.ttlInherit))
    return 0;
  return ttl == 0 ? fromSystem : ttl;
}

std::uint8_t tos(Layout const & layout, Attributes const & data) {
  constexpr int classShift = 20;
  constexpr int dscpShift = 2;
  constexpr std::uint8_t inherit = 1;
  if (layout.flowInfo != 0) {
    auto const trafficClass =
        static_cast<std::uint8_t>(ntohl(data.u32(layout.flowInfo)) >> classShift);
    auto const copied = (data.u32(layout.flags) & IP6_TNL_F_USE_ORIG_TCLASS) != 0;
    return copied ? 0 : trafficClass >> dscpShift;
  }
  auto const value = data.u8(layout.tos);
  return (value & inherit) != 0 ? 0 : value >> dscpShift;
}

/// The key; nothing when the flags say that there is none, or, without flags, when it is 0.
std::optional<std::uint32_t> key(Attributes const & data, std::uint16_t flags, std::uint16_t type) {
  auto const value = ntohl(data.u32(type));
  auto const isThere = flags == 0 ? value != 0 : (data.u16(flags) & GRE_KEY) != 0;
  return isThere ? std::optional(value) : std::nullopt;
}

void decodeKeys(Layout const & layout, Attributes const & data, TunnelLink & tunnel) {
  tunnel.inputKey = key(data, layout.inputFlags, layout.inputKey);
  tunnel.outputKey = key(data, layout.outputFlags, layout.outputKey);
  if (layout.ifId != 0)
    tunnel.ifId = data.u32(layout.ifId);
}

// An index of another namespace means nothing here.
std::optional<std::uint32_t> lower(Layout const & layout, Attributes const & link,
                                   Attributes const & data) {
  if (link.find(IFLA_LINK_NETNSID) != nullptr)
    return std::nullopt;
  auto const index = link.find(IFLA_LINK) != nullptr ? link.u32(IFLA_LINK) : data.u32(layout.lower);
  return index == 0 ? std::nullopt : std::optional(index);
}

std::optional<std::uint16_t> port(Layout const & layout, Attributes const & data) {
  auto const value = ntohs(data.u16(layout.port));
  return value == 0 ? std::nullopt : std::optional(value);
}

bool overIpv6(TunnelLink const & link) {
  return link.kind == TunnelKind::vti6 ||
         link.status.srcAddr.family() == Plexa::AddressFamily::ipv6 ||
         link.status.dstAddr.family() == Plexa::AddressFamily::ipv6;
}

/// The address of so many bytes; the empty one when the attribute is missing or the address is
/// zero.
Plexa::IpGenAddr address(Attributes const & data, std::uint16_t type, std::size_t size) {
  auto const * const found = data.find(type);
  if (found == nullptr)
    return {};
  auto const octets = valueOf(*found);
  if (octets.size() != size)
    throw MalformedMessage{fmt::format("attribute {} is no address: it has {} bytes instead of {}",
                                       type, octets.size(), size)};
  return addressOf(octets);
}

Plexa::IpGenAddr endpoint(Attributes const & data, std::uint16_t type4, std::uint16_t type6) {
  auto const v4 = address(data, type4, sizeof(Plexa::Ip4Addr));
  return v4.isAddrZero() ? address(data, type6, sizeof(Plexa::Ip6Addr)) : v4;
}

} // namespace
} // namespace Sources::Linux
