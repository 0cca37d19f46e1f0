// Pairs each local selector with each remote one, as the daemon does when it makes policies.
#include "sources/ike/SelectedLinks.h"
#include <algorithm>
#include <fmt/format.h>

namespace Sources::Ike {

namespace {

constexpr std::size_t selectorsASide = 16;

/// One local selector, one remote selector, and the only addresses that both are for.
struct Pair {
  Selector const & local;
  Selector const & remote;
  Endpoints endpoints;
};

template <class Take>
void forEachPair(Selection const & selection, Take take);
bool isFor(Pair const & pair, Link const & link);
LinkIndex::Found linksOf(LinkIndex const & index, Selection const & selection, Pair const & pair);

} // namespace

LinkIndex::Found selectedLinks(LinkIndex const & index, Selection const & selection) {
  LinkIndex::Found selected;
  forEachPair(selection, [&](Pair const & pair) {
    for (auto const * link : linksOf(index, selection, pair))
      if (isFor(pair, *link) && std::ranges::find(selected, link) == selected.end())
        selected.push_back(link);
  });
  return selected;
}

std::string whyNoneSelected(LinkIndex const & index, Selection const & selection) {
  std::optional<Endpoints> tried;
  Link const * other = nullptr;
  forEachPair(selection, [&](Pair const & pair) {
    tried = tried.value_or(pair.endpoints);
    for (auto const * link : linksOf(index, selection, pair))
      if (other == nullptr || link->intfId < other->intfId)
        other = link;
  });
  if (other != nullptr)
    return fmt::format("the selectors are not for the packets of {}, of kind {}", other->name,
                       other->kind);
  if (!tried)
    return "";
  return fmt::format("no link is between {} and {}", tried->local.stringValue(),
                     tried->remote.stringValue());
}

LinkIndex::Found linksBetween(LinkIndex const & index, Endpoints const & own) {
  auto found = index.between(own);
  auto const open = index.between({Plexa::IpGenAddr(), own.remote});
  found.insert(found.end(), open.begin(), open.end());
  return found;
}

namespace {

/// The only address that the selector is for, in this selection; the empty one if there are more.
Plexa::IpGenAddr onlyAddress(Selection const & selection, Selector const & selector,
                             Plexa::IpGenAddr Endpoints::*side) {
  if (selector.isHost())
    return selector.first;
  if (!selection.own)
    return {};
  auto const & own = (*selection.own).*side;
  auto const isOwn =
      selector.isDynamic() || (selection.mode == Mode::transport && selector.covers(own));
  return isOwn ? own : Plexa::IpGenAddr();
}

template <class Take>
void forEachPair(Selection const & selection, Take take) {
  auto const first = [](std::span<Selector const> all) {
    return all.first(std::min(all.size(), selectorsASide));
  };
  for (auto const & local : first(selection.local))
    for (auto const & remote : first(selection.remote)) {
      Pair const pair{local,
                      remote,
                      {onlyAddress(selection, local, &Endpoints::local),
                       onlyAddress(selection, remote, &Endpoints::remote)}};
      if (!pair.endpoints.local.isAddrZero() && !pair.endpoints.remote.isAddrZero())
        take(pair);
    }
}

LinkIndex::Found linksOf(LinkIndex const & index, Selection const & selection, Pair const & pair) {
  return selection.own == pair.endpoints ? linksBetween(index, pair.endpoints)
                                         : index.between(pair.endpoints);
}

// Packets of vxlan and geneve leave from ports of all numbers.
bool isFor(Pair const & pair, Link const & link) {
  auto const & [local, remote, endpoints] = pair;
  auto const port = link.port.value_or(0);
  auto const goesToPort = link.port ? remote.firstPort <= port && port <= remote.lastPort
                                    : remote.firstPort == 0 && remote.lastPort == 65535;
  return goesToPort && local.firstPort == 0 && local.lastPort == 65535 &&
         std::ranges::any_of(protocolsOf(link.kind), [&](std::uint8_t protocol) {
           return (local.protocol == 0 || local.protocol == protocol) &&
                  (remote.protocol == 0 || remote.protocol == protocol);
         });
}

} // namespace

} // namespace Sources::Ike
