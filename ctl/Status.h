// The daemon's state as a whole, in words.
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Ctl {

/// What "status" answered, as of `now`.
std::string statusText(nlohmann::ordered_json const & status,
                       std::chrono::system_clock::time_point now, bool hasColours = false);

/// How long ago a time in UTC was that is written as in RFC 3339: "3 min 2 s". The text itself when
/// it is none.
std::string ageText(std::string const & time, std::chrono::system_clock::time_point now);

} // namespace Ctl
