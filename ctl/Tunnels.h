// Tunnels for people: one line each, with what there is to remark of it, above all why it has no
// row in a table.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Ctl {

/// The tunnels as the daemon told of them, each with two members more: "missing", {TABLE: why it
/// has no row there}, and "remarks", a list of what of it and of its IPsec connection an operator
/// should know. `tables` is what the daemon serves.
nlohmann::ordered_json withRemarks(nlohmann::ordered_json tunnels,
                                   nlohmann::ordered_json const & tables);

/// One line each, with the numbers of its remarks, which stand below.
std::string tunnelsText(nlohmann::ordered_json const & tunnels, bool hasColours = false);

/// What one calls the tunnel: its interface's name, else its ifIndex or its number.
std::string tunnelName(nlohmann::ordered_json const & tunnel);
/// The state of its IPsec connection in words.
std::string ipsecText(nlohmann::ordered_json const & tunnel);

} // namespace Ctl
