// Addresses and tunnel modes, and their texts.
#include "platform/Plexa.h"
#include <algorithm>
#include <arpa/inet.h>

namespace Plexa {

IpGenAddr::IpGenAddr(Ip4Addr address) : family_(AddressFamily::ipv4) {
  std::copy(address.bytes.begin(), address.bytes.end(), octets_.begin());
}
IpGenAddr::IpGenAddr(Ip6Addr address) : family_(AddressFamily::ipv6), octets_(address.bytes) {}

Ip4Addr IpGenAddr::v4Addr() const {
  Ip4Addr address;
  if (family_ == AddressFamily::ipv4)
    std::copy_n(octets_.begin(), address.bytes.size(), address.bytes.begin());
  return address;
}

Ip6Addr IpGenAddr::v6Addr() const {
  return family_ == AddressFamily::ipv6 ? Ip6Addr{octets_} : Ip6Addr();
}

std::span<std::uint8_t const> IpGenAddr::octets() const {
  switch (family_) {
  case AddressFamily::ipv4:
    return std::span(octets_).first(4);
  case AddressFamily::ipv6:
    return octets_;
  case AddressFamily::none:
    break;
  }
  return {};
}

bool IpGenAddr::isAddrZero() const {
  switch (family_) {
  case AddressFamily::ipv4:
    return v4Addr().isAny();
  case AddressFamily::ipv6:
    return v6Addr().isUnspecified();
  case AddressFamily::none:
    break;
  }
  return true;
}

std::string IpGenAddr::stringValue() const {
  if (octets().empty())
    return "";
  char text[INET6_ADDRSTRLEN];
  inet_ntop(family_ == AddressFamily::ipv4 ? AF_INET : AF_INET6, octets_.data(), text, sizeof text);
  return text;
}

std::optional<IpGenAddr> IpGenAddr::fromString(std::string_view text) {
  if (text.empty())
    return IpGenAddr();
  std::string const terminated(text);
  if (terminated.size() != std::char_traits<char>::length(terminated.c_str()))
    return std::nullopt; // a zero byte inside: inet_pton would see less than all of it
  Ip4Addr v4;
  if (inet_pton(AF_INET, terminated.c_str(), v4.bytes.data()) == 1)
    return IpGenAddr(v4);
  Ip6Addr v6;
  if (inet_pton(AF_INET6, terminated.c_str(), v6.bytes.data()) == 1)
    return IpGenAddr(v6);
  return std::nullopt;
}

namespace {
constexpr std::array<std::string_view, 10> modeNames{"unknown",   "gre",       "direct", "vti",
                                                     "xfrm",      "erspan",    "vxlan",  "geneve",
                                                     "wireguard", "sitSpecial"};
} // namespace

std::string valueToStrep(TunnelIntfMode mode) {
  auto const number = static_cast<std::size_t>(mode);
  return number < modeNames.size() ? std::string(modeNames[number]) : std::to_string(number);
}

std::optional<TunnelIntfMode> tunnelIntfModeFromString(std::string_view text) {
  auto const found = std::find(modeNames.begin(), modeNames.end(), text);
  if (found == modeNames.end())
    return std::nullopt;
  return static_cast<TunnelIntfMode>(found - modeNames.begin());
}

} // namespace Plexa
