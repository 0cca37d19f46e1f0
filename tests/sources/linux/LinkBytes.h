// Netlink messages put together byte by byte, so that what the decoder reads was not written by the
// same library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

namespace LinkBytes {

using Octets = std::vector<std::uint8_t>;

/// A number in the order of this machine.
template <class T>
Octets native(T value) {
  Octets octets(sizeof value);
  std::memcpy(octets.data(), &value, sizeof value);
  return octets;
}

inline Octets joined(std::initializer_list<Octets> parts) {
  Octets all;
  for (auto const & part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

inline Octets text(std::string_view value) {
  Octets octets(value.begin(), value.end());
  octets.push_back(0);
  return octets;
}

/// Length (without the padding), type, value, and zeros up to a multiple of 4.
inline Octets attribute(std::uint16_t type, Octets const & value) {
  auto octets = joined({native<std::uint16_t>(static_cast<std::uint16_t>(value.size() + 4)),
                        native<std::uint16_t>(type), value});
  octets.resize((octets.size() + 3) / 4 * 4);
  return octets;
}

/// Message types.
inline constexpr std::uint16_t newLink = 16;
inline constexpr std::uint16_t delLink = 17;
inline constexpr std::uint16_t newAddress = 20;
/// Families.
inline constexpr std::uint8_t unspecified = 0;
inline constexpr std::uint8_t bridge = 7;

/// A whole message about the link of that index.
inline Octets message(std::uint16_t type, std::uint8_t family, std::int32_t index,
                      Octets const & attributes) {
  auto const linkHeader = joined({{family, 0},
                                  native<std::uint16_t>(778),
                                  native<std::int32_t>(index),
                                  native<std::uint32_t>(0x91),
                                  native<std::uint32_t>(0)});
  auto const length = static_cast<std::uint32_t>(16 + linkHeader.size() + attributes.size());
  return joined({native<std::uint32_t>(length), native<std::uint16_t>(type),
                 native<std::uint16_t>(0), native<std::uint32_t>(0), native<std::uint32_t>(0),
                 linkHeader, attributes});
}

/// The attributes of a link: its name (3), and inside the link information (18) its kind (1) and
/// the kind's data (2).
inline Octets link(std::string_view name, std::string_view kind, Octets const & data) {
  return joined({attribute(3, text(name)),
                 attribute(18, joined({attribute(1, text(kind)), attribute(2, data)}))});
}

inline std::span<std::byte const> bytes(Octets const & octets) {
  return std::as_bytes(std::span(octets));
}

} // namespace LinkBytes
