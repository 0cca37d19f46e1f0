// The values of the state machines.
#pragma once

#include "platform/Zel.h"
#include <compare>
#include <concepts>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <tuple>
#include <utility>

namespace TunnelIntfSnmp {

/// The key of an output row, or none (`k0Valid` false). `TypeName` is its name in text forms.
template <class K0, Zel::FixedText TypeName>
struct OutputKeyType {
  K0 k0{};
  bool k0Valid = false;

  OutputKeyType() = default;
  OutputKeyType(K0 key, bool valid) : k0(std::move(key)), k0Valid(valid) {}
  /// Consumes the text form. Raises Zel::StrepError, naming the field where it is one's fault.
  explicit OutputKeyType(Zel::StrepReader & text) { Zel::strepRead(text, *this); }

  auto operator<=>(OutputKeyType const &) const = default;
  explicit operator bool() const { return *this != OutputKeyType(); }
  /// Marks the key as set. Every value is accepted.
  void validate() { k0Valid = true; }
  /// Mixes k0, a number as it is and anything else as its own hash, and then k0Valid.
  std::uint32_t hash(std::uint32_t seed) const {
    Zel::Hash hash(seed);
    if constexpr (std::unsigned_integral<K0>)
      hash.mix(k0);
    else
      hash.mix(k0.hash(0));
    return hash.mix(static_cast<std::uint8_t>(k0Valid)).result();
  }

  static constexpr std::string_view typeName = TypeName.view();
  static constexpr auto fields() {
    return std::tuple{Zel::Field{"k0", &OutputKeyType::k0},
                      Zel::Field{"k0Valid", &OutputKeyType::k0Valid}};
  }
};
template <class K0, Zel::FixedText TypeName>
std::ostream & operator<<(std::ostream & out, OutputKeyType<K0, TypeName> const & key) {
  return out << Zel::valueToStrep(key);
}

} // namespace TunnelIntfSnmp
