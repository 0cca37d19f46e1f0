// The document: pointers and patches come in, errors go out with their operation.
#include "statedb/StateDocument.h"
#include "statedb/Difference.h"
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

// The document as read() would give it: every container and member there, values in one form.
json normalised(json const & document) {
  StateDb database;
  inOperation(DocumentError::npos, [&] { fill(database, document); });
  return View(database).value(Location());
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

json const & part(json const & value, std::string_view name) {
  static json const nothing = json::object();
  auto const found = value.find(name);
  return found == value.end() || !found->is_object() ? nothing : *found;
}

json presentRecord(Collection const & collection, Entry const & entry, json const & one,
                   json const & other);

// What an object of the database has of the records that one of the two has.
json presentPart(ObjectType const & type, Zel::PtrInterface const & object, json const & one,
                 json const & other) {
  auto present = json::object();
  for (auto const & member : type.members)
    present.emplace(member.name, member.print(object));
  for (auto const & collection : type.collections) {
    auto & records = present[std::string(collection.name)] = json::object();
    auto const & ones = part(one, collection.name);
    auto const & others = part(other, collection.name);
    for (auto const * keys : {&ones, &others})
      for (auto const & [key, value] : keys->items())
        if (auto const entry = records.contains(key) ? Entry() : collection.find(object, key);
            !isAbsent(entry))
          records[key] = presentRecord(collection, entry, part(ones, key), part(others, key));
  }
  return present;
}

json presentRecord(Collection const & collection, Entry const & entry, json const & one,
                   json const & other) {
  auto const object = objectIn(entry);
  return object ? presentPart(*collection.recordType, *object, one, other)
                : print(collection, entry);
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

json StateDocument::diff(json const & from, json const & to) {
  return difference(normalised(from), normalised(to));
}

json StateDocument::publication(json const & before, json const & after) const {
  auto const fresh = normalised(after);
  auto present = json::object();
  for (auto const & entity : entityTypes())
    present.emplace(entity.name, presentPart(*entity.type, *entity.in(database_),
                                             part(before, entity.name), part(fresh, entity.name)));
  return difference(present, fresh);
}

void StateDocument::check(json const & document) {
  normalised(document);
}

} // namespace StateDb
