// Answers of the daemon as aligned text.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace Ctl {

/// A list of objects as a table: a header of their member names, then a line for each object;
/// columns of numbers stand to the right. Empty text for an empty list.
std::string tableText(nlohmann::ordered_json const & rows);
/// An object as lines of name and value.
std::string pairsText(nlohmann::ordered_json const & object);

std::string statusText(nlohmann::ordered_json const & status);
/// Each table under its name and its number of rows.
std::string tablesText(nlohmann::ordered_json const & tables);

/// IPsec connections, one line each of at most 100 columns; "..." stands for what is cut off. One
/// line that says so when there are none.
std::string connectionsText(nlohmann::ordered_json const & connections);

} // namespace Ctl
