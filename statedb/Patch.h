// A JSON Patch as it is checked: every operation becomes a change, on top of those before it.
// PatchRun.h is what leads it through.
#pragma once

#include "statedb/View.h"
#include <deque>
#include <nlohmann/json_fwd.hpp>

namespace StateDb {

/// One change that a checked operation asks for.
struct Change {
  Location where;
  Entry entry;   ///< what a record's place gets; absent: the record goes
  Setter setter; ///< what is stored, where the location is a member
};

/// Makes the change; its notifications are delivered when this returns. Raises what notifiees
/// raise, and Unusable when a notifiee of an earlier change has removed what this one needs.
void carryOut(StateDb const & database, Change const & change);

/// The operations planned so far. The database is not changed, and outlives this.
class Patch {
public:
  explicit Patch(StateDb const & database) : view_(database) {}

  /// Checks one operation on top of those planned before. Raises Unusable with the full pointer;
  /// the patch is of no use after that.
  void plan(nlohmann::json const & operation);
  /// What is to be made, in order; the caller's to take.
  std::deque<Change> & changes() { return changes_; }
  /// Gives back a part of what the plan took in memory, when it is carried out: one record. False
  /// when nothing is left.
  bool forgetNext() { return view_.forgetNext(); }

private:
  void add(Location const & where, nlohmann::json const & value);
  void replace(Location const & where, nlohmann::json const & value);
  void remove(Location const & where);
  void test(Location const & where, nlohmann::json const & value) const;
  void move(Location const & from, Location const & where);
  void copy(Location const & from, Location const & where);
  void put(Location const & where, nlohmann::json const & value);
  void set(Location const & where, nlohmann::json const & value);

  View view_;
  std::deque<Change> changes_;
};

} // namespace StateDb
