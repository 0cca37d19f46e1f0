// Chains of links through one array, so that ten thousand links take few allocations.
#include "sources/ike/LinkIndex.h"
#include "platform/zel/Hash.h"
#include <algorithm>

namespace Sources::Ike {

namespace {

/// Of a key between endpoints; equal for others too, once in a while.
std::uint64_t keyMark(std::uint32_t key, Endpoints const & endpoints) {
  return std::uint64_t{key} << 32 | static_cast<std::uint32_t>(EndpointsHash()(endpoints));
}

} // namespace

std::size_t EndpointsHash::operator()(Endpoints const & endpoints) const {
  Zel::Hash hash;
  hash.mix(endpoints.local.octets()).mix(endpoints.remote.octets());
  return hash.result();
}

Endpoints endpointsOf(Link const & link) {
  return {link.local.isAddrZero() ? Plexa::IpGenAddr() : link.local, link.remote};
}

bool isVti(Link const & link) {
  return link.kind == "vti" || link.kind == "vti6";
}

std::vector<std::uint8_t> const & protocolsOf(std::string_view kind) {
  struct KindProtocols {
    std::string_view kind;
    std::vector<std::uint8_t> protocols;
  };
  static std::vector<KindProtocols> const all{
      {"gre", {47}},       {"gretap", {47}},    {"erspan", {47}}, {"ip6gre", {47}},
      {"ip6gretap", {47}}, {"ip6erspan", {47}}, {"ipip", {4}},    {"sit", {41}},
      {"ip6tnl", {4, 41}}, {"vxlan", {17}},     {"geneve", {17}}};
  static std::vector<std::uint8_t> const unknown;
  auto const found = std::ranges::find(all, kind, &KindProtocols::kind);
  return found == all.end() ? unknown : found->protocols;
}

LinkIndex::LinkIndex(Links const & links) {
  entries_.reserve(2 * links.size());
  links.forEach([this](Link const & link) {
    if (link.kind == "xfrm" && link.ifId.value_or(0) != 0)
      add(byIfId_, *link.ifId, link);
    if (link.remote.isAddrZero())
      return;
    add(byEndpoints_, endpointsOf(link), link);
    if (isVti(link) && link.outputKey)
      add(byKey_, keyMark(*link.outputKey, endpointsOf(link)), link);
  });
}

LinkIndex::Found LinkIndex::withIfId(std::uint32_t ifId) const {
  return collect(byIfId_, ifId, [](Link const &) { return true; });
}

LinkIndex::Found LinkIndex::withKey(std::uint32_t key, Endpoints const & endpoints) const {
  return collect(byKey_, keyMark(key, endpoints), [&](Link const & link) {
    return link.outputKey == key && endpointsOf(link) == endpoints;
  });
}

LinkIndex::Found LinkIndex::between(Endpoints const & endpoints) const {
  return collect(byEndpoints_, endpoints, [](Link const &) { return true; });
}

template <class Heads, class Key>
void LinkIndex::add(Heads & heads, Key const & key, Link const & link) {
  auto const [head, isNew] = heads.try_emplace(key, entries_.size());
  entries_.push_back({&link, isNew ? none : head->second});
  head->second = entries_.size() - 1;
}

template <class Heads, class Key, class Is>
LinkIndex::Found LinkIndex::collect(Heads const & heads, Key const & key, Is is) const {
  Found found;
  auto const head = heads.find(key);
  for (auto at = head == heads.end() ? none : head->second; at != none; at = entries_[at].next)
    if (is(*entries_[at].link))
      found.push_back(entries_[at].link);
  return found;
}

} // namespace Sources::Ike
