// What the messages of every netlink family have in common: a header, and attributes behind what
// the family puts first.
//
// Takes bytes, returns values that refer to them, touches nothing else. Any bytes will do; what
// does not fit raises MalformedMessage, which the decoders return as their result.
#pragma once

#include "platform/Plexa.h"
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

struct nlattr;
struct nlmsghdr;

namespace Sources::Linux {

using Bytes = std::span<std::byte const>;

/// Not about what the decoder is for.
struct OtherMessage {};
struct MalformedMessage {
  std::string reason;
  std::uint32_t index = 0; ///< which link, or which policy, it is about; 0: unknown
};

/// The header of the message. Raises MalformedMessage when the message is not all there. Requires:
/// it begins at an address that is a multiple of 4, as in every netlink buffer.
nlmsghdr const & messageHeader(Bytes message);
/// What follows the header, at least `fixed` bytes of it, which are `what`. Raises MalformedMessage
/// when there are fewer.
Bytes messagePayload(Bytes message, std::size_t fixed, char const * what);

/// What is in an attribute.
Bytes valueOf(nlattr const & attribute);

/// One level of attributes by type; the later one of a type counts, as for the kernel.
class Attributes {
public:
  Attributes() = default;
  /// Raises MalformedMessage when an attribute does not fit. Refers to the bytes.
  explicit Attributes(Bytes bytes);

  /// The attribute, or null; null for type 0.
  nlattr const * find(std::uint16_t type) const { return byType_.at(type); }
  /// True if and only if the attribute is there.
  bool has(std::uint16_t type) const { return find(type) != nullptr; }
  /// True if and only if the flag is there: some kinds send it empty, some with 0 or 1.
  bool flag(std::uint16_t type) const;
  /// The value; 0 when the attribute is missing. Raises MalformedMessage when it is too short.
  std::uint8_t u8(std::uint16_t type) const { return value<std::uint8_t>(type); }
  std::uint16_t u16(std::uint16_t type) const { return value<std::uint16_t>(type); }
  std::uint32_t u32(std::uint16_t type) const { return value<std::uint32_t>(type); }
  /// The same of a structure of the kernel's; zeros when the attribute is missing.
  template <class T>
  T value(std::uint16_t type) const {
    T result{};
    copyTo(type, std::as_writable_bytes(std::span(&result, 1)));
    return result;
  }
  /// The text up to its end or the first zero byte; empty when the attribute is missing. Refers to
  /// the bytes.
  std::string_view text(std::uint16_t type) const;
  /// The attributes inside this one; none when it is missing.
  Attributes nested(std::uint16_t type) const;

private:
  void copyTo(std::uint16_t type, std::span<std::byte> to) const;

  std::array<nlattr const *, 40> byType_{}; // as far as anything here looks
};

/// The address in these bytes, 4 or 16 of them in network order; the empty one for the zero
/// address. Requires: there are so many.
Plexa::IpGenAddr addressOf(Bytes octets);

} // namespace Sources::Linux
