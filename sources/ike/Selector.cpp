// The forms in which strongSwan prints traffic selectors.
#include "sources/ike/Selector.h"
#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <span>
#include <string>
#include <system_error>
#include <utility>

namespace Sources::Ike {

namespace {

using Plexa::AddressFamily;
using Plexa::IpGenAddr;

constexpr std::string_view dynamic = "dynamic";

std::optional<Selector> addressesFromText(std::string_view text);
bool readProtocolAndPorts(std::string_view text, Selector & selector);

} // namespace

bool Selector::covers(IpGenAddr const & address) const {
  if (isDynamic() || address.family() != first.family())
    return false;
  return !std::ranges::lexicographical_compare(address.octets(), first.octets()) &&
         !std::ranges::lexicographical_compare(last.octets(), address.octets());
}

std::optional<Selector> selectorFromText(std::string_view text) {
  auto const bracket = std::min(text.find('['), text.size());
  auto const behind = text.substr(bracket);
  auto selector = addressesFromText(text.substr(0, bracket));
  if (!selector || behind.empty())
    return selector;
  if (behind.size() < 2 || !behind.ends_with(']') ||
      !readProtocolAndPorts(behind.substr(1, behind.size() - 2), *selector))
    return std::nullopt;
  return selector;
}

namespace {

template <class Number>
std::optional<Number> numberFromText(std::string_view text) {
  Number number = 0;
  auto const * const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

IpGenAddr addressOf(AddressFamily family, std::span<std::uint8_t const> octets) {
  if (family == AddressFamily::ipv4) {
    Plexa::Ip4Addr address;
    std::ranges::copy(octets, address.bytes.begin());
    return IpGenAddr(address);
  }
  Plexa::Ip6Addr address;
  std::ranges::copy(octets, address.bytes.begin());
  return IpGenAddr(address);
}

/// The address with each bit behind the first `length` as `bit` says.
IpGenAddr withHostBits(IpGenAddr const & address, unsigned length, bool bit) {
  std::array<std::uint8_t, 16> octets{};
  auto const given = address.octets();
  for (std::size_t i = 0; i != given.size(); ++i) {
    auto const bits = std::clamp(static_cast<int>(length) - 8 * static_cast<int>(i), 0, 8);
    auto const hostMask = static_cast<std::uint8_t>(0xff >> bits);
    octets[i] = static_cast<std::uint8_t>(bit ? given[i] | hostMask : given[i] & ~hostMask);
  }
  return addressOf(address.family(), std::span(octets).first(given.size()));
}

std::optional<Selector> networkFromText(std::string_view text) {
  auto const slash = text.find('/');
  auto const address = IpGenAddr::fromString(text.substr(0, slash));
  if (!address || address->family() == AddressFamily::none)
    return std::nullopt;
  if (slash == std::string_view::npos)
    return Selector{.first = *address, .last = *address};
  auto const length = numberFromText<unsigned>(text.substr(slash + 1));
  if (!length || *length > 8 * address->octets().size())
    return std::nullopt;
  return Selector{.first = withHostBits(*address, *length, false),
                  .last = withHostBits(*address, *length, true)};
}

std::optional<Selector> rangeFromText(std::string_view first, std::string_view last) {
  auto const from = IpGenAddr::fromString(first);
  auto const to = IpGenAddr::fromString(last);
  if (!from || !to || from->family() == AddressFamily::none || from->family() != to->family() ||
      std::ranges::lexicographical_compare(to->octets(), from->octets()))
    return std::nullopt;
  return Selector{.first = *from, .last = *to};
}

std::optional<Selector> addressesFromText(std::string_view text) {
  if (text == dynamic)
    return Selector{};
  auto const dots = text.find("..");
  return dots == std::string_view::npos
             ? networkFromText(text)
             : rangeFromText(text.substr(0, dots), text.substr(dots + 2));
}

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

// The name "ipip" is that of another protocol than IP in IP, which is "ipencap" or "ipv4".
std::optional<std::uint8_t> protocolFromText(std::string_view text) {
  static constexpr std::pair<std::string_view, std::uint8_t> names[] = {
      {"ip", 0},  {"icmp", 1},    {"ipencap", 4},    {"ip-encap", 4}, {"ipv4", 4},
      {"tcp", 6}, {"udp", 17},    {"ipv6", 41},      {"gre", 47},     {"esp", 50},
      {"ah", 51}, {"icmpv6", 58}, {"ipv6-icmp", 58}, {"ipip", 94}};
  auto const name = lowerCase(text);
  auto const * const found = std::ranges::find(names, name, [](auto & one) { return one.first; });
  return found == std::end(names) ? numberFromText<std::uint8_t>(text) : found->second;
}

bool readPorts(std::string_view text, Selector & selector) {
  if (lowerCase(text) == "opaque")
    return true;
  auto const dash = text.find('-');
  auto const first = numberFromText<std::uint16_t>(text.substr(0, dash));
  auto const last =
      dash == std::string_view::npos ? first : numberFromText<std::uint16_t>(text.substr(dash + 1));
  if (!first || !last || *first > *last)
    return false;
  selector.firstPort = *first;
  selector.lastPort = *last;
  return true;
}

bool readProtocolAndPorts(std::string_view text, Selector & selector) {
  auto const slash = text.find('/');
  auto const protocol = protocolFromText(text.substr(0, slash));
  if (!protocol)
    return false;
  selector.protocol = *protocol;
  return slash == std::string_view::npos || readPorts(text.substr(slash + 1), selector);
}

} // namespace

} // namespace Sources::Ike
