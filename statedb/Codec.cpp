// One codec for each type of value, and what they share.
#include "statedb/Codec.h"
#include <charconv>
#include <fmt/format.h>
#include <optional>
#include <system_error>

namespace StateDb {

using nlohmann::json;

namespace {

/// The value if it is an integer in the range; a fraction or a truth value is none.
std::optional<std::uint32_t> integer(json const & value, Zel::Range const & range) {
  if (!value.is_number_integer() || (!value.is_number_unsigned() && value.get<std::int64_t>() < 0))
    return std::nullopt;
  auto const number = value.get<std::uint64_t>();
  if (number < range.min || number > range.max)
    return std::nullopt;
  return static_cast<std::uint32_t>(number);
}

template <class Enum, std::optional<Enum> (*FromString)(std::string_view)>
struct EnumCodec {
  static json print(Enum value) {
    auto const name = valueToStrep(value);
    return FromString(name) ? json(name) : json(static_cast<unsigned>(value));
  }
  static Enum parse(json const & value) {
    if (auto const number = integer(value, {0, 255, {}}))
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

} // namespace

Unusable::Unusable(std::string pointer, std::string const & reason)
    : std::runtime_error(reason),
      pointer_(std::move(pointer)) {}

void mismatch(std::string_view wanted, json const & value) {
  throw Unusable("", fmt::format("must be {}, not {}", wanted, shown(value)));
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

template <>
Plexa::IntfId keyFrom(std::string_view text) {
  std::uint64_t value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  auto const padded = text.size() > 1 && text.front() == '0';
  if (error != std::errc() || end != text.data() + text.size() || padded)
    throw Unusable("", "is no interface id: decimal, 0 to 18446744073709551615, "
                       "without sign or leading zeros");
  return Plexa::IntfId(value);
}
template <>
std::string keyFrom(std::string_view text) {
  if (text.empty())
    throw Unusable("", "a profile needs a name");
  return std::string(text);
}

std::uint8_t Codec<std::uint8_t>::parse(json const & value, Zel::Range const & range) {
  return static_cast<std::uint8_t>(Codec<std::uint32_t>::parse(value, range));
}
std::uint32_t Codec<std::uint32_t>::parse(json const & value, Zel::Range const & range) {
  if (auto const number = integer(value, range))
    return *number;
  mismatch(range.text, value);
}
bool Codec<bool>::parse(json const & value, Zel::Range const &) {
  if (value.is_boolean())
    return value.get<bool>();
  mismatch("true or false", value);
}
std::string Codec<std::string>::parse(json const & value, Zel::Range const &) {
  if (value.is_string())
    return value.get<std::string>();
  mismatch("a text", value);
}
Plexa::IpGenAddr Codec<Plexa::IpGenAddr>::parse(json const & value, Zel::Range const &) {
  if (value.is_string())
    if (auto const address = Plexa::IpGenAddr::fromString(value.get_ref<std::string const &>()))
      return *address;
  mismatch("an IPv4 or IPv6 address, or \"\" for none", value);
}
json Codec<Plexa::TunnelIntfMode>::print(Plexa::TunnelIntfMode value) {
  return ModeCodec::print(value);
}
Plexa::TunnelIntfMode Codec<Plexa::TunnelIntfMode>::parse(json const & value, Zel::Range const &) {
  return ModeCodec::parse(value);
}
json Codec<Ipsec::Ike::ConnState>::print(Ipsec::Ike::ConnState value) {
  return ConnStateCodec::print(value);
}
Ipsec::Ike::ConnState Codec<Ipsec::Ike::ConnState>::parse(json const & value, Zel::Range const &) {
  return ConnStateCodec::parse(value);
}

} // namespace StateDb
