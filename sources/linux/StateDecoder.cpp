// The kernel's structures, copied out of the message: its alignment is less than theirs.
#include "sources/linux/StateDecoder.h"
#include <arpa/inet.h>

namespace Sources::Linux {
namespace {

StateMessage decodeNew(Bytes payload);
StateMessage decodeGone(Bytes payload);
StateMessage decodeExpired(Bytes payload);
StateId idOf(xfrm_usersa_info const & info, Attributes const & attributes);
bool isUsable(xfrm_usersa_info const & info, Attributes const & attributes);

} // namespace

StateMessage decodeState(Bytes message) try {
  switch (messageHeader(message).nlmsg_type) {
  case XFRM_MSG_NEWSA:
  case XFRM_MSG_UPDSA:
    return decodeNew(messagePayload(message, sizeof(xfrm_usersa_info), "a state"));
  case XFRM_MSG_DELSA:
    return decodeGone(messagePayload(message, sizeof(xfrm_usersa_id), "a deleted state"));
  case XFRM_MSG_EXPIRE:
    return decodeExpired(messagePayload(message, sizeof(xfrm_user_expire), "an old state"));
  case XFRM_MSG_FLUSHSA:
    return StatesFlushed();
  default:
    return OtherMessage();
  }
} catch (MalformedMessage const & malformed) {
  return malformed;
}

namespace {

StateMessage decodeNew(Bytes payload) {
  auto const info = structureOf<xfrm_usersa_info>(payload);
  auto const attributes = attributesBehind<xfrm_usersa_info>(payload);
  return StateIs{idOf(info, attributes), isUsable(info, attributes)};
}

// The header has only what the deletion was asked for by; the attribute has all.
StateMessage decodeGone(Bytes payload) {
  auto const attributes = attributesBehind<xfrm_usersa_id>(payload);
  if (!attributes.has(XFRMA_SA))
    throw MalformedMessage{"it does not say which state is deleted"};
  return StateGone{idOf(attributes.value<xfrm_usersa_info>(XFRMA_SA), attributes)};
}

// The soft limit is only a warning to who negotiates keys.
StateMessage decodeExpired(Bytes payload) {
  auto const expired = structureOf<xfrm_user_expire>(payload);
  if (expired.hard == 0)
    return OtherMessage();
  return StateGone{idOf(expired.state, attributesBehind<xfrm_user_expire>(payload))};
}

StateId idOf(xfrm_usersa_info const & info, Attributes const & attributes) {
  auto const family = familyOf(info.family);
  return {.source = endpointOf(info.saddr, family),
          .destination = endpointOf(info.id.daddr, family),
          .protocol = info.id.proto,
          .mode = static_cast<XfrmMode>(info.mode),
          .spi = ntohl(info.id.spi),
          .reqid = info.reqid,
          .ifId = attributes.u32(XFRMA_IF_ID),
          .mark = markOf(attributes)};
}

/// True if and only if there is a limit and it is reached.
bool isReached(std::uint64_t limit, std::uint64_t used) {
  return limit != 0 && used >= limit;
}

// A state that only has its number was made by who negotiates its keys.
bool isUsable(xfrm_usersa_info const & info, Attributes const & attributes) {
  auto const hasKeys = attributes.has(XFRMA_ALG_AUTH) || attributes.has(XFRMA_ALG_AUTH_TRUNC) ||
                       attributes.has(XFRMA_ALG_CRYPT) || attributes.has(XFRMA_ALG_AEAD) ||
                       attributes.has(XFRMA_ALG_COMP);
  return info.id.spi != 0 && hasKeys && !isReached(info.lft.hard_byte_limit, info.curlft.bytes) &&
         !isReached(info.lft.hard_packet_limit, info.curlft.packets);
}

} // namespace
} // namespace Sources::Linux
