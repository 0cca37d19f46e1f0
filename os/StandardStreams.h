// The standard streams as a program finds them: they may be closed, full, or a pipe that nobody
// reads any more.
#pragma once

#include <cstdio>
#include <string_view>

namespace Os {

/// Sees to it that no file or socket that is opened later becomes a standard stream because that
/// one was closed: reading and writing at a closed one go on to fail. From now on a write to a pipe
/// without a reader fails with EPIPE, one to a file that may not grow with EFBIG, and neither sends
/// a signal. To be called first of all.
void secureStandardStreams();

/// Writes all of the text to where the stream leads. True if and only if it is there; else errno
/// says why not, and a part of it may be.
[[nodiscard]] bool writeOut(std::FILE * stream, std::string_view text);

} // namespace Os
