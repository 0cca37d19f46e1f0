// A JSON Patch on its way into the database: first every operation is checked and becomes a change,
// then the changes are made.
#pragma once

#include "statedb/View.h"
#include <nlohmann/json_fwd.hpp>
#include <vector>

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
  std::vector<Change> const & changes() const { return changes_; }

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
  std::vector<Change> changes_;
};

} // namespace StateDb
