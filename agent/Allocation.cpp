// `operator new` that raises std::bad_alloc when there is no memory, as C++ has it. mimalloc's own,
// which would be taken otherwise, ends the process. The memory is mimalloc's even so: its malloc is
// the process's. Every library of the process finds these functions, since they are the program's;
// what gives memory back is mimalloc's.
#include <cstdlib>
#include <new>

namespace {

/// In words for an operator: reports show what an exception says.
class OutOfMemory : public std::bad_alloc {
public:
  char const * what() const noexcept override { return "out of memory"; }
};

void * newMemory(std::size_t size) {
  for (;;) {
    if (auto * const memory = std::malloc(size == 0 ? 1 : size))
      return memory;
    auto const handler = std::get_new_handler();
    if (handler == nullptr)
      throw OutOfMemory();
    handler();
  }
}

} // namespace

// NOLINTBEGIN(misc-new-delete-overloads): the others are mimalloc's
[[gnu::visibility("default")]] void * operator new(std::size_t size) {
  return newMemory(size);
}

[[gnu::visibility("default")]] void * operator new[](std::size_t size) {
  return newMemory(size);
}
// NOLINTEND(misc-new-delete-overloads)
