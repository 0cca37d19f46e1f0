// The document: pointers and patches come in, errors go out with their operation.
#include "statedb/StateDocument.h"
#include "statedb/Patch.h"
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace StateDb {

using nlohmann::json;

namespace {

std::string describe(std::size_t operation, std::string_view pointer, std::string_view reason) {
  auto const place = pointer.empty() ? std::string_view("\"\"") : pointer;
  return operation == DocumentError::npos
             ? fmt::format("{}: {}", place, reason)
             : fmt::format("operation {} ({}): {}", operation, place, reason);
}

template <class Call>
auto inOperation(std::size_t operation, Call const & call) {
  try {
    return call();
  } catch (Unusable const & unusable) {
    throw DocumentError(operation, unusable.pointer(), unusable.what());
  }
}

std::vector<Change> plan(StateDb const & database, json const & patch) {
  if (!patch.is_array())
    throw DocumentError(
        DocumentError::npos, "",
        fmt::format("a patch must be an array of operations, not {}", shown(patch)));
  Patch plans(database);
  for (std::size_t i = 0; i != patch.size(); ++i)
    inOperation(i, [&] { plans.plan(patch[i]); });
  return plans.changes();
}

} // namespace

DocumentError::DocumentError(std::size_t operation, std::string pointer, std::string const & reason)
    : std::runtime_error(describe(operation, pointer, reason)),
      operation_(operation),
      pointer_(std::move(pointer)) {}

StateDocument::StateDocument(StateDb & database, NotifieeFailed notifieeFailed)
    : database_(database),
      notifieeFailed_(std::move(notifieeFailed)) {}

json StateDocument::read(std::string_view pointer) const {
  return inOperation(DocumentError::npos, [&] { return View(database_).value(locate(pointer)); });
}

void StateDocument::apply(json const & patch) {
  for (auto const & planned : plan(database_, patch))
    makeChange(
        notifieeFailed_, [&] { carryOut(database_, planned); },
        [&] { return planned.where.pointer; });
}

} // namespace StateDb
