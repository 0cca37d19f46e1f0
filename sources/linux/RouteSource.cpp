// A datagram socket that is connected sends nothing: the kernel looks up the route and gives the
// socket the address it would send from. That is its own answer, in three system calls; a request
// for the route over netlink would have to be waited for.
#include "sources/linux/RouteSource.h"
#include "os/Descriptor.h"
#include <algorithm>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Sources::Linux {
namespace {

using Plexa::AddressFamily;
using Plexa::IpGenAddr;

/// Any will do, but some refuse none.
constexpr in_port_t port = 9;

template <class Address>
bool connectAndAsk(int family, Address & address) {
  Os::Descriptor const socket(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  auto * const generic = reinterpret_cast<sockaddr *>(&address);
  socklen_t size = sizeof address;
  return socket && ::connect(socket.get(), generic, size) == 0 &&
         ::getsockname(socket.get(), generic, &size) == 0;
}

IpGenAddr sourceTowards4(Plexa::Ip4Addr const & remote) {
  sockaddr_in address{
      .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {}, .sin_zero = {}};
  std::ranges::copy(remote.bytes, reinterpret_cast<std::uint8_t *>(&address.sin_addr));
  Plexa::Ip4Addr source;
  if (connectAndAsk(AF_INET, address))
    std::copy_n(reinterpret_cast<std::uint8_t const *>(&address.sin_addr), source.bytes.size(),
                source.bytes.begin());
  return IpGenAddr(source);
}

IpGenAddr sourceTowards6(Plexa::Ip6Addr const & remote) {
  sockaddr_in6 address{.sin6_family = AF_INET6,
                       .sin6_port = htons(port),
                       .sin6_flowinfo = 0,
                       .sin6_addr = {},
                       .sin6_scope_id = 0};
  std::ranges::copy(remote.bytes, reinterpret_cast<std::uint8_t *>(&address.sin6_addr));
  Plexa::Ip6Addr source;
  if (connectAndAsk(AF_INET6, address))
    std::copy_n(reinterpret_cast<std::uint8_t const *>(&address.sin6_addr), source.bytes.size(),
                source.bytes.begin());
  return IpGenAddr(source);
}

} // namespace

IpGenAddr sourceTowards(IpGenAddr const & remote) {
  return remote.family() == AddressFamily::ipv4 ? sourceTowards4(remote.v4Addr())
                                                : sourceTowards6(remote.v6Addr());
}

} // namespace Sources::Linux
