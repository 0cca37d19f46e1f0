// Waiting for memory is what walks through many records are made of. Who knows which comes soon has
// it fetched meanwhile.
#pragma once

namespace TunnelIntfSnmp {

/// Has an object brought near that will be looked into soon. It is larger than one line of memory
/// and smaller than two. Null does nothing.
inline void fetch(void const * object) {
  if (object == nullptr)
    return;
  __builtin_prefetch(object);
  __builtin_prefetch(static_cast<char const *>(object) + 64);
}

} // namespace TunnelIntfSnmp
