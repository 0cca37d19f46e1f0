// The reserve is an array of places, each free or taken.
#include "agent/EventMemory.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>
#include <functional>

namespace Agent {

namespace {

Lumo::Counter reserveUses("agent-libevent-reserve-uses");

struct Place {
  alignas(std::max_align_t) std::array<std::byte, 48> octets;
  bool isTaken;
};
std::array<Place, 300> reserve{};

void * fromReserve(std::size_t size) {
  auto const place = std::ranges::find(reserve, false, &Place::isTaken);
  if (place == reserve.end() || size > place->octets.size())
    return nullptr;
  reserveUses.inc();
  place->isTaken = true;
  return place->octets.data();
}

void * allocate(std::size_t size) {
  auto * const memory = std::malloc(size);
  return memory != nullptr ? memory : fromReserve(size);
}

bool isOfReserve(void const * memory) {
  std::less<void const *> const isBefore;
  return !isBefore(memory, reserve.data()) && isBefore(memory, reserve.data() + reserve.size());
}

void release(void * memory) {
  if (isOfReserve(memory))
    static_cast<Place *>(memory)->isTaken = false; // its octets come first
  else
    std::free(memory);
}

void * reallocate(void * memory, std::size_t size) {
  if (!isOfReserve(memory))
    return std::realloc(memory, size);
  auto * const larger = std::malloc(size);
  if (larger == nullptr)
    return nullptr;
  std::memcpy(larger, memory, std::min(size, sizeof(Place::octets)));
  release(memory);
  return larger;
}

} // namespace

void keepMemoryForEvents() {
  event_set_mem_functions(allocate, reallocate, release);
}

} // namespace Agent
