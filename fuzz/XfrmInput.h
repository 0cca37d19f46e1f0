// Input for the decoders of XFRM messages.
#pragma once

#include "sources/linux/NetlinkMessage.h"
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <span>
#include <vector>

namespace Fuzz {

/// Calls `decode` with the input as it is, and then as a message of the right length of each type,
/// past the first checks.
template <class Decode>
void forEachType(std::uint8_t const * data, std::size_t size, std::span<std::uint16_t const> types,
                 Decode decode) {
  std::vector<std::uint8_t> bytes(data, data + size);
  decode(std::as_bytes(std::span(bytes)));
  if (size < sizeof(nlmsghdr))
    return;
  for (auto const type : types) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(size);
    header.nlmsg_type = type;
    std::memcpy(bytes.data(), &header, sizeof header);
    decode(std::as_bytes(std::span(bytes)));
  }
}

} // namespace Fuzz
