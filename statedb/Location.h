// Where a JSON pointer leads in the document: to a fixed container, a record, or a record's member.
// A location is about names only: whether there is anything is not asked here.
#pragma once

#include "statedb/Schema.h"
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace StateDb {

struct Location {
  /// A record on the way, or at the end of it.
  struct Step {
    Collection const * collection;
    std::string key;
    std::string pointer; ///< leads to this record; the same text for the same record
  };

  std::string pointer;
  /// Null for the whole document.
  EntityType const * entity = nullptr;
  /// From the outermost record to the innermost.
  std::vector<Step> steps;
  /// At most one of the two: a collection of the last record (or the entity), or a member of it.
  Collection const * container = nullptr;
  Member const * member = nullptr;

  bool isRecord() const { return !steps.empty() && !container && !member; }
};

/// Raises Unusable, with the pointer in it, when it is malformed or names what cannot be.
Location locate(std::string_view pointer);

} // namespace StateDb
