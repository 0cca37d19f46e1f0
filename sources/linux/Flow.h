// Which packets a tunnel link sends, as IPsec policies see them.
#pragma once

#include "platform/Plexa.h"
#include "sources/Links.h"
#include "sources/linux/PolicyDecoder.h"
#include <cstdint>
#include <optional>
#include <vector>

namespace Sources::Linux {

/// The outer packets of a tunnel. Ports are in the order of this machine.
struct Flow {
  Plexa::IpGenAddr local{}; ///< of one family with `remote`, neither of them zero
  Plexa::IpGenAddr remote{};
  std::uint8_t protocol = 0;
  /// Nothing when it changes from packet to packet.
  std::optional<std::uint16_t> localPort = 0;
  std::uint16_t remotePort = 0;
  bool operator==(Flow const &) const = default;
};

/// The flows of the link, by its kind:
///
///   gre gretap erspan ip6gre ip6gretap ip6erspan   protocol 47; the halves of the output key stand
///                                                  for the ports, as in the kernel
///   ipip                                           4
///   sit                                            41
///   ip6tnl                                         4 and 41: it may carry either
///   vxlan geneve                                   17, to the link's port
///
/// None for the other kinds, for a link without one of its endpoints, and for one that is carried
/// in another namespace, whose policies are other ones.
std::vector<Flow> flowsOf(Link const & link);

/// True if and only if the link would have flows if it had a local address: the kernel takes that
/// of the route to the remote one then.
bool isSentAsRouted(Link const & link);

/// True if and only if the policy is for packets of that flow: no interface of its own, no if_id,
/// no mark that they would need.
bool covers(Policy const & policy, Flow const & flow);

} // namespace Sources::Linux
