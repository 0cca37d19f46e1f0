// What the document shows of the input entities: one table of their collections and members, each
// with how it is printed, parsed and set. Reading, checking and changing all go by this table.
#pragma once

#include "statedb/StateDb.h"
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

namespace StateDb {

/// A name, a key or a value that does not fit where it stands. pointer() leads there, from whatever
/// the raising function was given; what() is the reason alone.
class Unusable : public std::runtime_error {
public:
  Unusable(std::string pointer, std::string const & reason);
  std::string const & pointer() const { return pointer_; }

private:
  std::string pointer_;
};

/// Calls `call`; what it raises as Unusable goes on with `prefix` before its pointer.
template <class Call>
auto within(std::string_view prefix, Call const & call) {
  try {
    return call();
  } catch (Unusable const & unusable) {
    throw Unusable(std::string(prefix) + unusable.pointer(), unusable.what());
  }
}

/// What stands under one key of a collection: nothing, an ifIndex, or a record, which may be null.
using Object = Zel::Ptr<Zel::PtrInterface>;
using Cell = std::variant<std::monostate, std::uint32_t, Object>;
/// True if and only if nothing stands there.
bool isAbsent(Cell const & cell);
/// The record, or null when there is none or it is null.
Object objectIn(Cell const & cell);

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
  Cell (*find)(Zel::PtrInterface const & owner, std::string const & key);
  /// Requires: not an absent cell.
  void (*put)(Zel::PtrInterface & owner, std::string const & key, Cell const & cell);
  void (*remove)(Zel::PtrInterface & owner, std::string const & key);
  void (*forEach)(Zel::PtrInterface const & owner,
                  std::function<void(std::string const & key, Cell const & cell)> const & call);
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
/// Requires: not an absent cell.
nlohmann::json print(Collection const & collection, Cell const & cell);

/// The record that `value` describes, complete, ready to be put under `key`. Raises Unusable.
Cell parse(Collection const & collection, std::string const & key, nlohmann::json const & value);
/// Sets in the database what the document says. Raises Unusable, with part of it done.
void fill(StateDb & database, nlohmann::json const & document);

/// A name as it stands in a JSON pointer: "~" and "/" escaped.
std::string escaped(std::string_view name);
/// The value for an error message: one line, cut when it is long, no matter how deeply it is
/// nested.
std::string shown(nlohmann::json const & value);

} // namespace StateDb
