// One tree for all that links are found by. Of addresses and keys it has hashes, which are small
// and quickly compared; what is found under one is compared with the link itself.
#include "sources/ike/LinkIndex.h"
#include "platform/zel/Hash.h"
#include <algorithm>
#include <new>

namespace Sources::Ike {

namespace {

bool hasIfId(Link const & link) {
  return link.kind == "xfrm" && link.ifId.value_or(0) != 0;
}

bool hasEndpoints(Link const & link) {
  return !link.remote.isAddrZero();
}

bool hasKey(Link const & link) {
  return isVti(link) && link.outputKey && hasEndpoints(link);
}

/// By what a link is found.
enum class By : std::uint32_t { ifId, endpoints, key };

Zel::Hash markOf(By by) {
  return Zel::Hash(static_cast<std::uint32_t>(by));
}

std::uint32_t ifIdMark(std::uint32_t ifId) {
  return markOf(By::ifId).mix(ifId).result();
}

std::uint32_t endpointsMark(Endpoints const & endpoints) {
  return markOf(By::endpoints)
      .mix(endpoints.local.octets())
      .mix(endpoints.remote.octets())
      .result();
}

std::uint32_t keyMark(std::uint32_t key, Endpoints const & endpoints) {
  return markOf(By::key).mix(key).mix(endpointsMark(endpoints)).result();
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

LinkIndex::LinkIndex(Links & links)
    : links_(links),
      watch_(links.watch([this](Plexa::IntfId intfId) { linkHasChanged(intfId); })) {
  build();
}

LinkIndex::Found LinkIndex::withIfId(std::uint32_t ifId) const {
  return collect(ifIdMark(ifId),
                 [&](Link const & link) { return hasIfId(link) && link.ifId == ifId; });
}

LinkIndex::Found LinkIndex::withKey(std::uint32_t key, Endpoints const & endpoints) const {
  return collect(keyMark(key, endpoints), [&](Link const & link) {
    return hasKey(link) && link.outputKey == key && endpointsOf(link) == endpoints;
  });
}

LinkIndex::Found LinkIndex::between(Endpoints const & endpoints) const {
  return collect(endpointsMark(endpoints), [&](Link const & link) {
    return hasEndpoints(link) && endpointsOf(link) == endpoints;
  });
}

LinkIndex::Marks LinkIndex::marksOf(Link const & link) {
  Marks marks;
  auto & [byIfId, byEndpoints, byKey] = marks;
  if (hasIfId(link))
    byIfId = ifIdMark(*link.ifId);
  if (hasEndpoints(link))
    byEndpoints = endpointsMark(endpointsOf(link));
  if (hasKey(link))
    byKey = keyMark(*link.outputKey, endpointsOf(link));
  return marks;
}

// What is not whole is not worth its memory, which is short.
void LinkIndex::linkHasChanged(Plexa::IntfId intfId) {
  if (!isWhole_)
    return;
  auto const * link = links_.find(intfId);
  try {
    marksAre(intfId, link == nullptr ? Marks() : marksOf(*link));
  } catch (std::bad_alloc const &) {
    isWhole_ = false;
    marks_.clear();
    byMark_.clear();
  }
}

void LinkIndex::marksAre(Plexa::IntfId intfId, Marks const & marks) const {
  auto const known = marks_.find(intfId);
  auto const before = known == marks_.end() ? Marks() : known->second;
  if (marks == before)
    return;
  for (auto const & mark : before)
    if (mark)
      byMark_.erase({*mark, intfId});
  for (auto const & mark : marks)
    if (mark)
      byMark_.insert({*mark, intfId});
  if (marks == Marks())
    marks_.erase(known);
  else
    marks_[intfId] = marks;
}

void LinkIndex::build() const {
  marks_.clear();
  byMark_.clear();
  links_.forEach([this](Link const & link) { marksAre(link.intfId, marksOf(link)); });
  isWhole_ = true;
}

template <class Is>
LinkIndex::Found LinkIndex::collect(Mark mark, Is is) const {
  if (!isWhole_)
    build();
  Found found;
  for (auto at = byMark_.lower_bound({mark, Plexa::IntfId()});
       at != byMark_.end() && at->first == mark; ++at)
    if (auto const & link = *links_.find(at->second); is(link))
      found.push_back(&link);
  return found;
}

} // namespace Sources::Ike
