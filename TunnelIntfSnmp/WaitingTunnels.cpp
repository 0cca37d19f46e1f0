// The tunnels without a row, by what they wait for.
#include "TunnelIntfSnmp/WaitingTunnels.h"

namespace TunnelIntfSnmp {

void WaitingTunnels::waitsForKey(Plexa::IntfId intfId, TunnelInetConfigTableKey const & key) {
  fileAs(intfId, key);
  byKey_.emplace(key, intfId);
}

void WaitingTunnels::waitsForSlot(Plexa::IntfId intfId, std::uint32_t ifIndex) {
  fileAs(intfId, ifIndex);
  bySlot_.emplace(ifIndex, intfId);
}

void WaitingTunnels::forget(Plexa::IntfId intfId) {
  if (reasons_.empty())
    return;
  auto const found = reasons_.find(intfId);
  if (found == reasons_.end())
    return;
  if (auto const * key = std::get_if<TunnelInetConfigTableKey>(&found->second))
    byKey_.erase({*key, intfId});
  else if (auto const * ifIndex = std::get_if<std::uint32_t>(&found->second))
    bySlot_.erase({*ifIndex, intfId});
  else
    toTry_.erase(intfId);
  reasons_.erase(found);
}

void WaitingTunnels::wake(Plexa::IntfId intfId) {
  if (toTry_.contains(intfId))
    return;
  fileAs(intfId, ToTry());
  toTry_.insert(intfId);
}

void WaitingTunnels::keyFreed(TunnelInetConfigTableKey const & key) {
  wakeAll(byKey_, key);
}

void WaitingTunnels::slotFreed(std::uint32_t ifIndex) {
  wakeAll(bySlot_, ifIndex);
}

std::optional<Plexa::IntfId>
WaitingTunnels::nextToTry(std::optional<Plexa::IntfId> position) const {
  auto const next = position ? toTry_.upper_bound(*position) : toTry_.begin();
  return next == toTry_.end() ? std::nullopt : std::optional(*next);
}

void WaitingTunnels::fileAs(Plexa::IntfId intfId, Reason reason) {
  forget(intfId);
  reasons_.emplace(intfId, std::move(reason));
}

template <class Thing>
void WaitingTunnels::wakeAll(Waiting<Thing> & waiting, Thing const & thing) {
  for (auto next = waiting.lower_bound({thing, Plexa::IntfId()});
       next != waiting.end() && next->first == thing;
       next = waiting.lower_bound({thing, Plexa::IntfId()}))
    wake(Plexa::IntfId(next->second));
}

} // namespace TunnelIntfSnmp
