// Compares two documents along the table: records that one of them lacks, then member by member.
#include "statedb/Difference.h"
#include "statedb/Schema.h"
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>

namespace StateDb {

using nlohmann::json;

namespace {

// What an interface service does: it takes a status away before the ifIndex, and gives it after.
constexpr std::string_view removalOrder[] = {"tunnelIntfStatusDir", "ifMib", "ikeStatus"};
constexpr std::string_view additionOrder[] = {"ifMib", "tunnelIntfStatusDir", "ikeStatus"};

json const & part(json const & value, std::string_view name) {
  static json const nothing = json::object();
  auto const found = value.find(name);
  return found == value.end() ? nothing : *found;
}

/// The operations that one entity needs.
struct Operations {
  json removals = json::array();
  json additions = json::array();

  void compare(ObjectType const & type, std::string const & pointer, json const & from,
               json const & to) {
    for (auto const & member : type.members)
      if (part(from, member.name) != part(to, member.name))
        put("replace", fmt::format("{}/{}", pointer, member.name), part(to, member.name));
    for (auto const & collection : type.collections)
      compare(collection, fmt::format("{}/{}", pointer, collection.name),
              part(from, collection.name), part(to, collection.name));
  }

private:
  void compare(Collection const & collection, std::string const & pointer, json const & from,
               json const & to) {
    for (auto const & [key, record] : from.items())
      if (!to.contains(key))
        removals.push_back({{"op", "remove"}, {"path", pointer + "/" + escaped(key)}});
    for (auto const & [key, record] : to.items()) {
      auto const place = pointer + "/" + escaped(key);
      if (auto const before = from.find(key); before == from.end())
        put("add", place, record);
      else if (before->is_object() && record.is_object())
        compare(*collection.recordType, place, *before, record);
      else if (*before != record)
        put("replace", place, record);
    }
  }

  void put(char const * op, std::string const & pointer, json const & value) {
    additions.push_back({{"op", op}, {"path", pointer}, {"value", value}});
  }
};

Operations operations(std::string_view name, json const & from, json const & to) {
  Operations operations;
  operations.compare(*entityType(name).type, fmt::format("/{}", name), part(from, name),
                     part(to, name));
  return operations;
}

void append(json & patch, json operations) {
  for (auto & operation : operations)
    patch.push_back(std::move(operation));
}

} // namespace

json difference(json const & from, json const & to) {
  auto patch = json::array();
  std::map<std::string_view, Operations> all;
  for (auto const & entity : entityTypes())
    all.emplace(entity.name, operations(entity.name, from, to));
  for (auto const name : removalOrder)
    append(patch, std::move(all.at(name).removals));
  for (auto const name : additionOrder)
    append(patch, std::move(all.at(name).additions));
  return patch;
}

} // namespace StateDb
