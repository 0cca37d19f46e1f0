// Walks over attributes by hand. Not by libnl's accessors: a reading of all links would call those
// some eighty times for each link.
#include "sources/linux/NetlinkMessage.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <linux/netlink.h>

namespace Sources::Linux {
namespace {

constexpr std::size_t attributeHeader = NLA_HDRLEN;

template <class Address>
Plexa::IpGenAddr addressOf(Bytes octets) {
  Address result;
  std::memcpy(result.bytes.data(), octets.data(), result.bytes.size());
  return result == Address() ? Plexa::IpGenAddr() : Plexa::IpGenAddr(result);
}

} // namespace

nlmsghdr const & messageHeader(Bytes message) {
  LUMO_ASSERT(reinterpret_cast<std::uintptr_t>(message.data()) % NLMSG_ALIGNTO == 0,
              "a netlink message lies at an odd address");
  auto const * const head = reinterpret_cast<nlmsghdr const *>(message.data());
  if (message.size() < sizeof *head || head->nlmsg_len > message.size())
    throw MalformedMessage{fmt::format("it is cut off after {} bytes", message.size())};
  return *head;
}

Bytes messagePayload(Bytes message, std::size_t fixed, char const * what) {
  auto const length = messageHeader(message).nlmsg_len;
  if (length < NLMSG_HDRLEN + fixed)
    throw MalformedMessage{fmt::format("its {} bytes are too few for {}", length, what)};
  return message.subspan(NLMSG_HDRLEN, length - NLMSG_HDRLEN);
}

Bytes valueOf(nlattr const & attribute) {
  auto const all = Bytes(reinterpret_cast<std::byte const *>(&attribute), attribute.nla_len);
  return all.subspan(attributeHeader);
}

Attributes::Attributes(Bytes bytes) {
  while (!bytes.empty()) {
    auto const * const one = reinterpret_cast<nlattr const *>(bytes.data());
    if (bytes.size() < attributeHeader || one->nla_len < attributeHeader ||
        one->nla_len > bytes.size())
      throw MalformedMessage{fmt::format("an attribute does not fit into {} bytes", bytes.size())};
    auto const type = static_cast<std::size_t>(one->nla_type & NLA_TYPE_MASK);
    if (type != 0 && type < byType_.size())
      byType_[type] = one;
    bytes = bytes.subspan(std::min<std::size_t>(bytes.size(), NLA_ALIGN(one->nla_len)));
  }
}

bool Attributes::flag(std::uint16_t type) const {
  auto const * const found = find(type);
  return found != nullptr && (valueOf(*found).empty() || u8(type) != 0);
}

std::string_view Attributes::text(std::uint16_t type) const {
  auto const * const found = find(type);
  if (found == nullptr)
    return {};
  auto const value = valueOf(*found);
  auto const * const begin = reinterpret_cast<char const *>(value.data());
  return {begin, strnlen(begin, value.size())};
}

Attributes Attributes::nested(std::uint16_t type) const {
  auto const * const found = find(type);
  return found == nullptr ? Attributes() : Attributes(valueOf(*found));
}

void Attributes::copyTo(std::uint16_t type, std::span<std::byte> to) const {
  auto const * const found = find(type);
  if (found == nullptr)
    return;
  auto const octets = valueOf(*found);
  if (octets.size() < to.size())
    throw MalformedMessage{fmt::format("attribute {} is too short: it has {} bytes instead of {}",
                                       type, octets.size(), to.size())};
  std::memcpy(to.data(), octets.data(), to.size());
}

Plexa::IpGenAddr addressOf(Bytes octets) {
  return octets.size() == Plexa::Ip4Addr().bytes.size() ? addressOf<Plexa::Ip4Addr>(octets)
                                                        : addressOf<Plexa::Ip6Addr>(octets);
}

} // namespace Sources::Linux
