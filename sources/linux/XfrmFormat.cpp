// Addresses lie in the kernel's structures as 16 octets, of which IPv4 has the first four.
#include "sources/linux/XfrmFormat.h"
#include <algorithm>
#include <fmt/format.h>
#include <sys/socket.h>

namespace Sources::Linux {
namespace {

template <class Address>
Plexa::IpGenAddr masked(Address address, std::size_t length) {
  constexpr std::size_t bits = 8;
  for (auto & octet : address.bytes) {
    auto const kept = std::min(length, bits);
    octet = static_cast<std::uint8_t>(octet & (0xff00 >> kept));
    length -= kept;
  }
  return Plexa::IpGenAddr(address);
}

} // namespace

Plexa::AddressFamily familyOf(std::uint16_t number) {
  switch (number) {
  case AF_INET:
    return Plexa::AddressFamily::ipv4;
  case AF_INET6:
    return Plexa::AddressFamily::ipv6;
  default:
    throw MalformedMessage{fmt::format("{} is no address family", number)};
  }
}

Plexa::IpGenAddr addressOf(xfrm_address_t const & address, Plexa::AddressFamily family) {
  auto const result = endpointOf(address, family);
  return result.isAddrZero() ? Plexa::IpGenAddr(family) : result;
}

Plexa::IpGenAddr endpointOf(xfrm_address_t const & address, Plexa::AddressFamily family) {
  auto const octets = std::as_bytes(std::span(&address, 1));
  return addressOf(octets.first(Plexa::IpGenAddr(family).octets().size()));
}

Plexa::IpGenAddr maskedAddress(Plexa::IpGenAddr const & address, std::uint8_t length) {
  return address.family() == Plexa::AddressFamily::ipv4 ? masked(address.v4Addr(), length)
                                                        : masked(address.v6Addr(), length);
}

Mark markOf(Attributes const & attributes) {
  auto const mark = attributes.value<xfrm_mark>(XFRMA_MARK);
  return {.value = mark.v, .mask = mark.m};
}

} // namespace Sources::Linux
