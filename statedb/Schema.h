// What the document shows of the input entities: one table of their collections and members, each
// with how it is printed, parsed and set (Codec.h). Reading, checking and changing all go by this
// table.
#pragma once

#include "statedb/Codec.h"
#include "statedb/StateDb.h"
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace StateDb {

/// What stands under one key of a collection: nothing, an ifIndex, or a record, which may be null.
using Object = Zel::Ptr<Zel::PtrInterface>;
using Entry = std::variant<std::monostate, std::uint32_t, Object>;
/// True if and only if nothing stands there.
bool isAbsent(Entry const & entry);
/// The record, or null when there is none or it is null.
Object objectIn(Entry const & entry);

/// Stores one value in an object of the type whose member made the setter.
using Setter = std::function<void(Zel::PtrInterface &)>;

struct Member {
  std::string_view name;
  nlohmann::json (*print)(Zel::PtrInterface const & object);
  /// Raises Unusable when the value does not fit.
  Setter (*parse)(nlohmann::json const & value);
};

struct ObjectType;

/// Keys are text here; each function requires a key that checkKey passes, and an owner of the type
/// that lists the collection.
struct Collection {
  std::string_view name;
  /// What its records are; null when they are ifIndex numbers.
  ObjectType const * recordType;
  /// Raises Unusable when the text is no key.
  void (*checkKey)(std::string_view key);
  /// A new record with defaults; null when the records are numbers.
  Object (*make)(std::string const & key);
  Entry (*find)(Zel::PtrInterface const & owner, std::string const & key);
  /// Requires: not an absent entry.
  void (*put)(Zel::PtrInterface & owner, std::string const & key, Entry const & entry);
  void (*remove)(Zel::PtrInterface & owner, std::string const & key);
  void (*forEach)(Zel::PtrInterface const & owner,
                  std::function<void(std::string const & key, Entry const & entry)> const & call);
};

struct ObjectType {
  std::span<Member const> members;
  std::span<Collection const> collections;

  /// The member or the collection of that name, or null.
  Member const * member(std::string_view memberName) const;
  Collection const * collection(std::string_view collectionName) const;
};

/// One input entity and where it is in the database.
struct EntityType {
  std::string_view name;
  ObjectType const * type;
  Object (*in)(StateDb const & database);
};

/// The entities at the top of the document.
std::span<EntityType const> entityTypes();
/// The entity of that name. Raises Unusable.
EntityType const & entityType(std::string_view name);

nlohmann::json print(ObjectType const & type, Zel::PtrInterface const & object);
nlohmann::json print(Collection const & collection, Zel::PtrInterface const & owner);
/// Requires: not an absent entry.
nlohmann::json print(Collection const & collection, Entry const & entry);

/// The record that `value` describes, complete, ready to be put under `key`. Raises Unusable.
Entry parse(Collection const & collection, std::string const & key, nlohmann::json const & value);
/// Sets in the database what the document says. Raises Unusable, with part of it done.
void fill(StateDb & database, nlohmann::json const & document);

} // namespace StateDb
