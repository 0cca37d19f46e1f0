// How the keys and the values of the document are read from JSON and printed: one codec for each
// type that a record's member can have. Schema.h builds the document's table out of them; a source
// that reads records from elsewhere uses them as they are.
#pragma once

#include "platform/Ipsec.h"
#include "platform/Plexa.h"
#include "platform/zel/Record.h"
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace StateDb {

/// A name, a key or a value that does not fit where it stands. pointer() leads there, from the
/// value that the raising function was given; what() is the reason alone.
class Unusable : public std::runtime_error {
public:
  Unusable(std::string pointer, std::string const & reason);
  std::string const & pointer() const { return pointer_; }

private:
  std::string pointer_;
};

/// Calls `call`; what it raises as Unusable goes on with `prefix` before its pointer.
template <class Call>
auto atPointer(std::string_view prefix, Call const & call) {
  try {
    return call();
  } catch (Unusable const & unusable) {
    throw Unusable(std::string(prefix) + unusable.pointer(), unusable.what());
  }
}
/// Raises Unusable: "must be WANTED, not VALUE".
[[noreturn]] void mismatch(std::string_view wanted, nlohmann::json const & value);
/// The value for an error message: one line, cut when it is long, no matter how deeply it is
/// nested.
std::string shown(nlohmann::json const & value);
/// A name as it stands in a JSON pointer: "~" and "/" escaped.
std::string escaped(std::string_view name);

/// The key of a collection that `text` is. Raises Unusable, with an empty pointer, when it is none:
/// an interface id is decimal without sign or leading zeros, a profile's name is not empty.
template <class Key>
Key keyFrom(std::string_view text);
template <>
Plexa::IntfId keyFrom(std::string_view text);
template <>
std::string keyFrom(std::string_view text);

/// What a member's type may be. print() gives what parse() takes; parse() raises Unusable, with an
/// empty pointer, when the value does not fit. Numbers need a range.
template <class T>
struct Codec;
template <>
struct Codec<std::uint8_t> {
  static nlohmann::json print(std::uint8_t value) { return value; }
  static std::uint8_t parse(nlohmann::json const & value, Zel::Range const & range);
};
template <>
struct Codec<std::uint32_t> {
  static nlohmann::json print(std::uint32_t value) { return value; }
  static std::uint32_t parse(nlohmann::json const & value, Zel::Range const & range);
};
template <>
struct Codec<bool> {
  static nlohmann::json print(bool value) { return value; }
  static bool parse(nlohmann::json const & value, Zel::Range const &);
};
template <>
struct Codec<std::string> {
  static nlohmann::json print(std::string const & value) { return value; }
  static std::string parse(nlohmann::json const & value, Zel::Range const &);
};
template <>
struct Codec<Plexa::IpGenAddr> {
  static nlohmann::json print(Plexa::IpGenAddr const & value) { return value.stringValue(); }
  static Plexa::IpGenAddr parse(nlohmann::json const & value, Zel::Range const &);
};
/// An enumerator's name, or a number of one byte.
template <>
struct Codec<Plexa::TunnelIntfMode> {
  static nlohmann::json print(Plexa::TunnelIntfMode value);
  static Plexa::TunnelIntfMode parse(nlohmann::json const & value, Zel::Range const &);
};
template <>
struct Codec<Ipsec::Ike::ConnState> {
  static nlohmann::json print(Ipsec::Ike::ConnState value);
  static Ipsec::Ike::ConnState parse(nlohmann::json const & value, Zel::Range const &);
};

/// What an ifIndex may be (RFC 2863 InterfaceIndex).
inline constexpr Zel::Range ifIndexRange{1, 2147483647, "an ifIndex, 1 to 2147483647"};

/// Stores `value` in the member of that name. Raises Unusable, with an empty pointer, when there is
/// no such member or the value does not fit.
template <Zel::RecordValues Values>
void parseMember(Values & values, std::string_view name, nlohmann::json const & value) {
  bool found = false;
  Zel::forEachField<Values>([&](auto const & field, std::size_t) {
    if (field.name != name)
      return;
    using Type = typename std::remove_cvref_t<decltype(field)>::Type;
    values.*field.member = Codec<Type>::parse(value, field.range);
    found = true;
  });
  if (!found)
    throw Unusable("", "there is no such member");
}

} // namespace StateDb
