// Looks in the list of the handles that exist; setting levels is Lumo's.
#include "agent/TraceHandles.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <stdexcept>
#include <vector>

namespace Agent {

void handleLevelsIs(std::string_view handle, std::uint32_t levelMask) {
  requireHandle(handle);
  Lumo::traceLevelsIs(handle, levelMask);
}

void requireHandle(std::string_view handle) {
  std::vector<std::string_view> names;
  auto const known = Lumo::debugHandlers();
  for (auto const & one : known)
    names.push_back(one->name());
  if (std::ranges::find(names, handle) == names.end())
    throw std::invalid_argument(
        fmt::format("there is no trace handle {}, but {}", handle, fmt::join(names, ", ")));
}

} // namespace Agent
