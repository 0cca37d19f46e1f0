// The replacement of operator new and delete, over malloc.
#include "tests/support/FailingMemory.h"
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> left = -1; // allocations that go well; -1: all
std::atomic<bool> failsAlways = false;
std::atomic<bool> failed = false;

bool mayAllocate() {
  if (left < 0)
    return true;
  if (left > 0) {
    --left;
    return true;
  }
  failed = true;
  if (!failsAlways)
    left = -1;
  return false;
}

} // namespace

FailingMemory::FailingMemory(long before, Fails fails) {
  failed = false;
  failsAlways = fails == Fails::always;
  left = before;
}
FailingMemory::~FailingMemory() {
  left = -1;
}

bool FailingMemory::hasFailed() {
  return failed;
}

void * operator new(std::size_t size) {
  auto * const memory = mayAllocate() ? std::malloc(size == 0 ? 1 : size) : nullptr;
  if (memory == nullptr)
    throw std::bad_alloc();
  return memory;
}
void operator delete(void * memory) noexcept {
  std::free(memory);
}
void operator delete(void * memory, std::size_t) noexcept {
  std::free(memory);
}

// Abseil's B-tree loses a node when it gets no memory in the middle of its growth; nothing else
// may.
extern "C" [[gnu::visibility("default")]] char const * __lsan_default_suppressions();
extern "C" char const * __lsan_default_suppressions() {
  return "leak:container_internal::btree\n";
}
