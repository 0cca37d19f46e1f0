// Just enough of BER (X.690) to write SNMP requests that are right, or wrong in one place.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Fuzz::Ber {

/// Content of less than 64 KiB.
inline std::string element(unsigned char tag, std::string const & content) {
  auto const size = content.size();
  std::string out(1, static_cast<char>(tag));
  if (size >= 0x80) {
    out += '\x82';
    out += static_cast<char>(size >> 8);
  }
  out += static_cast<char>(size);
  return out + content;
}

/// Of four octets, whatever it is.
inline std::string integer(std::uint32_t value) {
  std::string content;
  for (int shift = 24; shift >= 0; shift -= 8)
    content += static_cast<char>(value >> shift);
  return element(0x02, content);
}

/// Content of an OBJECT IDENTIFIER that begins with 1.3.
inline std::string identifier(std::vector<std::uint32_t> const & behindOneThree) {
  std::string content(1, '\x2b');
  for (auto const part : behindOneThree) {
    for (int shift = 28; shift > 0; shift -= 7)
      if (part >> shift != 0)
        content += static_cast<char>(0x80 | (part >> shift & 0x7F));
    content += static_cast<char>(part & 0x7F);
  }
  return content;
}

/// A message of SNMPv2c with community "public". `first` and `second` are what stands in the places
/// of error status and error index: of a GETBULK, non-repeaters and max-repetitions.
inline std::string message(unsigned char pduType, std::uint32_t first, std::uint32_t second,
                           std::string const & varbinds) {
  auto const pdu = element(pduType, integer(0x11223344) + integer(first) + integer(second) +
                                        element(0x30, varbinds));
  return element(0x30, element(0x02, std::string(1, '\1')) + element(0x04, "public") + pdu);
}

inline std::string varbind(std::string const & identifier, std::string const & value) {
  return element(0x30, element(0x06, identifier) + value);
}

} // namespace Fuzz::Ber
