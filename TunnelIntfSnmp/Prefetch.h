// Walks through many records mostly wait for memory. A walk that knows which record comes soon asks
// for it beforehand.
#pragma once

#include <cstddef>

namespace TunnelIntfSnmp {

/// Begins to fetch the line of memory that an object begins in, and the one behind it. Null does
/// nothing.
inline void prefetch(void const * object) {
  constexpr std::size_t line = 64;
  if (object == nullptr)
    return;
  __builtin_prefetch(object);
  __builtin_prefetch(static_cast<char const *>(object) + line);
}

} // namespace TunnelIntfSnmp
