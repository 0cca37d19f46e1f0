// The running hash that keys are mixed into.
#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

namespace Zel {

/// A 32-bit running hash. The same values mixed in the same order into the same seed give the same
/// result in every process; each mixed bit can change each result bit.
class Hash {
public:
  explicit Hash(std::uint32_t seed = 0) : state_(seed) {}

  template <std::unsigned_integral T>
  Hash & mix(T value) {
    return mixWord(value);
  }
  /// Mixes the length and then the bytes.
  Hash & mix(std::span<std::uint8_t const> bytes);
  Hash & mix(std::string_view text) {
    return mix(std::span(reinterpret_cast<std::uint8_t const *>(text.data()), text.size()));
  }

  std::uint32_t result() const { return static_cast<std::uint32_t>(state_ ^ (state_ >> 32)); }

private:
  // One round of a multiply-xorshift mixer over 64 bits; bijective in the state for a given value.
  Hash & mixWord(std::uint64_t value) {
    state_ = (state_ ^ value) * 0x9E3779B97F4A7C15u + 0x632BE59BD9B4E019u;
    state_ = (state_ ^ (state_ >> 32)) * 0xD6E8FEB86659FD93u;
    state_ ^= state_ >> 32;
    return *this;
  }

  std::uint64_t state_;
};

/// Hashes a key: numbers and texts themselves, other types by their `hash(seed)`.
template <class Key>
std::uint32_t hashOf(Key const & key, std::uint32_t seed = 0) {
  if constexpr (std::unsigned_integral<Key>)
    return Hash(seed).mix(key).result();
  else if constexpr (std::convertible_to<Key, std::string_view>)
    return Hash(seed).mix(std::string_view(key)).result();
  else
    return key.hash(seed);
}

} // namespace Zel
