// Looks in the list of the handles that exist; setting levels is Lumo's.
#include "agent/TraceHandles.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <ranges>
#include <stdexcept>

namespace Agent {

void handleLevelsIs(std::string_view handle, std::uint32_t levelMask) {
  requireHandle(handle);
  Lumo::traceLevelsIs(handle, levelMask);
}

void requireHandle(std::string_view handle) {
  auto const name = [](auto const & one) { return std::string_view(one->name()); };
  auto const known = Lumo::debugHandlers();
  if (std::ranges::find(known, handle, name) == known.end())
    throw std::invalid_argument(fmt::format("there is no trace handle {}, but {}", handle,
                                            fmt::join(known | std::views::transform(name), ", ")));
}

} // namespace Agent
