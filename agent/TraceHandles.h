// The trace handles by the names that operators know them by, on the command line and at the
// control socket.
//
// The daemon's handles and a plug-in's exist from the moment that they are loaded, before they have
// traced anything: a name that has none then is a slip of the pen.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Agent {

/// Sets the levels of a handle. Raises std::invalid_argument, one line with the names that there
/// are, when there is none of that name; nothing has changed then.
void handleLevelsIs(std::string_view handle, std::uint32_t levelMask);

/// Raises as handleLevelsIs() does.
void requireHandle(std::string_view handle);

} // namespace Agent
