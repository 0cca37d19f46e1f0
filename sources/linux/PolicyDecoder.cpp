// The kernel's structures, copied out of the message: its alignment is less than theirs.
#include "sources/linux/PolicyDecoder.h"
#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>

namespace Sources::Linux {
namespace {

/// The kernel itself allows six.
constexpr std::size_t mostTemplates = 6;

PolicyMessage decodeNew(Bytes payload);
PolicyMessage decodeGone(Bytes payload);
PolicyMessage decodeExpired(Bytes payload);
PolicyMessage decodeFlush(Bytes payload);
bool isMain(Attributes const & attributes);
Policy policyOf(xfrm_userpolicy_info const & info, Attributes const & attributes);
PolicySelector selectorOf(xfrm_selector const & selector);
std::vector<PolicyTemplate> templatesOf(Attributes const & attributes);
PolicyTemplate templateOf(xfrm_user_tmpl const & one);

} // namespace

bool PolicyTemplate::demandsIpsec() const {
  return !isOptional && (protocol == IPPROTO_ESP || protocol == IPPROTO_AH);
}

bool Policy::demandsIpsec() const {
  return isAllowed &&
         std::ranges::any_of(templates, [](auto const & one) { return one.demandsIpsec(); });
}

PolicyMessage decodePolicy(Bytes message) try {
  switch (messageHeader(message).nlmsg_type) {
  case XFRM_MSG_NEWPOLICY:
  case XFRM_MSG_UPDPOLICY:
    return decodeNew(messagePayload(message, sizeof(xfrm_userpolicy_info), "a policy"));
  case XFRM_MSG_DELPOLICY:
    return decodeGone(messagePayload(message, sizeof(xfrm_userpolicy_id), "a deleted policy"));
  case XFRM_MSG_POLEXPIRE:
    return decodeExpired(messagePayload(message, sizeof(xfrm_user_polexpire), "an old policy"));
  case XFRM_MSG_FLUSHPOLICY:
    return decodeFlush(messagePayload(message, 0, "a flush"));
  default:
    return OtherMessage();
  }
} catch (MalformedMessage const & malformed) {
  return malformed;
}

namespace {

bool isOfSocket(std::uint8_t direction) {
  return direction >= XFRM_POLICY_MAX;
}

PolicyMessage decodeNew(Bytes payload) {
  auto const info = structureOf<xfrm_userpolicy_info>(payload);
  try {
    auto const attributes = attributesBehind<xfrm_userpolicy_info>(payload);
    if (isOfSocket(info.dir) || !isMain(attributes))
      return OtherMessage();
    return PolicyIs{policyOf(info, attributes)};
  } catch (MalformedMessage & malformed) {
    malformed.index = info.index;
    throw;
  }
}

// The header has the selector or the index, as the deletion was asked for; the attribute has all.
PolicyMessage decodeGone(Bytes payload) {
  auto const attributes = attributesBehind<xfrm_userpolicy_id>(payload);
  auto const info = attributes.value<xfrm_userpolicy_info>(XFRMA_POLICY);
  if (!attributes.has(XFRMA_POLICY))
    throw MalformedMessage{"it does not say which policy is deleted"};
  if (isOfSocket(info.dir) || !isMain(attributes))
    return OtherMessage();
  return PolicyGone{info.index};
}

// The soft limit is only a warning to who negotiates keys.
PolicyMessage decodeExpired(Bytes payload) {
  auto const expired = structureOf<xfrm_user_polexpire>(payload);
  auto const isAbout = isMain(attributesBehind<xfrm_user_polexpire>(payload));
  if (expired.hard == 0 || isOfSocket(expired.pol.dir) || !isAbout)
    return OtherMessage();
  return PolicyGone{expired.pol.index};
}

PolicyMessage decodeFlush(Bytes payload) {
  return isMain(Attributes(payload)) ? PolicyMessage(PoliciesFlushed()) : OtherMessage();
}

bool isMain(Attributes const & attributes) {
  return attributes.value<xfrm_userpolicy_type>(XFRMA_POLICY_TYPE).type == XFRM_POLICY_TYPE_MAIN;
}

Policy policyOf(xfrm_userpolicy_info const & info, Attributes const & attributes) {
  return {.index = info.index,
          .direction = static_cast<Policy::Direction>(info.dir),
          .priority = info.priority,
          .isAllowed = info.action == XFRM_POLICY_ALLOW,
          .selector = selectorOf(info.sel),
          .mark = markOf(attributes),
          .ifId = attributes.u32(XFRMA_IF_ID),
          .templates = templatesOf(attributes)};
}

PolicySelector selectorOf(xfrm_selector const & selector) {
  auto const family = familyOf(selector.family);
  auto const longest = addressOf(selector.saddr, family).octets().size() * 8;
  if (selector.prefixlen_s > longest || selector.prefixlen_d > longest)
    throw MalformedMessage{fmt::format("its prefixes have {} and {} bits, where {} are most",
                                       selector.prefixlen_s, selector.prefixlen_d, longest)};
  auto const port = [](std::uint16_t number) { return ntohs(number); };
  return {.family = family,
          .source = maskedAddress(addressOf(selector.saddr, family), selector.prefixlen_s),
          .destination = maskedAddress(addressOf(selector.daddr, family), selector.prefixlen_d),
          .sourceLength = selector.prefixlen_s,
          .destinationLength = selector.prefixlen_d,
          .protocol = selector.proto,
          .sourcePort = port(selector.sport & selector.sport_mask),
          .sourcePortMask = port(selector.sport_mask),
          .destinationPort = port(selector.dport & selector.dport_mask),
          .destinationPortMask = port(selector.dport_mask),
          .interface = static_cast<std::uint32_t>(selector.ifindex)};
}

std::vector<PolicyTemplate> templatesOf(Attributes const & attributes) {
  auto const * const found = attributes.find(XFRMA_TMPL);
  auto octets = found == nullptr ? Bytes() : valueOf(*found);
  auto const count = octets.size() / sizeof(xfrm_user_tmpl);
  if (octets.size() % sizeof(xfrm_user_tmpl) != 0 || count > mostTemplates)
    throw MalformedMessage{fmt::format("its templates have {} bytes", octets.size())};
  std::vector<PolicyTemplate> templates;
  templates.reserve(count);
  for (; !octets.empty(); octets = octets.subspan(sizeof(xfrm_user_tmpl)))
    templates.push_back(templateOf(structureOf<xfrm_user_tmpl>(octets)));
  return templates;
}

// In transport mode the family is 0 in some kernels, and there is no address to be read by it.
PolicyTemplate templateOf(xfrm_user_tmpl const & one) {
  PolicyTemplate result{.protocol = one.id.proto,
                        .mode = static_cast<XfrmMode>(one.mode),
                        .isOptional = one.optional != 0,
                        .reqid = one.reqid,
                        .spi = ntohl(one.id.spi)};
  if (!hasEndpoints(result.mode))
    return result;
  auto const family = familyOf(one.family);
  result.source = endpointOf(one.saddr, family);
  result.destination = endpointOf(one.id.daddr, family);
  return result;
}

} // namespace
} // namespace Sources::Linux
