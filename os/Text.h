// Text of unknown origin, made fit to be shown: a terminal obeys control characters, and a reader
// of a log takes a line end for the end of the message.
#pragma once

#include <string>
#include <string_view>

namespace Os {

/// The text with every control character (C0, DEL, C1) and every octet that is not UTF-8 as "\xNN".
/// Everything else stays as it is.
std::string printable(std::string_view text);

/// The same, with each run of blanks and line ends as one blank, and none at the ends.
std::string oneLine(std::string_view text);

} // namespace Os
