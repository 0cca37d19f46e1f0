// Sets in order of address: a prefix is a range of them.
#include "sources/linux/LinkFlows.h"
#include <algorithm>

namespace Sources::Linux {
namespace {

bool isAbout(Policy const & policy, LinkFlows::Entry const & entry) {
  return std::ranges::any_of(entry.flows, [&](Flow const & flow) { return covers(policy, flow); });
}

} // namespace

LinkFlows::Entry const * LinkFlows::find(Plexa::IntfId intfId) const {
  auto const found = entries_.find(intfId);
  return found == entries_.end() ? nullptr : &found->second;
}

std::optional<Plexa::IntfId> LinkFlows::next(std::optional<Plexa::IntfId> behind) const {
  auto const next = behind ? entries_.upper_bound(*behind) : entries_.begin();
  return next == entries_.end() ? std::nullopt : std::optional(next->first);
}

bool LinkFlows::linkIs(Link const & link) {
  auto const entry = entryOf(link);
  auto const * const before = find(link.intfId);
  if ((before == nullptr && entry == Entry()) || (before != nullptr && *before == entry))
    return false;
  linkDel(link.intfId);
  if (entry != Entry())
    enter(link.intfId, entry);
  return true;
}

bool LinkFlows::linkDel(Plexa::IntfId intfId) {
  auto const found = entries_.find(intfId);
  if (found == entries_.end())
    return false;
  leave(intfId, found->second);
  entries_.erase(found);
  return true;
}

bool LinkFlows::findConcerned(Policy const & policy, absl::btree_set<Plexa::IntfId> & links) const {
  if (policy.ifId == 0 && policy.mark.covers(0))
    return findByFlow(policy, links);
  if (policy.ifId == 0)
    return findByMark(policy.mark, links);
  auto const last = work_.links + mostLooks;
  for (auto next = byIfId_.lower_bound({policy.ifId, Plexa::IntfId()});
       next != byIfId_.end() && next->first == policy.ifId; ++next) {
    if (++work_.links > last)
      return false;
    links.insert(next->second);
  }
  return true;
}

LinkFlows::Address LinkFlows::keyOf(Plexa::IpGenAddr const & address) {
  Address key{address.family(), {}};
  std::ranges::copy(address.octets(), key.second.begin());
  return key;
}

LinkFlows::Entry LinkFlows::entryOf(Link const & link) const {
  Entry entry{.flows = flowsOf(link), .isRouted = isSentAsRouted(link)};
  if (entry.isRouted)
    entry.flows = flowsOf(asRouted(link));
  if (link.isCarriedElsewhere)
    return entry;
  if (link.kind == "xfrm" && link.ifId.value_or(0) != 0)
    entry.ifId = link.ifId;
  if ((link.kind == "vti" || link.kind == "vti6") && link.outputKey) {
    entry.mark = link.outputKey;
    entry.local = link.local;
    entry.remote = link.remote;
  }
  return entry;
}

Link LinkFlows::asRouted(Link link) const {
  link.local = sourceOfRoute_(link.remote);
  return link;
}

void LinkFlows::enter(Plexa::IntfId intfId, Entry const & entry) {
  entries_[intfId] = entry;
  if (!entry.flows.empty()) {
    byLocal_.insert({keyOf(entry.flows.front().local), intfId});
    byRemote_.insert({keyOf(entry.flows.front().remote), intfId});
  }
  if (entry.ifId)
    byIfId_.insert({*entry.ifId, intfId});
  if (entry.mark)
    byMark_.insert({*entry.mark, intfId});
}

void LinkFlows::leave(Plexa::IntfId intfId, Entry const & entry) {
  if (!entry.flows.empty()) {
    byLocal_.erase({keyOf(entry.flows.front().local), intfId});
    byRemote_.erase({keyOf(entry.flows.front().remote), intfId});
  }
  if (entry.ifId)
    byIfId_.erase({*entry.ifId, intfId});
  if (entry.mark)
    byMark_.erase({*entry.mark, intfId});
}

// A policy's address is the first one of its prefix.
bool LinkFlows::findByFlow(Policy const & policy, absl::btree_set<Plexa::IntfId> & links) const {
  auto const & selector = policy.selector;
  auto const byRemote = selector.destinationLength >= selector.sourceLength;
  auto const & set = byRemote ? byRemote_ : byLocal_;
  auto const & prefix = byRemote ? selector.destination : selector.source;
  auto const length = byRemote ? selector.destinationLength : selector.sourceLength;
  auto const last = work_.links + mostLooks;
  for (auto next = set.lower_bound({keyOf(prefix), Plexa::IntfId()}); next != set.end(); ++next) {
    auto const & entry = entries_.find(next->second)->second;
    auto const & flow = entry.flows.front();
    if (++work_.links > last)
      return false;
    if (maskedAddress(byRemote ? flow.remote : flow.local, length) != prefix)
      return true;
    if (isAbout(policy, entry))
      links.insert(next->second);
  }
  return true;
}

// Of a mask that leaves out bits any mark may be meant; such are rare.
bool LinkFlows::findByMark(Mark const & mark, absl::btree_set<Plexa::IntfId> & links) const {
  auto const isWhole = mark.mask == UINT32_MAX;
  auto next = isWhole ? byMark_.lower_bound({mark.value, Plexa::IntfId()}) : byMark_.begin();
  auto const last = work_.links + mostLooks;
  for (; next != byMark_.end() && (!isWhole || next->first == mark.value); ++next) {
    if (++work_.links > last)
      return false;
    if (mark.covers(next->first))
      links.insert(next->second);
  }
  return true;
}

} // namespace Sources::Linux
