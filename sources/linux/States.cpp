// One ordered map, in which the states that a template may ask for lie side by side.
#include "sources/linux/States.h"
#include <algorithm>
#include <utility>

namespace Sources::Linux {
namespace {

std::array<std::uint8_t, 16> octetsOf(Plexa::IpGenAddr const & address) {
  std::array<std::uint8_t, 16> octets{};
  std::ranges::copy(address.octets(), octets.begin());
  return octets;
}

} // namespace

States::Ends States::endsBehind(PolicyTemplate const & one, Ends const & ends) {
  return hasEndpoints(one.mode) ? Ends{one.source, one.destination} : ends;
}

std::optional<States::Wanted> States::wanted(Policy const & policy, PolicyTemplate const & one,
                                             Ends const & ends) {
  if (ends.destination.isAddrZero())
    return std::nullopt;
  return Wanted{.place = {.family = ends.destination.family(),
                          .destination = octetsOf(ends.destination),
                          .protocol = one.protocol,
                          .mode = one.mode,
                          .reqid = one.reqid,
                          .ifId = policy.ifId},
                .source = ends.source,
                .spi = one.spi,
                .mark = policy.mark.value & policy.mark.mask};
}

States::Place States::placeOf(StateId const & id) {
  return {.family = id.destination.family(),
          .destination = octetsOf(id.destination),
          .protocol = id.protocol,
          .mode = id.mode,
          .reqid = id.reqid,
          .ifId = id.ifId};
}

States::Progress States::progress(Wanted const & wanted) const {
  auto best = Progress::none;
  states_.forEachFrom(Key{wanted.place, {}, 0, 0, 0}, [&](Key const & key, Entry const & entry) {
    if (std::get<Place>(key) != wanted.place)
      return false;
    auto const & id = entry.id;
    auto const isOfOther = wanted.spi != 0 && id.spi != 0 && id.spi != wanted.spi;
    auto const isFromOther =
        !wanted.source.isAddrZero() && !id.source.isAddrZero() && id.source != wanted.source;
    if (!isOfOther && !isFromOther && id.mark.covers(wanted.mark))
      best = std::max(best, entry.isUsable ? Progress::usable : Progress::acquiring);
    return best != Progress::usable;
  });
  return best;
}

bool States::stateIs(StateIs const & state) {
  auto const before = states_.is(keyOf(state.id), {state.id, state.isUsable});
  return !before || before->isUsable != state.isUsable;
}

bool States::stateDel(StateId const & id) {
  return states_.del(keyOf(id)).has_value();
}

bool States::found(StateIs const & state) {
  auto const key = keyOf(state.id);
  if (states_.isNewer(key))
    return false;
  auto const before = states_.found(key, {state.id, state.isUsable});
  return !before || before->isUsable != state.isUsable;
}

std::optional<StateId> States::takeUnseen() {
  auto const key = states_.unseen();
  auto const gone = key ? states_.del(*key) : std::nullopt;
  return gone ? std::optional(gone->id) : std::nullopt;
}

States::Key States::keyOf(StateId const & id) {
  return {placeOf(id), octetsOf(id.source), id.spi, id.mark.value, id.mark.mask};
}

} // namespace Sources::Linux
