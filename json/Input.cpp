// Bounds are checked before nlohmann's parser works.
#include "json/Input.h"
#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace JsonInput {

namespace {

constexpr std::size_t longestReason = 200;

/// The line of the octet at that place, from 1. Requires: it is in the text, or at its end.
std::ptrdiff_t lineAt(std::string_view text, std::size_t place) {
  auto const before = text.substr(0, place);
  return std::count(before.begin(), before.end(), '\n') + 1;
}

void requireNoNul(std::string_view text) {
  if (auto const place = text.find('\0'); place != std::string_view::npos)
    throw Wrong(fmt::format("line {}: {}", lineAt(text, place), holdsNul));
}

/// The parser itself could be asked at each step, but then it goes through an array or object again
/// behind each of its elements. Brackets inside strings do not count.
void requireNotDeep(std::string_view text) {
  std::size_t depth = 0;
  bool isInString = false;
  for (std::size_t i = 0; i != text.size(); ++i) {
    auto const character = text[i];
    if (character == '"')
      isInString = !isInString;
    else if (isInString && character == '\\' && i + 1 != text.size())
      ++i;
    else if (!isInString && (character == '[' || character == '{') && ++depth > deepest)
      throw Wrong(tooDeep());
    else if (!isInString && (character == ']' || character == '}') && depth != 0)
      --depth;
  }
}

/// Quoted input may be in no encoding at all, and may have been cut in the middle of a character.
std::string inAscii(std::string_view text) {
  std::string ascii;
  for (auto const character : text)
    if (character >= ' ' && character <= '~')
      ascii += character;
    else
      ascii += fmt::format("<{:02X}>", static_cast<unsigned char>(character));
  return ascii;
}

} // namespace

template <class AnyJson>
AnyJson parse(std::string_view text) {
  requireNoNul(text);
  requireNotDeep(text);
  try {
    return AnyJson::parse(text);
  } catch (typename AnyJson::parse_error const & error) {
    auto const place = std::min(error.byte == 0 ? 0 : error.byte - 1, text.size());
    throw Wrong(fmt::format("line {}: {}", lineAt(text, place), plainReason(error)));
  } catch (typename AnyJson::exception const & error) {
    throw Wrong(plainReason(error));
  }
}
template nlohmann::json parse(std::string_view text);
template nlohmann::ordered_json parse(std::string_view text);

std::string tooDeep() {
  return fmt::format("arrays and objects are nested deeper than {} levels", deepest);
}

// "[json.exception.parse_error.101] parse error at line 1, column 2: REASON"
std::string plainReason(std::exception const & error) {
  std::string_view reason = error.what();
  if (auto const number = reason.find("] "); reason.starts_with('[') && number != reason.npos)
    reason.remove_prefix(number + 2);
  if (auto const place = reason.find(": ");
      reason.starts_with("parse error") && place != reason.npos)
    reason.remove_prefix(place + 2);
  return inAscii(reason.substr(0, longestReason));
}

} // namespace JsonInput
