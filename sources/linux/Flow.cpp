// What the kernel puts into the key of its own look-up, for each kind.
#include "sources/linux/Flow.h"
#include <algorithm>
#include <netinet/in.h>
#include <span>
#include <string_view>

namespace Sources::Linux {
namespace {

constexpr int halfOfKey = 16;

/// What the packets of a kind are: one or two protocols, and whether they have ports.
struct KindOfFlow {
  std::string_view kind;
  std::uint8_t protocol;
  std::uint8_t other = 0; ///< 0: none
};
constexpr KindOfFlow kinds[] = {
    {"gre", IPPROTO_GRE},
    {"gretap", IPPROTO_GRE},
    {"erspan", IPPROTO_GRE},
    {"ip6gre", IPPROTO_GRE},
    {"ip6gretap", IPPROTO_GRE},
    {"ip6erspan", IPPROTO_GRE},
    {"ipip", IPPROTO_IPIP},
    {"sit", IPPROTO_IPV6},
    {"vxlan", IPPROTO_UDP},
    {"geneve", IPPROTO_UDP},
    {"ip6tnl", IPPROTO_IPIP, IPPROTO_IPV6},
};

bool isSentAs(KindOfFlow const & one, Link const & link) {
  return one.kind == link.kind && (one.protocol != IPPROTO_UDP || link.port);
}

bool hasFlow(Link const & link) {
  return !link.isCarriedElsewhere && !link.local.isAddrZero() && !link.remote.isAddrZero() &&
         link.local.family() == link.remote.family();
}

Flow flowOf(Link const & link, std::uint8_t protocol) {
  Flow flow{.local = link.local, .remote = link.remote, .protocol = protocol};
  if (protocol == IPPROTO_UDP) {
    flow.localPort = std::nullopt; // by a hash of what is inside
    flow.remotePort = link.port.value_or(0);
  }
  if (protocol == IPPROTO_GRE) {
    auto const key = link.outputKey.value_or(0);
    flow.localPort = static_cast<std::uint16_t>(key >> halfOfKey);
    flow.remotePort = static_cast<std::uint16_t>(key);
  }
  return flow;
}

bool coversPorts(PolicySelector const & selector, Flow const & flow) {
  if (selector.sourcePortMask != 0 &&
      (!flow.localPort || (*flow.localPort & selector.sourcePortMask) != selector.sourcePort))
    return false;
  return (flow.remotePort & selector.destinationPortMask) == selector.destinationPort;
}

} // namespace

std::vector<Flow> flowsOf(Link const & link) {
  std::vector<Flow> flows;
  if (!hasFlow(link))
    return flows;
  for (auto const & one : kinds) {
    if (!isSentAs(one, link))
      continue;
    flows.push_back(flowOf(link, one.protocol));
    if (one.other != 0)
      flows.push_back(flowOf(link, one.other));
  }
  return flows;
}

bool isSentAsRouted(Link const & link) {
  return !link.isCarriedElsewhere && link.local.isAddrZero() && !link.remote.isAddrZero() &&
         std::ranges::any_of(kinds, [&](auto const & one) { return isSentAs(one, link); });
}

bool covers(Policy const & policy, Flow const & flow) {
  auto const & selector = policy.selector;
  return policy.ifId == 0 && policy.mark.covers(0) && selector.interface == 0 &&
         selector.family == flow.local.family() &&
         maskedAddress(flow.local, selector.sourceLength) == selector.source &&
         maskedAddress(flow.remote, selector.destinationLength) == selector.destination &&
         (selector.protocol == 0 || selector.protocol == flow.protocol) &&
         coversPorts(selector, flow);
}

} // namespace Sources::Linux
