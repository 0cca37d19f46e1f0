// The six operations of RFC 6902.
#include "statedb/Patch.h"
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace StateDb {

using nlohmann::json;

namespace {

std::string textOf(json const & operation, char const * name) {
  auto const found = operation.find(name);
  if (found == operation.end() || !found->is_string())
    throw Unusable("", fmt::format("an operation needs a text as its \"{}\"", name));
  return found->get<std::string>();
}

json const & valueOf(json const & operation, Location const & where) {
  auto const found = operation.find("value");
  if (found == operation.end())
    throw Unusable(where.pointer, "the operation needs a \"value\"");
  return *found;
}

void requireVariable(Location const & where) {
  if (!where.isRecord() && !where.member)
    throw Unusable(where.pointer, "is a fixed part of the document; patch the records below it");
}

} // namespace

void carryOut(StateDb const & database, Change const & change) {
  View const now(database);
  auto const & record = change.where.steps.back();
  auto const target =
      change.where.member ? objectIn(now.find(change.where)) : now.owner(change.where);
  if (!target)
    throw Unusable(change.where.pointer, "was removed while the patch was carried out");
  if (change.where.member)
    change.setter(*target);
  else if (isAbsent(change.entry))
    record.collection->remove(*target, record.key);
  else
    record.collection->put(*target, record.key, change.entry);
}

void Patch::plan(json const & operation) {
  if (!operation.is_object())
    throw Unusable("", fmt::format("an operation must be an object, not {}", shown(operation)));
  auto const op = textOf(operation, "op");
  auto const where = locate(textOf(operation, "path"));
  if (op == "add")
    add(where, valueOf(operation, where));
  else if (op == "replace")
    replace(where, valueOf(operation, where));
  else if (op == "remove")
    remove(where);
  else if (op == "test")
    test(where, valueOf(operation, where));
  else if (op == "move")
    move(locate(textOf(operation, "from")), where);
  else if (op == "copy")
    copy(locate(textOf(operation, "from")), where);
  else
    throw Unusable(
        where.pointer,
        fmt::format("\"op\" must be add, remove, replace, move, copy or test, not {}", shown(op)));
}

void Patch::add(Location const & where, json const & value) {
  requireVariable(where);
  if (where.member)
    set(where, value);
  else
    put(where, value);
}

void Patch::replace(Location const & where, json const & value) {
  requireVariable(where);
  if (where.isRecord() && isAbsent(view_.find(where)))
    nothingAt(where);
  add(where, value);
}

void Patch::remove(Location const & where) {
  requireVariable(where);
  if (where.member)
    throw Unusable(where.pointer, "a member cannot be removed; replace it, or remove its record");
  if (isAbsent(view_.find(where)))
    nothingAt(where);
  view_.put(where, Entry());
  changes_.push_back({where, Entry(), {}});
}

void Patch::test(Location const & where, json const & value) const {
  auto const present = view_.value(where);
  if (present == value)
    return;
  if (present.is_structured() && present.type() == value.type())
    throw Unusable(where.pointer, "the test failed: it has other contents");
  throw Unusable(where.pointer,
                 fmt::format("the test failed: it is {}, not {}", shown(present), shown(value)));
}

void Patch::move(Location const & from, Location const & where) {
  if (where.pointer.starts_with(from.pointer + "/"))
    throw Unusable(where.pointer, "a record cannot be moved into itself");
  auto const value = view_.value(from);
  remove(from);
  add(where, value);
}

void Patch::copy(Location const & from, Location const & where) {
  add(where, view_.value(from));
}

void Patch::put(Location const & where, json const & value) {
  if (!view_.owner(where))
    throw Unusable(where.pointer, "there is no record that it could be put into; add that first");
  auto const & record = where.steps.back();
  auto const entry =
      atPointer(where.pointer, [&] { return parse(*record.collection, record.key, value); });
  view_.put(where, entry);
  changes_.push_back({where, entry, {}});
}

void Patch::set(Location const & where, json const & value) {
  if (!objectIn(view_.find(where)))
    throw Unusable(where.pointer, "there is no record that has this member; add the record first");
  auto setter = atPointer(where.pointer, [&] { return where.member->parse(value); });
  view_.set(where, setter);
  changes_.push_back({where, Entry(), std::move(setter)});
}

} // namespace StateDb
