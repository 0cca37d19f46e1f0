// Which tunnels a rescan has to try. Every tunnel without a row may be one that could have one now;
// trying each of them after each event costs the square of their number. A tunnel that was tried in
// vain waits for something, and until that happens trying it again is in vain as well:
//
//   its key is taken               until that row goes
//   its ifIndex has another's row  until that slot of the store goes
//   it lacks an ifIndex, a status  until an event of its own, which tries it anyway
//   or an address
//
// A tunnel is here at most once; most tunnels have their row and are not here at all.
#pragma once

#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Interface.h"
#include <cstdint>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <variant>

namespace TunnelIntfSnmp {

class WaitingTunnels {
public:
  /// The tunnel was tried in vain, for this reason.
  void waitsForKey(Plexa::IntfId intfId, TunnelInetConfigTableKey const & key);
  void waitsForSlot(Plexa::IntfId intfId, std::uint32_t ifIndex);
  /// The tunnel has a row, or nothing but an event of its own can give it one.
  void forget(Plexa::IntfId intfId);

  /// The tunnel has to be tried.
  void wake(Plexa::IntfId intfId);
  /// What the tunnels of that key, or of that ifIndex, waited for has happened: they have to be
  /// tried.
  void keyFreed(TunnelInetConfigTableKey const & key);
  void slotFreed(std::uint32_t ifIndex);

  /// The first tunnel to try that comes behind `position` in the order in which the statuses are
  /// iterated; without a position the very first. It stays one to try.
  std::optional<Plexa::IntfId> nextToTry(std::optional<Plexa::IntfId> position) const;

private:
  struct ToTry {};
  using Reason = std::variant<ToTry, TunnelInetConfigTableKey, std::uint32_t>;
  struct StatusOrder {
    bool operator()(Plexa::IntfId left, Plexa::IntfId right) const {
      return Interface::TunnelIntfStatusDir::IntfStatus::comesBefore(left, right);
    }
  };
  template <class Thing>
  using Waiting = std::set<std::pair<Thing, Plexa::IntfId>>;
  struct HashOfId {
    std::size_t operator()(Plexa::IntfId intfId) const { return intfId.hash(0); }
  };

  void fileAs(Plexa::IntfId intfId, Reason reason);
  template <class Thing>
  void wakeAll(Waiting<Thing> & waiting, Thing const & thing);

  std::unordered_map<Plexa::IntfId, Reason, HashOfId> reasons_; // of every tunnel in one of these:
  std::set<Plexa::IntfId, StatusOrder> toTry_;
  Waiting<TunnelInetConfigTableKey> byKey_;
  Waiting<std::uint32_t> bySlot_;
};

} // namespace TunnelIntfSnmp
