// Records: objects that hold a few plain values, all described by one list.
//
// A record's values are a plain struct, which is compared and copied as one. The struct lists its
// members once:
//
//   struct Values {
//     std::uint8_t size = 0;
//     bool round = false;
//     static constexpr auto fields() {
//       return std::tuple{Zel::RecordField{"size", "U8", &Values::size, Zel::Range{0, 9, "..."}},
//                         Zel::RecordField{"round", "bool", &Values::round}};
//     }
//     bool operator==(Values const &) const = default;
//   };
//
// The attributes, the setters that store and notify, setting many at once, and what documents show
// of the record follow from that list, in its order.
#pragma once

#include "platform/zel/Exceptions.h"
#include "platform/zel/Notifiee.h"
#include "platform/zel/Type.h"
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Zel {

/// Which numbers a member may be where its type allows more. `text` says so in a message: "a size,
/// 0 to 9". For numbers from outside: setters store whatever they are given.
struct Range {
  std::uint32_t min = 0;
  std::uint32_t max = 0;
  std::string_view text;
};

/// One member of a record's values. `typeName` is the attribute's.
template <class Values, class T>
struct RecordField {
  using Type = T;
  std::string_view name;
  std::string_view typeName;
  T Values::*member;
  Range range{};
};
template <class Values, class T>
RecordField(char const *, char const *, T Values::*) -> RecordField<Values, T>;
template <class Values, class T>
RecordField(char const *, char const *, T Values::*, Range) -> RecordField<Values, T>;

template <class V>
concept RecordValues = std::equality_comparable<V> && requires {
  V::fields();
};

template <RecordValues Values>
inline constexpr std::size_t fieldCount = std::tuple_size_v<decltype(Values::fields())>;

/// Some members of a record's values: bit 0 stands for the first of the list.
using FieldSet = std::uint32_t;

/// Calls `visit(field, index)` for each member, in the order of the list.
template <RecordValues Values, class Visit>
constexpr void forEachField(Visit visit) {
  std::size_t index = 0;
  std::apply([&](auto const &... field) { (visit(field, index++), ...); }, Values::fields());
}

namespace Detail {
template <class T>
struct MemberPointer;
template <class C, class T>
struct MemberPointer<T C::*> {
  using Class = C;
  using Type = T;
};
} // namespace Detail

/// The struct that a pointer to a member points into.
template <auto Member>
using ValuesOf = typename Detail::MemberPointer<decltype(Member)>::Class;
template <auto Member>
using MemberType = typename Detail::MemberPointer<decltype(Member)>::Type;

/// Where the member stands in its struct's list.
template <auto Member>
constexpr std::size_t fieldIndex() {
  auto found = fieldCount<ValuesOf<Member>>;
  forEachField<ValuesOf<Member>>([&](auto const & field, std::size_t index) {
    if constexpr (std::same_as<std::remove_cvref_t<decltype(field.member)>,
                               std::remove_cv_t<decltype(Member)>>)
      if (field.member == Member)
        found = index;
  });
  return found;
}
template <auto Member>
inline constexpr FieldSet fieldSet = FieldSet{1} << fieldIndex<Member>();

/// The members in which the two differ.
template <RecordValues Values>
FieldSet differingFields(Values const & one, Values const & other) {
  FieldSet differing = 0;
  forEachField<Values>([&](auto const & field, std::size_t index) {
    if (!(one.*field.member == other.*field.member))
      differing |= FieldSet{1} << index;
  });
  return differing;
}

/// Copies the members of `set` from one to the other.
template <RecordValues Values>
void copyFields(Values & to, Values const & from, FieldSet set) {
  forEachField<Values>([&](auto const & field, std::size_t index) {
    if ((set >> index & 1) != 0)
      to.*field.member = from.*field.member;
  });
}

/// The base of a record of type `Derived` with such values. Notification is on from the start.
///
/// `Derived` gives `static std::span<Attribute const> fieldAttributes()`: what
/// attributesOfFields<Derived>() makes, from one place of the program, since an attribute's address
/// is its identity.
template <class Derived, RecordValues V>
class Record : public PtrInterface {
public:
  using Values = V;
  static_assert(fieldCount<V> <= 32);

  V const & values() const { return values_; }
  /// Stores what differs; when all is stored, notifies each attribute that changed, once, in the
  /// order of the list. Every notifiee is told everything; then the first exception that one raised
  /// is thrown on.
  void valuesIs(V const & values) {
    if (auto const differing = differingFields(values_, values); differing != 0)
      store(values, differing);
  }
  /// Stores one member and notifies its attribute; does neither when the value is the same.
  template <auto Member>
  void fieldIs(MemberType<Member> const & value) {
    if (values_.*Member == value)
      return;
    Derived::beforeChange();
    values_.*Member = value;
    notify(attributeOf<Member>());
  }
  template <auto Member>
  static Attribute const & attributeOf() {
    return Derived::fieldAttributes()[fieldIndex<Member>()];
  }

protected:
  explicit Record(V values = {}) : values_(std::move(values)) { hasNotificationActiveIs(true); }

  /// Called before anything is stored; a `Derived` with something to do then has its own.
  static void beforeChange() {}

private:
  void store(V const & values, FieldSet differing) {
    Ptr<PtrInterface> const self(this);
    Derived::beforeChange();
    values_ = values;
    FirstException exception;
    for (std::size_t index = 0; index != fieldCount<V>; ++index)
      if ((differing >> index & 1) != 0)
        exception.run([&] { notify(Derived::fieldAttributes()[index]); });
    exception.rethrow();
  }

  V values_;
};

/// The attributes of a record's members, each read by name.
template <class R>
constexpr auto attributesOfFields() {
  using Values = typename R::Values;
  return []<std::size_t... index>(std::index_sequence<index...>) {
    return std::array{Attribute{std::get<index>(Values::fields()).name,
                                std::get<index>(Values::fields()).typeName,
                                [](PtrInterface const & object) {
                                  return toValue(static_cast<R const &>(object).values().*
                                                 std::get<index>(Values::fields()).member);
                                }}...};
  }
  (std::make_index_sequence<fieldCount<Values>>());
}

} // namespace Zel
