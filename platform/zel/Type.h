// Types, attributes and values by name: how a host creates what a plug-in defines, sets it up and
// looks into it without including any of its headers.
#pragma once

#include "platform/zel/Exceptions.h"
#include "platform/zel/HashMap2018.h"
#include "platform/zel/Optional.h"
#include "platform/zel/Ptr.h"
#include "platform/zel/RbTreeMap.h"
#include "platform/zel/Strep.h"
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Zel {

/// A copy of an attribute's value, readable without knowing its type. A collection is a list of
/// (key in text form, value) in the collection's own order.
struct Value {
  using Collection = std::vector<std::pair<std::string, Value>>;
  std::variant<std::monostate, bool, std::uint64_t, std::string, Ptr<PtrInterface const>,
               Collection>
      is;
};

/// Gives the entries of a collection one after the other, in its order: the value of each, or
/// nothing behind the last one. It keeps a key and no position, so entries may come and go between
/// two calls; one that is there all the while is given once. The object outlives it.
using Walk = std::function<std::optional<Value>()>;

/// What one number of an enumeration means.
struct Enumerator {
  std::uint64_t number;
  std::string_view name;
};

/// One attribute of a type. Its address is its identity in notifications.
struct Attribute {
  std::string_view name;
  std::string_view typeName;
  /// Reads the attribute; null if it cannot be read by name. Requires: an object of its type.
  Value (*get)(PtrInterface const & object) = nullptr;
  /// Finds or creates the object that the attribute holds, from its constructor arguments; null if
  /// it cannot be set by name. Raises GenericAccessError when an argument has the wrong type.
  Ptr<PtrInterface> (*is)(PtrInterface & object,
                          std::span<Ptr<PtrInterface> const> arguments) = nullptr;
  /// Removes what the attribute holds: its object, or every entry of its collection; null if it
  /// cannot be removed by name.
  void (*del)(PtrInterface & object) = nullptr;
  /// Begins a walk over the collection that the attribute holds; null if it cannot be walked.
  Walk (*walk)(PtrInterface const & object) = nullptr;
  /// What its numbers mean; empty where they are no enumeration's. Lives as long as the attribute.
  std::span<Enumerator const> enumerators = {};
};

/// What the framework knows of a type.
struct Type {
  std::string_view name;
  std::span<Attribute const * const> attributes;
  /// Makes an object from its name; null for a type that cannot be made so.
  Ptr<PtrInterface> (*factory)(std::string_view name) = nullptr;
};

/// What one source unit tells the framework when its library is loaded.
struct Module {
  std::string_view name;
  std::string_view namespacePrefix;
  std::span<Type const * const> types;
  /// Types of other modules that this one's attributes refer to.
  std::span<std::string_view const> outsideTypes;
};

/// The addresses of an array of attributes, as Type wants them.
template <std::size_t N>
std::array<Attribute const *, N> pointersTo(Attribute const (&list)[N]) {
  std::array<Attribute const *, N> pointers;
  for (std::size_t i = 0; i != N; ++i)
    pointers[i] = &list[i];
  return pointers;
}

/// The number of the interface that the headers of platform/ are. Advances by one with each change
/// after which a plug-in that was built before would not fit any more: of a member, of a virtual
/// function, of a collection's insides, of what an argument or a text means. What is only added
/// beside the rest needs no new number.
inline constexpr unsigned platformInterface = 2;
template <unsigned Number>
struct PlatformInterface {};

/// Keeps a module known for as long as it lives: a static object of the unit that defines it.
class zelModuleIs {
public:
  /// Requires: no type of the module is known yet; a second definition is fatal.
  ///
  /// The number becomes a part of the symbol that a plug-in asks for, and there is one for the
  /// host's own number alone: the dynamic linker refuses a plug-in of other headers before any of
  /// its code runs.
  explicit zelModuleIs(Module const & module, PlatformInterface<platformInterface> = {});
  zelModuleIs(zelModuleIs const &) = delete;
  zelModuleIs & operator=(zelModuleIs const &) = delete;
  ~zelModuleIs();

private:
  Module const & module_;
};

/// The known modules, in the order in which they were loaded.
std::vector<Module const *> modules();
/// The type of that name, or null.
Type const * typeByName(std::string_view name);
/// Makes an object of the type of that name. Raises GenericAccessError when there is no such type
/// or it has no factory.
Ptr<PtrInterface> createByTypeName(std::string_view typeName, std::string_view name);

/// Reads an attribute by name. Raises GenericAccessError when there is none that can be read.
Value attribute(PtrInterface const & object, std::string_view name);
/// Sets an attribute by name and returns the object that it now holds. Raises GenericAccessError
/// when there is none that can be set, or an argument does not fit.
Ptr<PtrInterface> attributeIs(PtrInterface & object, std::string_view name,
                              std::span<Ptr<PtrInterface> const> arguments);
/// Removes what an attribute holds. Raises GenericAccessError when there is none of that name that
/// can be removed.
void attributeDel(PtrInterface & object, std::string_view name);

// Values out of C++ types, for the `get` of an attribute.
inline Value toValue(std::string const & text) {
  return {text};
}
template <class T>
Value toValue(Ptr<T> const & object) {
  return object ? Value{Ptr<PtrInterface const>(object)} : Value{};
}
/// bool and unsigned numbers themselves, any other type by its text form, found as valueToStrep
/// beside the type or in this namespace.
template <class T>
Value toValue(T const & value) {
  if constexpr (std::same_as<T, bool>)
    return {value};
  else if constexpr (std::unsigned_integral<T>)
    return {static_cast<std::uint64_t>(value)};
  else
    return {std::string(valueToStrep(value))};
}
template <class Key>
std::string keyText(Key const & key) {
  if constexpr (std::convertible_to<Key, std::string>)
    return key;
  else
    return valueToStrep(key);
}
template <class Entries>
Value collectionToValue(Entries const & entries) {
  Value::Collection all;
  all.reserve(entries.size());
  for (auto const & [key, value] : entries)
    all.emplace_back(keyText(key), toValue(value));
  return {std::move(all)};
}
template <class Key, class T>
Value toValue(RbTreeMap<Key, T> const & entries) {
  return collectionToValue(entries);
}
template <class Key, class T>
Value toValue(HashMap2018<Key, T> const & entries) {
  return collectionToValue(entries);
}

namespace Detail {
template <class T>
struct MemberOf;
template <class C, class R>
struct MemberOf<R (C::*)() const> {
  using Class = C;
};
template <class C, class R>
struct MemberOf<R (C::*)() const noexcept> {
  using Class = C;
};
} // namespace Detail

/// The `get` of an attribute that a const member function without arguments computes.
template <auto Member>
Value getBy(PtrInterface const & object) {
  using Class = typename Detail::MemberOf<decltype(Member)>::Class;
  return toValue((static_cast<Class const &>(object).*Member)());
}

/// The `walk` of an attribute that a const member function returns: an RbTreeMap.
template <auto Member>
Walk walkBy(PtrInterface const & object) {
  using Class = typename Detail::MemberOf<decltype(Member)>::Class;
  auto const & entries = (static_cast<Class const &>(object).*Member)();
  using Key = std::remove_cvref_t<decltype(entries.begin()->first)>;
  return [&entries, last = std::optional<Key>()]() mutable -> std::optional<Value> {
    auto const next = last ? entries.findNext(*last) : entries.begin();
    if (next == entries.end())
      return std::nullopt;
    last = next->first;
    return toValue(next->second);
  };
}

/// An argument as the type that an attribute's `is` needs. Raises GenericAccessError, naming the
/// attribute, when it is something else; null stays null.
template <class T>
Ptr<T> argument(Ptr<PtrInterface> const & given, std::string_view attribute) {
  auto cast = dynamicCast<T>(given);
  if (given && !cast)
    throw GenericAccessError("attribute " + std::string(attribute) + ": an argument is a " +
                             std::string(given->type().name) + ", which does not fit");
  return cast;
}

} // namespace Zel
