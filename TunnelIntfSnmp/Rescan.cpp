// Which tunnels a rescan has to try: what waits for what, and when to walk over all of them. In the
// order of Rescan.h.
#include "TunnelIntfSnmp/Rescan.h"
#include "TunnelIntfSnmp/TunnelInetConfigTableSm.h"
#include <fmt/format.h>

namespace TunnelIntfSnmp {

Rescan::Rescan(TunnelInetConfigTableSm const & machine)
    : machine_(machine),
      silencings_(Zel::silencings()),
      tableVersion_(machine.mib() ? machine.mib()->tunnelInetConfigTable().version() : 0) {}

// What happens

void Rescan::eventOf(Plexa::IntfId intfId) {
  if (machine_.statusOf(intfId))
    tryAgain(intfId);
  else
    forget(intfId);
}

// A tunnel whose row was added was forgotten as it got its slot. What a listener of the row did
// since may have made it one to try again.
void Rescan::tried(Plexa::IntfId intfId, Outcome const & outcome) {
  if (std::holds_alternative<NotTried>(outcome))
    eventOf(intfId);
  else if (std::holds_alternative<NotReady>(outcome) || std::holds_alternative<HasItsSlot>(outcome))
    forget(intfId);
  else if (auto const * taken = std::get_if<KeyTaken>(&outcome))
    waitFor(intfId, taken->key);
  else if (auto const * slot = std::get_if<SlotTaken>(&outcome))
    waitFor(intfId, slot->ifIndex);
}

void Rescan::forget(Plexa::IntfId intfId) {
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

void Rescan::slotGoes(std::uint32_t ifIndex, Plexa::IntfId holder) {
  tryAgain(holder);
  happened(bySlot_, ifIndex);
}

void Rescan::slotTaken(Plexa::IntfId before, Plexa::IntfId holder) {
  if (before != holder)
    tryAgain(before);
  forget(holder);
}

void Rescan::rowComes() {
  tableChanges();
}

void Rescan::rowGoes(TunnelInetConfigTableKey const & key) {
  happened(byKey_, key);
  tableChanges();
}

void Rescan::inputUnheard() {
  unheardMet_ = true;
  survey_ = Survey::incomplete;
}

// The rescan

void Rescan::forEach(TryOne tryOne) {
  std::optional<Plexa::IntfId> behind;
  while (onlyThoseToTry()) { // asked again each time: a listener of a row may change anything
    behind = nextToTry(behind);
    if (!behind)
      return;
    if (auto const status = machine_.statusOf(*behind))
      visit(*behind, *status, tryOne);
    else
      forget(*behind);
  }
  walkFrom(behind, tryOne);
}

bool Rescan::onlyThoseToTry() const {
  return surveyIsComplete() && !walkWouldShow();
}

bool Rescan::surveyIsComplete() const {
  auto const everyTunnelWasTried =
      survey_ == Survey::complete ||
      (survey_ == Survey::byFirstScan && machine_.initialScanDone() &&
       machine_.inputSmScanState()->scan(TunnelInetConfigTableSm::ifMibInput));
  return everyTunnelWasTried && silencings_ == Zel::silencings() && inputsAreHeard() &&
         tableVersion_ == machine_.mib()->tunnelInetConfigTable().version();
}

bool Rescan::inputsAreHeard() const {
  return machine_.intfStatusSm0()->hearsItsInput() &&
         machine_.ifIndexByIntfIdSm2()->hearsItsInput();
}

bool Rescan::walkWouldShow() const {
  auto const trace = machine_.trace();
  return trace.enabled(6) || trace.enabled(7) || trace.enabled(9);
}

std::optional<Plexa::IntfId> Rescan::nextToTry(std::optional<Plexa::IntfId> behind) const {
  auto const next = behind ? toTry_.upper_bound(*behind) : toTry_.begin();
  return next == toTry_.end() ? std::nullopt : std::optional(*next);
}

// Tries every tunnel, or every one behind a position that a rescan has come to.
void Rescan::walkFrom(std::optional<Plexa::IntfId> behind, TryOne tryOne) {
  survey_ = Survey::incomplete; // for a rescan inside this one
  if (!behind)
    walkBegins();
  auto const & statuses = machine_.tunnelIntfStatusDir()->intfStatus();
  statuses.forEachFrom(behind ? statuses.seekBehind(*behind) : statuses.begin(),
                       [&](Plexa::IntfId intfId, StatusPtr const & intfStatus) {
                         if (!intfStatus)
                           return;
                         if (!machine_.intfStatusSm0()->hears(intfId, intfStatus))
                           unheardMet_ = true;
                         visit(intfId, intfStatus, tryOne);
                       });
  if (!behind && !unheardMet_)
    survey_ = Survey::complete;
}

// A walk inside another one begins anew for both: it tries every tunnel again.
void Rescan::walkBegins() {
  ++walks_;
  if (unheardMet_ || silencings_ != Zel::silencings() || !inputsAreHeard())
    ++unheard_;
  silencings_ = Zel::silencings();
  tableVersion_ = machine_.mib()->tunnelInetConfigTable().version();
  unheardMet_ = !inputsAreHeard();
  reasons_.clear();
  toTry_.clear();
  byKey_.clear();
  bySlot_.clear();
}

void Rescan::visit(Plexa::IntfId intfId, StatusPtr const & intfStatus, TryOne tryOne) {
  ++visits_;
  tried(intfId, tryOne(intfId, intfStatus));
}

// What waits for what

void Rescan::tryAgain(Plexa::IntfId intfId) {
  if (!toTry_.contains(intfId))
    waitFor(intfId, ToTry());
}

void Rescan::waitFor(Plexa::IntfId intfId, Reason reason) {
  forget(intfId);
  if (auto const * key = std::get_if<TunnelInetConfigTableKey>(&reason))
    byKey_.emplace(*key, intfId);
  else if (auto const * ifIndex = std::get_if<std::uint32_t>(&reason))
    bySlot_.emplace(*ifIndex, intfId);
  else
    toTry_.insert(intfId);
  reasons_.emplace(intfId, std::move(reason));
}

// The tunnels that waited for the thing are to be tried.
template <class Thing>
void Rescan::happened(Waiting<Thing> & waiting, Thing const & thing) {
  std::pair const first(thing, Plexa::IntfId()); // the least of that thing
  for (auto next = waiting.lower_bound(first); next != waiting.end() && next->first == thing;
       next = waiting.lower_bound(first))
    tryAgain(Plexa::IntfId(next->second));
}

// A version that is not as the machine's own writes make it tells that somebody else wrote.
void Rescan::tableChanges() {
  if (tableVersion_ == machine_.mib()->tunnelInetConfigTable().version())
    ++tableVersion_;
}

// The invariant

std::string Rescan::flaw() const {
  if (!surveyIsComplete())
    return {};
  for (auto const & [intfId, status] : machine_.tunnelIntfStatusDir()->intfStatus()) {
    auto const * ifIndex = machine_.ifMib()->ifIndexByIntfId().find(intfId);
    if (ifIndex == nullptr || !status || status->srcAddr().isAddrZero() ||
        status->dstAddr().isAddrZero())
      continue;
    auto const * slot = machine_.localAttrStore()->tunnelInetConfigByIfIndex().find(*ifIndex);
    if (slot != nullptr && (*slot)->holder() == intfId)
      continue;
    if (!stillHolds(intfId, TunnelInetConfigTableSm::mibKeyOf(*status), *ifIndex))
      return fmt::format("tunnel {} neither holds slot {} nor waits for what holds it back", intfId,
                         *ifIndex);
  }
  return {};
}

bool Rescan::stillHolds(Plexa::IntfId intfId, TunnelInetConfigTableKey const & key,
                        std::uint32_t ifIndex) const {
  auto const reason = reasons_.find(intfId);
  if (reason == reasons_.end())
    return false;
  if (auto const * awaited = std::get_if<TunnelInetConfigTableKey>(&reason->second))
    return *awaited == key && machine_.mib()->tunnelInetConfigTable()[key];
  if (auto const * awaited = std::get_if<std::uint32_t>(&reason->second))
    return *awaited == ifIndex &&
           machine_.localAttrStore()->tunnelInetConfigByIfIndex().find(ifIndex) != nullptr;
  return true;
}

} // namespace TunnelIntfSnmp
