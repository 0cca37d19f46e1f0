// What the standard output is: a terminal for a person, or something else.
#pragma once

namespace Ctl {

/// True if and only if the standard output is a terminal that shows colours, and NO_COLOR is not
/// set (no-color.org).
bool showsColours();

} // namespace Ctl
