// The text form of value types: written for traces, and read back exactly.
//
//   Value('Name::Space::Type', ** {'first': 1, 'second': True})
//
// A value type takes part by naming itself and its fields once:
//
//   static constexpr std::string_view typeName = "Name::Space::Type";
//   static constexpr auto fields() { return std::tuple{Zel::Field{"first", &Type::first}, ...}; }
//
// Equality, hashing, printing and parsing all follow that one list, in its order. A field is an
// unsigned number (decimal), a bool (True, False), a text ('it\'s', with a backslash before each
// quote and backslash), another such value, or any type with its own
// strepWrite(std::string &, T const &) and strepRead(StrepReader &, T &).
#pragma once

#include "platform/zel/Exceptions.h"
#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>

namespace Zel {

/// A text that a template can be given, such as the name of a value type.
template <std::size_t N>
struct FixedText {
  char text[N];
  constexpr FixedText(char const (&literal)[N]) { std::copy_n(literal, N, text); }
  constexpr std::string_view view() const { return {text, N - 1}; }
};

template <class T, class Member>
struct Field {
  std::string_view name;
  Member T::*member;
};

template <class T>
concept FieldedValue = requires {
  { T::typeName } -> std::convertible_to<std::string_view>;
  T::fields();
};

/// A text that is consumed from the front. Refers to the text, which must outlive it.
class StrepReader {
public:
  explicit StrepReader(std::string_view text) : rest_(text) {}

  /// Consumes `literal`. Raises StrepError when the text does not continue with it.
  void require(std::string_view literal);
  /// Consumes `literal` if the text continues with it. True if and only if it did.
  bool accept(std::string_view literal);
  /// Consumes everything before the next `end`, and `end`. Raises StrepError when it is missing.
  std::string_view until(char end);
  /// Consumes one character. Raises StrepError when none is left.
  char next();
  /// Consumes a decimal number without sign or leading zeros, at most `max`; raises StrepError.
  std::uint64_t number(std::uint64_t max);
  /// Raises StrepError when text is left.
  void requireEnd() const;

private:
  std::string_view rest_;
};

void strepWrite(std::string & out, bool value);
void strepRead(StrepReader & in, bool & value);
void strepWrite(std::string & out, std::string const & text);
void strepRead(StrepReader & in, std::string & text);

template <std::unsigned_integral T>
void strepWrite(std::string & out, T value) {
  out += std::to_string(value);
}
template <std::unsigned_integral T>
void strepRead(StrepReader & in, T & value) {
  value = static_cast<T>(in.number(std::numeric_limits<T>::max()));
}

namespace Detail {

template <class T>
void readField(StrepReader & in, std::string_view before, std::string_view name, T & value) {
  in.require(before);
  in.require("'");
  in.require(name);
  in.require("': ");
  try {
    strepRead(in, value);
  } catch (RangeException const & reason) {
    throw DeserialisationError(name, reason.what());
  }
}

} // namespace Detail

template <FieldedValue T>
void strepWrite(std::string & out, T const & value) {
  out.append("Value('").append(T::typeName).append("', ** {");
  std::string_view before;
  auto const writeField = [&](auto const & field) {
    out.append(before).append("'").append(field.name).append("': ");
    strepWrite(out, value.*field.member);
    before = ", ";
  };
  std::apply([&](auto const &... field) { (writeField(field), ...); }, T::fields());
  out += "})";
}

template <FieldedValue T>
void strepRead(StrepReader & in, T & value) {
  in.require("Value('");
  in.require(T::typeName);
  in.require("', ** {");
  std::string_view before;
  auto const read = [&](auto const & field) {
    Detail::readField(in, before, field.name, value.*field.member);
    before = ", ";
  };
  std::apply([&](auto const &... field) { (read(field), ...); }, T::fields());
  in.require("})");
}

/// The text form of a value.
template <class T>
std::string valueToStrep(T const & value) {
  std::string out;
  strepWrite(out, value);
  return out;
}

/// The value whose text form `text` is, whole. Raises StrepError, or DeserialisationError naming
/// the field, when it is none.
template <class T>
T strepToValue(std::string_view text) {
  StrepReader in(text);
  T value;
  strepRead(in, value);
  in.requireEnd();
  return value;
}

} // namespace Zel
