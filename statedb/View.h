// The database as it will be once planned changes have been made. The changes are kept beside the
// database, record by record, so planning takes time by the number of changes and not by the size
// of the database.
#pragma once

#include "statedb/Location.h"
#include <cstddef>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace StateDb {

/// Without planned changes it shows the database itself. The database outlives it.
class View {
public:
  explicit View(StateDb const & database) : database_(database) {}

  /// The record at the location, or the record that its member or container belongs to. Requires:
  /// steps.
  Entry find(Location const & where) const { return find(where, where.steps.size()); }
  /// The object that holds the record at the location; null when there is none. Requires: steps.
  Object owner(Location const & where) const { return owner(where, where.steps.size()); }
  /// The value at any location. Raises Unusable when there is nothing.
  nlohmann::json value(Location const & where) const;

  /// Plans that the entry stands there from now on; an absent entry: that nothing does. Requires: a
  /// record with an owner.
  void put(Location const & where, Entry const & entry);
  /// Plans a change of the record that find() gives. Requires: it is not null.
  void set(Location const & where, Setter const & setter);

  /// Forgets one of the planned records. False when there are no more.
  bool forgetNext();

private:
  struct Planned {
    Entry entry;
    bool isCopy = false; ///< no one else has it, so it can be changed
  };

  Entry find(Location const & where, std::size_t depth) const;
  Object owner(Location const & where, std::size_t depth) const;
  nlohmann::json bareValue(Location const & where) const;
  void showPlanned(nlohmann::json & value, std::string const & pointer) const;

  StateDb const & database_;
  /// By the record's pointer. An entry hides the record of the database and everything in it; what
  /// was planned for records in it since then has entries of its own.
  std::map<std::string, Planned> planned_;
};

/// Raises Unusable: there is nothing at the location.
[[noreturn]] void nothingAt(Location const & where);

} // namespace StateDb
