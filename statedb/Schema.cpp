// The table of the document, and walking objects and JSON by it.
#include "statedb/Schema.h"
#include "statedb/Codec.h"
#include <array>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <tuple>
#include <type_traits>
#include <utility>

namespace StateDb {

using nlohmann::json;

namespace {

// The members of a record, out of its list of fields.

template <class R, std::size_t index>
struct MemberOf {
  static constexpr auto field = std::get<index>(R::Values::fields());
  using ValueCodec = Codec<typename decltype(field)::Type>;

  static json print(Zel::PtrInterface const & object) {
    return ValueCodec::print(static_cast<R const &>(object).values().*field.member);
  }
  static Setter parse(json const & value) {
    return [parsed = ValueCodec::parse(value, field.range)](Zel::PtrInterface & object) {
      static_cast<R &>(object).template fieldIs<field.member>(parsed);
    };
  }
  static constexpr Member member{field.name, print, parse};
};
template <class R>
constexpr auto membersOf = []<std::size_t... index>(std::index_sequence<index...>) {
  return std::array{MemberOf<R, index>::member...};
}
(std::make_index_sequence<Zel::fieldCount<typename R::Values>>());
template <class R>
constexpr ObjectType recordType{membersOf<R>, {}};

// How a value of a collection becomes an entry and back.
template <class Value>
struct Stored;
template <>
struct Stored<std::uint32_t> {
  static Entry entry(std::uint32_t value) { return value; }
  static std::uint32_t value(Entry const & entry) { return std::get<std::uint32_t>(entry); }
  template <class Key>
  static Object make(Key const &) {
    return nullptr;
  }
};
template <class T>
struct Stored<Zel::Ptr<T>> {
  static Entry entry(Zel::Ptr<T> const & value) { return Object(value); }
  static Zel::Ptr<T> value(Entry const & entry) {
    return Zel::Ptr<T>(static_cast<T *>(std::get<Object>(entry).get()));
  }
  template <class Key>
  static Object make(Key const & key) {
    if constexpr (std::is_constructible_v<T, Key>)
      return Zel::makePtr<T>(key);
    else
      return Zel::makePtr<T>();
  }
};

template <class Class, auto Entries, auto Is, auto Del>
constexpr Collection collection(std::string_view name, ObjectType const * recordType) {
  using Map = std::remove_cvref_t<decltype((std::declval<Class const &>().*Entries)())>;
  using Pair = typename Map::const_iterator::value_type;
  using Key = std::remove_const_t<typename Pair::first_type>;
  using Value = typename Pair::second_type;
  return {name,
          recordType,
          [](std::string_view key) { keyFrom<Key>(key); },
          [](std::string const & key) { return Stored<Value>::make(keyFrom<Key>(key)); },
          [](Zel::PtrInterface const & owner, std::string const & key) -> Entry {
            auto const * value =
                (static_cast<Class const &>(owner).*Entries)().find(keyFrom<Key>(key));
            return value ? Stored<Value>::entry(*value) : Entry();
          },
          [](Zel::PtrInterface & owner, std::string const & key, Entry const & entry) {
            (static_cast<Class &>(owner).*Is)(keyFrom<Key>(key), Stored<Value>::value(entry));
          },
          [](Zel::PtrInterface & owner, std::string const & key) {
            (static_cast<Class &>(owner).*Del)(keyFrom<Key>(key));
          },
          [](Zel::PtrInterface const & owner, auto const & call) {
            for (auto const & [key, value] : (static_cast<Class const &>(owner).*Entries)())
              call(Zel::keyText(key), Stored<Value>::entry(value));
          }};
}

// The table.

using Interface::TunnelIntfStatus;
using Interface::TunnelIntfStatusDir;
using IntfSnmp::IfMib;
using Ipsec::Ike::IpsecProfileConnectionMap;
using Ipsec::Ike::IpsecTunnelProfileInfo;
using Ipsec::Ike::Status;
using Ipsec::Ike::TunnelInfo;

constexpr Collection connections[] = {
    collection<IpsecProfileConnectionMap, &IpsecProfileConnectionMap::appliedIntfId,
               &IpsecProfileConnectionMap::appliedIntfIdIs,
               &IpsecProfileConnectionMap::appliedIntfIdDel>("appliedIntfId",
                                                             &recordType<IpsecTunnelProfileInfo>),
};
constexpr ObjectType profileType{{}, connections};

/// What an input entity holds.
template <class Entity>
struct CollectionsOf;
template <>
struct CollectionsOf<TunnelIntfStatusDir> {
  static constexpr Collection list[] = {
      collection<TunnelIntfStatusDir, &TunnelIntfStatusDir::intfStatus,
                 &TunnelIntfStatusDir::intfStatusIs, &TunnelIntfStatusDir::intfStatusDel>(
          "intfStatus", &recordType<TunnelIntfStatus>),
  };
};
template <>
struct CollectionsOf<IfMib> {
  static constexpr Collection list[] = {
      collection<IfMib, &IfMib::ifIndexByIntfId, &IfMib::ifIndexByIntfIdIs,
                 &IfMib::ifIndexByIntfIdDel>("ifIndexByIntfId", nullptr),
  };
};
template <>
struct CollectionsOf<Status> {
  static constexpr Collection list[] = {
      collection<Status, &Status::ipsecTunnelInfo, &Status::ipsecTunnelInfoIs,
                 &Status::ipsecTunnelInfoDel>("ipsecTunnelInfo", &recordType<TunnelInfo>),
      collection<Status, &Status::appliedProfiles, &Status::appliedProfilesIs,
                 &Status::appliedProfilesDel>("appliedProfiles", &profileType),
  };
};
template <class Entity>
constexpr ObjectType entityObject{{}, CollectionsOf<Entity>::list};

template <class... Entity>
constexpr auto entityTypesOf(std::tuple<Input<Entity>...> const & list) {
  return std::array{
      EntityType{std::get<Input<Entity>>(list).name, &entityObject<Entity>,
                 [](StateDb const & database) { return Object(database.input<Entity>()); }}...};
}
constexpr auto entities = entityTypesOf(inputs);

std::string entityNames() {
  std::string names;
  for (auto const & entity : entities)
    names += (names.empty() ? "" : ", ") + std::string(entity.name);
  return names;
}

// Walking JSON by the table.

void requireObject(json const & value, std::string_view what) {
  if (!value.is_object())
    mismatch(what, value);
}

void fillCollection(Collection const & collection, Zel::PtrInterface & owner,
                    json const & records) {
  requireObject(records, "an object with a record for each key");
  for (auto const & [key, value] : records.items())
    atPointer("/" + escaped(key), [&, &name = key, &record = value] {
      collection.checkKey(name);
      collection.put(owner, name, parse(collection, name, record));
    });
}

void fillObject(ObjectType const & type, Zel::PtrInterface & object, json const & value) {
  for (auto const & [name, content] : value.items())
    atPointer("/" + escaped(name), [&, &known = name, &given = content] {
      if (auto const * member = type.member(known))
        member->parse(given)(object);
      else if (auto const * collection = type.collection(known))
        fillCollection(*collection, object, given);
      else
        throw Unusable("", "there is no such member");
    });
}

} // namespace

bool isAbsent(Entry const & entry) {
  return std::holds_alternative<std::monostate>(entry);
}
Object objectIn(Entry const & entry) {
  auto const * object = std::get_if<Object>(&entry);
  return object ? *object : nullptr;
}

Member const * ObjectType::member(std::string_view memberName) const {
  for (auto const & member : members)
    if (member.name == memberName)
      return &member;
  return nullptr;
}
Collection const * ObjectType::collection(std::string_view collectionName) const {
  for (auto const & collection : collections)
    if (collection.name == collectionName)
      return &collection;
  return nullptr;
}

std::span<EntityType const> entityTypes() {
  return entities;
}
EntityType const & entityType(std::string_view name) {
  for (auto const & entity : entities)
    if (entity.name == name)
      return entity;
  throw Unusable("", fmt::format("there is no such entity; there are {}", entityNames()));
}

json print(ObjectType const & type, Zel::PtrInterface const & object) {
  auto value = json::object();
  for (auto const & member : type.members)
    value.emplace(member.name, member.print(object));
  for (auto const & collection : type.collections)
    value.emplace(collection.name, print(collection, object));
  return value;
}
json print(Collection const & collection, Zel::PtrInterface const & owner) {
  auto value = json::object();
  collection.forEach(owner, [&](std::string const & key, Entry const & entry) {
    value.emplace(key, print(collection, entry));
  });
  return value;
}
json print(Collection const & collection, Entry const & entry) {
  if (auto const * number = std::get_if<std::uint32_t>(&entry))
    return *number;
  auto const object = objectIn(entry);
  return object ? print(*collection.recordType, *object) : json();
}

Entry parse(Collection const & collection, std::string const & key, json const & value) {
  if (collection.recordType == nullptr)
    return Codec<std::uint32_t>::parse(value, ifIndexRange);
  if (value.is_null())
    return Object();
  requireObject(value, "an object with the record's members, or null");
  auto record = collection.make(key);
  fillObject(*collection.recordType, *record, value);
  return record;
}

void fill(StateDb & database, json const & document) {
  requireObject(document, fmt::format("an object with some of {}", entityNames()));
  for (auto const & [name, value] : document.items())
    atPointer("/" + escaped(name), [&, &known = name, &content = value] {
      auto const & entity = entityType(known);
      requireObject(content, "an object");
      fillObject(*entity.type, *entity.in(database), content);
    });
}

} // namespace StateDb
