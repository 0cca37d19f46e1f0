// Works without memory, too: the lack of it is one of the things to be told.
#include "sources/Health.h"
#include <new>
#include <utility>

namespace Sources {

void Health::inSyncIs() {
  lastError_.clear();
  stateIs(State::inSync);
}

void Health::degradedIs(std::string_view error) {
  errorIs(lastError_, error);
  stateIs(State::degraded);
}

void Health::stateIs(State state) {
  auto const before = std::exchange(state_, state);
  if (state == before || (before == State::stopped && state == State::inSync) || !changed_)
    return;
  try {
    changed_();
  } catch (std::exception const &) {
    // A line that cannot be told is not worth a source.
  }
}

void errorIs(std::string & kept, std::string_view error) {
  try {
    kept = error;
  } catch (std::bad_alloc const &) {
    kept = "out of memory"; // fits into the string itself
  }
}

std::string_view reasonOf(std::exception const & exception) {
  auto const isMemory = dynamic_cast<std::bad_alloc const *>(&exception) != nullptr;
  return isMemory ? "there is not enough memory" : exception.what();
}

} // namespace Sources
