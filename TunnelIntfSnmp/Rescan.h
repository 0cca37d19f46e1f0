// Which tunnels a rescan of tunnelInetConfigTable has to try.
//
// After each event of a status every tunnel without a row may be one that could have one now.
// Trying each of them after each event costs the square of their number. But a tunnel that was
// tried in vain waits for something, and until that happens trying it again is in vain as well:
//
//   outcome of a try                        the tunnel is tried again
//   its row was added                       when its slot of the store goes
//   its key is taken by another row         when that row goes
//   its ifIndex has the slot of another's   when that slot goes
//   it lacks an ifIndex or an address       by an event of its own
//
// The invariant, which holds whenever no event is under way: a tunnel that could have a row (it has
// a status with two addresses, and an ifIndex) holds the slot of its ifIndex, or is to be tried, or
// waits for a reason that still holds, or the survey is not complete.
//
// The survey is complete once every tunnel has been tried, and as long as all that happens to them
// since has been heard. It is incomplete before the first scan with events has tried them all, and
// whenever something may have changed unheard: somebody else wrote to the table, an input or a part
// of the machine had its notification switched off, a record is silent, or an interface has the
// record of another one. Then a rescan walks over all tunnels, as it does where a trace would show
// the walk. A walk tries every tunnel, and asks of each whether it is heard from now on. If all
// are, the survey is complete again.
//
// The outcome of both ways is the same, down to the order of what is told, as long as this machine
// hears of a changed value before another listener answers to it with further changes.
#pragma once

#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Interface.h"
#include <absl/functional/function_ref.h>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>

namespace TunnelIntfSnmp {

class TunnelInetConfigTableSm;

/// What became of a try to add a tunnel's row.
struct NotTried {}; ///< the event was about a removal, passed the tunnel over, or was overtaken
struct Added {};
struct HasItsSlot {}; ///< and needs no row
struct NotReady {};   ///< it lacks an ifIndex or an address
struct KeyTaken {
  TunnelInetConfigTableKey key;
};
struct SlotTaken {
  std::uint32_t ifIndex;
};
using Outcome = std::variant<NotTried, Added, HasItsSlot, NotReady, KeyTaken, SlotTaken>;

class Rescan {
public:
  /// Works for that machine, of which it is a part.
  explicit Rescan(TunnelInetConfigTableSm const & machine);

  // What the machine hands over as it happens. A thing that goes is handed over before listeners
  // hear of it, so that what they do finds the tunnels that waited for it.

  /// An event of the tunnel's status begins: until that has tried it, a rescan inside has to.
  void eventOf(Plexa::IntfId intfId);
  /// The tunnel was tried, or passed over.
  void tried(Plexa::IntfId intfId, Outcome const & outcome);
  /// Only an event of its own can give the tunnel a row.
  void forget(Plexa::IntfId intfId);
  /// The slot of that ifIndex, in which `holder` has its row, goes.
  void slotGoes(std::uint32_t ifIndex, Plexa::IntfId holder);
  /// A slot that `before` held gets the row of `holder`, which may be the same.
  void slotTaken(Plexa::IntfId before, Plexa::IntfId holder);
  /// The machine is about to insert or to remove a row of the table.
  void rowComes();
  void rowGoes(TunnelInetConfigTableKey const & key);
  /// A status came that is silent, or another interface's.
  void inputUnheard();

  /// Calls `tryOne` for each tunnel that has to be tried, in the order of the statuses, with the
  /// status that it has then; takes what became of it. Listeners of what `tryOne` does may change
  /// anything: what has to be tried is asked again after each one.
  using TryOne = absl::FunctionRef<Outcome(Plexa::IntfId intfId, StatusPtr const & intfStatus)>;
  void forEach(TryOne tryOne);

  /// How many walks went over all tunnels, how many tunnels rescans have looked at, and how many of
  /// the walks were taken because something may have changed unheard.
  std::uint64_t walks() const { return walks_; }
  std::uint64_t visits() const { return visits_; }
  std::uint64_t unheard() const { return unheard_; }
  /// Tunnels of which something is remembered: at most those that have a status.
  std::size_t remembered() const { return reasons_.size(); }
  /// The first tunnel for which the invariant does not hold, in words; empty when it holds. Walks
  /// over all tunnels. Requires: no event is under way.
  std::string flaw() const;

private:
  struct ToTry {};
  using Reason = std::variant<ToTry, TunnelInetConfigTableKey, std::uint32_t>;
  enum class Survey : std::uint8_t { byFirstScan, complete, incomplete };
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

  bool onlyThoseToTry() const;
  bool surveyIsComplete() const;
  bool inputsAreHeard() const;
  bool walkWouldShow() const;
  std::optional<Plexa::IntfId> nextToTry(std::optional<Plexa::IntfId> behind) const;
  void walkFrom(std::optional<Plexa::IntfId> behind, TryOne tryOne);
  void walkBegins();
  void visit(Plexa::IntfId intfId, StatusPtr const & intfStatus, TryOne tryOne);

  void tryAgain(Plexa::IntfId intfId);
  void waitFor(Plexa::IntfId intfId, Reason reason);
  template <class Thing>
  void happened(Waiting<Thing> & waiting, Thing const & thing);
  void tableChanges();
  bool stillHolds(Plexa::IntfId intfId, TunnelInetConfigTableKey const & key,
                  std::uint32_t ifIndex) const;

  TunnelInetConfigTableSm const & machine_;

  // Each tunnel is in at most one of the three sets; reasons_ tells in which.
  std::unordered_map<Plexa::IntfId, Reason, HashOfId> reasons_;
  std::set<Plexa::IntfId, StatusOrder> toTry_;
  Waiting<TunnelInetConfigTableKey> byKey_;
  Waiting<std::uint32_t> bySlot_;

  Survey survey_ = Survey::byFirstScan;
  bool unheardMet_ = false;    // since the last walk began
  std::uint64_t silencings_;   // Zel::silencings() when the survey began
  std::uint32_t tableVersion_; // as it is if nobody but the machine has written since
  std::uint64_t walks_ = 0;
  std::uint64_t visits_ = 0;
  std::uint64_t unheard_ = 0;
};

} // namespace TunnelIntfSnmp
