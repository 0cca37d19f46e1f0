// Trees by shape, each by what a shape leaves of a packet, each place of them a ranking.
#include "sources/linux/Policies.h"
#include <algorithm>
#include <utility>

namespace Sources::Linux {
namespace {

/// Room for the ages of the policies of one dump.
constexpr std::int64_t agesOfAReading = std::int64_t{1} << 32;

template <class Octets>
void put(Plexa::IpGenAddr const & address, Octets at) {
  std::ranges::copy(address.octets(), at);
}

template <class Octets>
void put(std::uint16_t port, Octets at) {
  constexpr int octet = 8;
  at[0] = static_cast<std::uint8_t>(port >> octet);
  at[1] = static_cast<std::uint8_t>(port);
}

} // namespace

Policy const * Policies::find(std::uint32_t index) const {
  auto const * const found = entries_.find(index);
  return found == nullptr ? nullptr : &found->policy;
}

// A shape whose source port is the packet's own business cannot be looked up: no policy of it
// covers the flow.
Policy const * Policies::effective(Flow const & flow) const {
  std::optional<Rank> best;
  for (auto const & [shape, table] : byShape_) {
    if (shape.family != flow.local.family() ||
        (shape.protocol != 0 && shape.protocol != flow.protocol) ||
        (shape.sourcePortMask != 0 && !flow.localPort))
      continue;
    ++work_.looks;
    auto const found = table.find(remainsOf(shape, flow));
    if (found != table.end() && (!best || *found->second.begin() < *best))
      best = *found->second.begin();
  }
  return best ? find(best->index) : nullptr;
}

bool Policies::forEachOfInterface(std::uint32_t ifId, Take const & take) const {
  auto const found = byIfId_.find(ifId);
  return found == byIfId_.end() || forEach(found->second, take);
}

bool Policies::forEachOfMark(std::uint32_t mark, Take const & take) const {
  return std::ranges::all_of(byMark_, [&](auto const & ofMask) {
    auto const & [mask, rankings] = ofMask;
    auto const found = rankings.find(mark & mask);
    return found == rankings.end() || forEach(found->second, take);
  });
}

std::optional<Policy> Policies::policyIs(Policy const & policy) {
  Entry const entry{policy, ++newest_};
  return stored(entry, entries_.is(policy.index, entry));
}

std::optional<Policy> Policies::policyDel(std::uint32_t index) {
  auto const gone = entries_.del(index);
  if (!gone)
    return std::nullopt;
  leave(*gone);
  return gone->policy;
}

void Policies::beginReading() {
  entries_.beginReading();
  newest_ += agesOfAReading;
  nextFound_ = newest_;
}

std::optional<Policy> Policies::found(Policy const & policy) {
  if (entries_.isNewer(policy.index))
    return policy;
  Entry const entry{policy, --nextFound_};
  return stored(entry, entries_.found(policy.index, entry));
}

std::optional<Policy> Policies::takeUnseen() {
  auto const index = entries_.unseen();
  return index ? policyDel(*index) : std::nullopt;
}

Policies::Shape Policies::shapeOf(PolicySelector const & selector) {
  return {.family = selector.family,
          .sourceLength = selector.sourceLength,
          .destinationLength = selector.destinationLength,
          .protocol = selector.protocol,
          .sourcePortMask = selector.sourcePortMask,
          .destinationPortMask = selector.destinationPortMask};
}

Policies::Remains Policies::remainsOf(Shape const & shape, Flow const & flow) {
  PolicySelector const left{
      .source = maskedAddress(flow.local, shape.sourceLength),
      .destination = maskedAddress(flow.remote, shape.destinationLength),
      .sourcePort = static_cast<std::uint16_t>(flow.localPort.value_or(0) & shape.sourcePortMask),
      .destinationPort = static_cast<std::uint16_t>(flow.remotePort & shape.destinationPortMask)};
  return remainsOf(left);
}

Policies::Remains Policies::remainsOf(PolicySelector const & selector) {
  constexpr std::size_t destination = 16;
  constexpr std::size_t sourcePort = 32;
  constexpr std::size_t destinationPort = 34;
  Remains remains{};
  put(selector.source, remains.begin());
  put(selector.destination, remains.begin() + destination);
  put(selector.sourcePort, remains.begin() + sourcePort);
  put(selector.destinationPort, remains.begin() + destinationPort);
  return remains;
}

Policies::Rank Policies::rankOf(Entry const & entry) {
  return {entry.policy.priority, entry.age, entry.policy.index};
}

bool Policies::isForFlows(Policy const & policy) {
  return policy.ifId == 0 && policy.mark.covers(0) && policy.selector.interface == 0;
}

std::optional<Policy> Policies::stored(Entry const & entry, std::optional<Entry> before) {
  if (before)
    leave(*before);
  enter(entry);
  return before ? std::optional(std::move(before->policy)) : std::nullopt;
}

void Policies::enter(Entry const & entry) {
  auto const & policy = entry.policy;
  auto const rank = rankOf(entry);
  if (isForFlows(policy))
    enter(byShape_[shapeOf(policy.selector)], remainsOf(policy.selector), rank);
  else if (policy.ifId != 0)
    enter(byIfId_, policy.ifId, rank);
  else if (!policy.mark.covers(0))
    enter(byMark_[policy.mark.mask], policy.mark.value & policy.mark.mask, rank);
}

void Policies::leave(Entry const & entry) {
  auto const & policy = entry.policy;
  auto const rank = rankOf(entry);
  if (isForFlows(policy)) {
    auto const table = byShape_.find(shapeOf(policy.selector));
    leave(table->second, remainsOf(policy.selector), rank);
    if (table->second.empty())
      byShape_.erase(table);
  } else if (policy.ifId != 0) {
    leave(byIfId_, policy.ifId, rank);
  } else if (!policy.mark.covers(0)) {
    auto const table = byMark_.find(policy.mark.mask);
    leave(table->second, policy.mark.value & policy.mark.mask, rank);
    if (table->second.empty())
      byMark_.erase(table);
  }
}

template <class Map>
void Policies::enter(Map & rankings, typename Map::key_type const & key, Rank const & rank) {
  rankings[key].insert(rank);
}

template <class Map>
void Policies::leave(Map & rankings, typename Map::key_type const & key, Rank const & rank) {
  auto const found = rankings.find(key);
  found->second.erase(rank);
  if (found->second.empty())
    rankings.erase(found);
}

bool Policies::forEach(Ranking const & ranking, Take const & take) const {
  return std::ranges::all_of(ranking, [&](Rank const & rank) {
    ++work_.looks;
    return take(*find(rank.index));
  });
}

} // namespace Sources::Linux
