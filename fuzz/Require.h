// What a target says of its input.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace Fuzz {

/// Ends the target when it does not hold, so that the input is kept.
inline void require(bool holds, char const * what) {
  if (holds)
    return;
  std::fprintf(stderr, "fuzzing: %s\n", what);
  std::abort();
}

} // namespace Fuzz
