// Answers of the daemon as text for people. What they are made of is in Table.h; the daemon's state
// as a whole has Status.h, tunnels have Tunnels.h.
#pragma once

#include "ctl/Table.h"
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace Ctl {

/// A list of objects as a table, a line for each: the headings are their members' names, as people
/// read them. Empty for an empty list.
Table tableOf(nlohmann::ordered_json const & rows);
std::string tableText(nlohmann::ordered_json const & rows, bool hasColours = false);
/// An object as lines of name and value.
std::string pairsText(nlohmann::ordered_json const & object);
/// A value as a cell: yes and no, a number, a text; empty for null.
Cell cellOf(nlohmann::ordered_json const & value);

/// Each table under its name and its number of rows. `columns` is what the daemon says of them:
/// numbers with a name show by it, octets as the address that they are. The key is left out: its
/// parts are columns.
std::string tablesText(nlohmann::ordered_json const & tables,
                       nlohmann::ordered_json const & columns, bool hasColours = false);

/// IPsec connections, one line each. One line that says so when there are none.
std::string connectionsText(nlohmann::ordered_json const & connections, bool hasColours = false);

/// The colour of a connection's state.
Tone toneOf(std::string_view connState);

} // namespace Ctl
