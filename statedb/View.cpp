// Looking up and reading through the planned changes.
#include "statedb/View.h"
#include <nlohmann/json.hpp>

namespace StateDb {

using nlohmann::json;

json View::value(Location const & where) const {
  auto value = bareValue(where);
  showPlanned(value, where.pointer);
  return value;
}

void View::put(Location const & where, Entry const & entry) {
  auto const below = where.pointer + "/";
  auto const first = planned_.lower_bound(below);
  auto last = first;
  while (last != planned_.end() && last->first.starts_with(below))
    ++last;
  planned_.erase(first, last);
  planned_.insert_or_assign(where.pointer, Planned{entry, false});
}

void View::set(Location const & where, Setter const & setter) {
  auto const & record = where.steps.back();
  auto const found = planned_.find(record.pointer);
  if (found != planned_.end() && found->second.isCopy) {
    setter(*objectIn(found->second.entry));
    return;
  }
  auto const copy = parse(*record.collection, record.key, print(*record.collection, find(where)));
  setter(*objectIn(copy));
  planned_.insert_or_assign(record.pointer, Planned{copy, true});
}

bool View::forgetNext() {
  if (!planned_.empty())
    planned_.erase(planned_.begin());
  return !planned_.empty();
}

Entry View::find(Location const & where, std::size_t depth) const {
  auto const & step = where.steps[depth - 1];
  if (auto const found = planned_.find(step.pointer); found != planned_.end())
    return found->second.entry;
  auto const holder = owner(where, depth);
  return holder ? step.collection->find(*holder, step.key) : Entry();
}

Object View::owner(Location const & where, std::size_t depth) const {
  return depth == 1 ? where.entity->in(database_) : objectIn(find(where, depth - 1));
}

json View::bareValue(Location const & where) const {
  if (where.entity == nullptr) {
    auto document = json::object();
    for (auto const & entity : entityTypes())
      document.emplace(entity.name, print(*entity.type, *entity.in(database_)));
    return document;
  }
  if (where.isRecord()) {
    auto const entry = find(where);
    if (isAbsent(entry))
      nothingAt(where);
    return print(*where.steps.back().collection, entry);
  }
  auto const object = where.steps.empty() ? where.entity->in(database_) : objectIn(find(where));
  if (!object)
    nothingAt(where);
  if (where.member)
    return where.member->print(*object);
  return where.container ? print(*where.container, *object) : print(*where.entity->type, *object);
}

// Writes what is planned below the pointer into the value that stands at it. A record comes before
// the records in it.
void View::showPlanned(json & value, std::string const & pointer) const {
  auto const below = pointer + "/";
  for (auto i = planned_.lower_bound(below); i != planned_.end() && i->first.starts_with(below);
       ++i) {
    auto const & collection = *locate(i->first).steps.back().collection;
    json::json_pointer const place(i->first.substr(pointer.size()));
    if (isAbsent(i->second.entry))
      value[place.parent_pointer()].erase(place.back());
    else
      value[place] = print(collection, i->second.entry);
  }
}

void nothingAt(Location const & where) {
  throw Unusable(where.pointer, "there is nothing at this place");
}

} // namespace StateDb
