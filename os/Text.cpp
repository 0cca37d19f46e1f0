// UTF-8 is looked at only as far as showing it needs: which octets belong to one character.
#include "os/Text.h"
#include <cstddef>

namespace Os {

namespace {

bool isContinuation(unsigned char octet) {
  return (octet & 0xC0) == 0x80;
}

/// The octets of the character at the beginning, 0 when they are not UTF-8 or would be obeyed.
std::size_t shownLength(std::string_view text) {
  auto const octet = [&](std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u;
  };
  auto const first = octet(0);
  if (first < 0x80)
    return first >= 0x20 && first != 0x7F ? 1 : 0;
  std::size_t const length = first >= 0xF5 ? 0 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (length == 0 || first < 0xC2)
    return 0;
  for (std::size_t at = 1; at != length; ++at)
    if (!isContinuation(static_cast<unsigned char>(octet(at))))
      return 0;
  auto const isC1 = first == 0xC2 && octet(1) < 0xA0;
  auto const isLongerThanNeeded =
      (first == 0xE0 && octet(1) < 0xA0) || (first == 0xF0 && octet(1) < 0x90);
  auto const isSurrogate = first == 0xED && octet(1) >= 0xA0;
  auto const isBeyond = first == 0xF4 && octet(1) >= 0x90;
  return isC1 || isLongerThanNeeded || isSurrogate || isBeyond ? 0 : length;
}

void appendEscaped(std::string & out, char octet) {
  constexpr char digits[] = "0123456789ABCDEF";
  auto const value = static_cast<unsigned char>(octet);
  out += "\\x";
  out += digits[value >> 4];
  out += digits[value & 15];
}

bool isBlank(char character) {
  return character == ' ' || character == '\n' || character == '\r' || character == '\t';
}

} // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    auto const length = shownLength(text);
    if (length == 0)
      appendEscaped(out, text.front());
    else
      out += text.substr(0, length);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

std::string oneLine(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (auto const character : text) {
    if (!isBlank(character))
      line += character;
    else if (!line.empty() && line.back() != ' ')
      line += ' ';
  }
  if (!line.empty() && line.back() == ' ')
    line.pop_back();
  return printable(line);
}

} // namespace Os
