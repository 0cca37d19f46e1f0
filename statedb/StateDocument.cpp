// The document: pointers and patches come in, errors go out with their operation.
#include "statedb/StateDocument.h"
#include "statedb/View.h"
#include <nlohmann/json.hpp>

namespace StateDb {

using nlohmann::json;

StateDocument::StateDocument(StateDb & database, NotifieeFailed notifieeFailed)
    : database_(database),
      notifieeFailed_(std::move(notifieeFailed)) {}

json StateDocument::read(std::string_view pointer) const {
  return inOperation(DocumentError::npos, [&] { return View(database_).value(locate(pointer)); });
}

void StateDocument::apply(json patch) {
  auto run = begin(std::move(patch));
  while (run.step()) {
  }
}

PatchRun StateDocument::begin(json patch) {
  return {database_, std::move(patch), notifieeFailed_};
}

} // namespace StateDb
