// The patch that leads from one document to another.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace StateDb {

/// In an order that suits those who listen: first the removals, a status before its ifIndex; then
/// the rest, an ifIndex before its status. Requires: both are as a StateDocument reads them, but a
/// missing container counts as an empty one.
nlohmann::json difference(nlohmann::json const & from, nlohmann::json const & to);

} // namespace StateDb
