// Memory for libevent, which does not look whether it got any for the callbacks of a buffer
// (evbuffer_add_cb) before it uses it: when a control client comes and there is no memory, the
// process would crash. What small things need is therefore in reserve.
#pragma once

namespace Agent {

/// From now on libevent takes its memory by malloc, and for up to 48 octets, where that has none,
/// out of a reserve that is enough for the callbacks of some hundred connections. To be called
/// before anything else of libevent; again does no harm.
void keepMemoryForEvents();

} // namespace Agent
