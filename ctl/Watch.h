// What has become of the tunnels between two looks at them.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Ctl {

/// The differences between two lists of tunnels with their remarks, in order of their numbers:
/// [{change: "added", "removed" or "changed", name, tunnel, before: {member: value} of what
/// changed}].
nlohmann::ordered_json changesBetween(nlohmann::ordered_json const & before,
                                      nlohmann::ordered_json const & after);

/// A change as one line of 100 columns at most, behind the time at which it was seen.
std::string changeText(std::string const & time, nlohmann::ordered_json const & change,
                       bool hasColours = false);

} // namespace Ctl
