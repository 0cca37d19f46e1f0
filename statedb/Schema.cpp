// The table of the document, and walking objects and JSON by it.
#include "statedb/Schema.h"
#include <charconv>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <type_traits>

namespace StateDb {

using nlohmann::json;

namespace {

// How each kind of value is printed and parsed. parse() raises Unusable with an empty pointer.

[[noreturn]] void mismatch(std::string_view wanted, json const & value) {
  throw Unusable("", fmt::format("must be {}, not {}", wanted, shown(value)));
}

/// The value if it is an integer from `min` to `max`; a fraction or a truth value is none.
std::optional<std::uint32_t> integer(json const & value, std::uint32_t min, std::uint32_t max) {
  if (!value.is_number_integer() || (!value.is_number_unsigned() && value.get<std::int64_t>() < 0))
    return std::nullopt;
  auto const number = value.get<std::uint64_t>();
  if (number < min || number > max)
    return std::nullopt;
  return static_cast<std::uint32_t>(number);
}

struct IfIndexCodec {
  static std::uint32_t parse(json const & value) {
    if (auto const number = integer(value, 1, 2147483647))
      return *number;
    mismatch("an ifIndex, 1 to 2147483647", value);
  }
};

struct HopLimitCodec {
  static json print(std::uint8_t value) { return value; }
  static std::uint8_t parse(json const & value) {
    if (auto const number = integer(value, 0, 255))
      return static_cast<std::uint8_t>(*number);
    mismatch("a hop limit, 0 to 255", value);
  }
};

struct TosCodec {
  static json print(std::uint8_t value) { return value; }
  static std::uint8_t parse(json const & value) {
    if (auto const number = integer(value, 0, 63))
      return static_cast<std::uint8_t>(*number);
    mismatch("the six bits of the DSCP, 0 to 63 (an eight-bit ToS divided by 4)", value);
  }
};

struct BoolCodec {
  static json print(bool value) { return value; }
  static bool parse(json const & value) {
    if (value.is_boolean())
      return value.get<bool>();
    mismatch("true or false", value);
  }
};

struct TextCodec {
  static json print(std::string const & value) { return value; }
  static std::string parse(json const & value) {
    if (value.is_string())
      return value.get<std::string>();
    mismatch("a text", value);
  }
};

struct AddressCodec {
  static json print(Plexa::IpGenAddr const & value) { return value.stringValue(); }
  static Plexa::IpGenAddr parse(json const & value) {
    if (value.is_string())
      if (auto const address = Plexa::IpGenAddr::fromString(value.get_ref<std::string const &>()))
        return *address;
    mismatch("an IPv4 or IPv6 address, or \"\" for none", value);
  }
};

/// An enumerator's name, or a number of one byte.
template <class Enum, std::optional<Enum> (*FromString)(std::string_view)>
struct EnumCodec {
  static json print(Enum value) {
    auto const name = valueToStrep(value);
    return FromString(name) ? json(name) : json(static_cast<unsigned>(value));
  }
  static Enum parse(json const & value) {
    if (auto const number = integer(value, 0, 255))
      return static_cast<Enum>(*number);
    if (value.is_string())
      if (auto const named = FromString(value.get_ref<std::string const &>()))
        return *named;
    mismatch(fmt::format("a number from 0 to 255 or one of {}", names()), value);
  }
  static std::string names() {
    std::string all;
    for (unsigned number = 0; number != 256; ++number)
      if (auto const name = valueToStrep(static_cast<Enum>(number)); FromString(name))
        all += (all.empty() ? "" : ", ") + name;
    return all;
  }
};
using ModeCodec = EnumCodec<Plexa::TunnelIntfMode, Plexa::tunnelIntfModeFromString>;
using ConnStateCodec = EnumCodec<Ipsec::Ike::ConnState, Ipsec::Ike::connStateFromString>;

// A line of the table out of the member functions of a class.

template <class Class, auto Get, auto Set, class Codec>
constexpr Member member(std::string_view name) {
  return {name,
          [](Zel::PtrInterface const & object) {
            return Codec::print((static_cast<Class const &>(object).*Get)());
          },
          [](json const & value) -> Setter {
            return [parsed = Codec::parse(value)](Zel::PtrInterface & object) {
              (static_cast<Class &>(object).*Set)(parsed);
            };
          }};
}

template <class Key>
Key keyFrom(std::string_view text) {
  if constexpr (std::is_same_v<Key, std::string>) {
    if (text.empty())
      throw Unusable("", "a profile needs a name");
    return Key(text);
  } else {
    std::uint64_t value = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || std::to_string(value) != text)
      throw Unusable("", "is no interface id: decimal, 0 to 18446744073709551615, "
                         "without sign or leading zeros");
    return Key(value);
  }
}

// How a value of a collection becomes a cell and back.
template <class Value>
struct Record;
template <>
struct Record<std::uint32_t> {
  static Cell cell(std::uint32_t value) { return value; }
  static std::uint32_t value(Cell const & cell) { return std::get<std::uint32_t>(cell); }
  template <class Key>
  static Object make(Key const &) {
    return nullptr;
  }
};
template <class T>
struct Record<Zel::Ptr<T>> {
  static Cell cell(Zel::Ptr<T> const & value) { return Object(value); }
  static Zel::Ptr<T> value(Cell const & cell) {
    return Zel::Ptr<T>(static_cast<T *>(std::get<Object>(cell).get()));
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
  using Entry = typename Map::const_iterator::value_type;
  using Key = std::remove_const_t<typename Entry::first_type>;
  using Value = typename Entry::second_type;
  return {name,
          recordType,
          [](std::string_view key) { keyFrom<Key>(key); },
          [](std::string const & key) { return Record<Value>::make(keyFrom<Key>(key)); },
          [](Zel::PtrInterface const & owner, std::string const & key) -> Cell {
            auto const * value =
                (static_cast<Class const &>(owner).*Entries)().find(keyFrom<Key>(key));
            return value ? Record<Value>::cell(*value) : Cell();
          },
          [](Zel::PtrInterface & owner, std::string const & key, Cell const & cell) {
            (static_cast<Class &>(owner).*Is)(keyFrom<Key>(key), Record<Value>::value(cell));
          },
          [](Zel::PtrInterface & owner, std::string const & key) {
            (static_cast<Class &>(owner).*Del)(keyFrom<Key>(key));
          },
          [](Zel::PtrInterface const & owner, auto const & call) {
            for (auto const & [key, value] : (static_cast<Class const &>(owner).*Entries)())
              call(Zel::keyText(key), Record<Value>::cell(value));
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
using S = TunnelIntfStatus;

constexpr Member statusMembers[] = {
    member<S, &S::srcAddr, &S::srcAddrIs, AddressCodec>("srcAddr"),
    member<S, &S::dstAddr, &S::dstAddrIs, AddressCodec>("dstAddr"),
    member<S, &S::mode, &S::modeIs, ModeCodec>("mode"),
    member<S, &S::hopLimit, &S::hopLimitIs, HopLimitCodec>("hopLimit"),
    member<S, &S::tos, &S::tosIs, TosCodec>("tos"),
    member<S, &S::ipsec, &S::ipsecIs, BoolCodec>("ipsec"),
};
constexpr ObjectType statusType{statusMembers, {}};
constexpr Collection statusCollections[] = {
    collection<TunnelIntfStatusDir, &TunnelIntfStatusDir::intfStatus,
               &TunnelIntfStatusDir::intfStatusIs, &TunnelIntfStatusDir::intfStatusDel>(
        "intfStatus", &statusType),
};
constexpr ObjectType statusDirType{{}, statusCollections};

constexpr Collection ifMibCollections[] = {
    collection<IfMib, &IfMib::ifIndexByIntfId, &IfMib::ifIndexByIntfIdIs,
               &IfMib::ifIndexByIntfIdDel>("ifIndexByIntfId", nullptr),
};
constexpr ObjectType ifMibType{{}, ifMibCollections};

constexpr Member tunnelInfoMembers[] = {
    member<TunnelInfo, &TunnelInfo::profileName, &TunnelInfo::profileNameIs, TextCodec>(
        "profileName"),
};
constexpr ObjectType tunnelInfoType{tunnelInfoMembers, {}};
constexpr Member profileInfoMembers[] = {
    member<IpsecTunnelProfileInfo, &IpsecTunnelProfileInfo::connState,
           &IpsecTunnelProfileInfo::connStateIs, ConnStateCodec>("connState"),
};
constexpr ObjectType profileInfoType{profileInfoMembers, {}};
constexpr Collection profileCollections[] = {
    collection<IpsecProfileConnectionMap, &IpsecProfileConnectionMap::appliedIntfId,
               &IpsecProfileConnectionMap::appliedIntfIdIs,
               &IpsecProfileConnectionMap::appliedIntfIdDel>("appliedIntfId", &profileInfoType),
};
constexpr ObjectType profileType{{}, profileCollections};
constexpr Collection ikeCollections[] = {
    collection<Status, &Status::ipsecTunnelInfo, &Status::ipsecTunnelInfoIs,
               &Status::ipsecTunnelInfoDel>("ipsecTunnelInfo", &tunnelInfoType),
    collection<Status, &Status::appliedProfiles, &Status::appliedProfilesIs,
               &Status::appliedProfilesDel>("appliedProfiles", &profileType),
};
constexpr ObjectType ikeStatusType{{}, ikeCollections};

constexpr EntityType entities[] = {
    {"tunnelIntfStatusDir", &statusDirType,
     [](StateDb const & database) { return Object(database.tunnelIntfStatusDir()); }},
    {"ifMib", &ifMibType, [](StateDb const & database) { return Object(database.ifMib()); }},
    {"ikeStatus", &ikeStatusType,
     [](StateDb const & database) { return Object(database.ikeStatus()); }},
};

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
    within("/" + escaped(key), [&, &name = key, &record = value] {
      collection.checkKey(name);
      collection.put(owner, name, parse(collection, name, record));
    });
}

void fillObject(ObjectType const & type, Zel::PtrInterface & object, json const & value) {
  for (auto const & [name, part] : value.items())
    within("/" + escaped(name), [&, &known = name, &content = part] {
      if (auto const * member = type.member(known))
        member->parse(content)(object);
      else if (auto const * collection = type.collection(known))
        fillCollection(*collection, object, content);
      else
        throw Unusable("", "there is no such member");
    });
}

} // namespace

Unusable::Unusable(std::string pointer, std::string const & reason)
    : std::runtime_error(reason),
      pointer_(std::move(pointer)) {}

bool isAbsent(Cell const & cell) {
  return std::holds_alternative<std::monostate>(cell);
}
Object objectIn(Cell const & cell) {
  auto const * object = std::get_if<Object>(&cell);
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
  collection.forEach(owner, [&](std::string const & key, Cell const & cell) {
    value.emplace(key, print(collection, cell));
  });
  return value;
}
json print(Collection const & collection, Cell const & cell) {
  if (auto const * number = std::get_if<std::uint32_t>(&cell))
    return *number;
  auto const object = objectIn(cell);
  return object ? print(*collection.recordType, *object) : json();
}

Cell parse(Collection const & collection, std::string const & key, json const & value) {
  if (collection.recordType == nullptr)
    return IfIndexCodec::parse(value);
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
    within("/" + escaped(name), [&, &known = name, &content = value] {
      auto const & entity = entityType(known);
      requireObject(content, "an object");
      fillObject(*entity.type, *entity.in(database), content);
    });
}

std::string escaped(std::string_view name) {
  std::string text;
  for (auto const c : name) {
    if (c == '~')
      text += "~0";
    else if (c == '/')
      text += "~1";
    else
      text += c;
  }
  return text;
}

std::string shown(json const & value) {
  if (value.is_structured())
    return value.is_array() ? "an array" : "an object";
  constexpr std::size_t longest = 60;
  auto text = value.dump(-1, ' ', true, json::error_handler_t::replace);
  if (text.size() > longest)
    text = text.substr(0, longest) + "...";
  return text;
}

} // namespace StateDb
