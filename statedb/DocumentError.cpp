// The text of it.
#include "statedb/DocumentError.h"
#include <fmt/format.h>
#include <string_view>

namespace StateDb {

namespace {

std::string describe(std::size_t operation, std::string_view pointer, std::string_view reason) {
  auto const place = pointer.empty() ? std::string_view("\"\"") : pointer;
  return operation == DocumentError::npos
             ? fmt::format("{}: {}", place, reason)
             : fmt::format("operation {} ({}): {}", operation, place, reason);
}

} // namespace

DocumentError::DocumentError(std::size_t operation, std::string pointer, std::string const & reason)
    : std::runtime_error(describe(operation, pointer, reason)),
      operation_(operation),
      pointer_(std::move(pointer)) {}

} // namespace StateDb
