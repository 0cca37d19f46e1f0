// The tunnels of every benchmark, by rule: who serves them, who asks for them and who checks the
// answers agree without a list.
//
// The rows of a table of N tunnels have the ifIndexes 2, 4, ... 2N. An odd number is a row that
// does not exist, with existing neighbours. tunnels.py writes the same tunnels as a document.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <span>
#include <string_view>

namespace Bench {

constexpr std::size_t longestIndex = 13;

/// IPv4 addresses as numbers; many tunnels share a local one.
constexpr std::uint32_t firstLocal = 0xC612'0001;  // 198.18.0.1
constexpr std::uint32_t firstRemote = 0x0A00'0000; // 10.0.0.0
constexpr std::uint32_t tunnelsOfALocal = 512;     // existing or not

constexpr std::uint32_t localOf(std::uint32_t ifIndex) {
  return firstLocal + (ifIndex - 1) / tunnelsOfALocal;
}
constexpr std::uint32_t remoteOf(std::uint32_t ifIndex) {
  return firstRemote + ifIndex;
}
constexpr std::array<std::uint8_t, 4> octetsOf(std::uint32_t address) {
  return {static_cast<std::uint8_t>(address >> 24), static_cast<std::uint8_t>(address >> 16),
          static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address)};
}

/// One of the three tables, as far as the peers and the manager have to know it.
struct Table {
  std::string_view name;
  std::array<oid, 12> entry; ///< the OID that columns hang from
  std::span<unsigned int const> columns;
  std::size_t indexLength;
  std::span<u_char const> indexTypes; ///< ASN types of the index's parts

  /// Writes the index of the row into `to`, which has room for indexLength numbers.
  void index(std::uint32_t ifIndex, oid * to) const;
};

/// Puts the value of a column of that row into the varbind.
void setValue(Table const & table, unsigned int column, std::uint32_t ifIndex,
              netsnmp_variable_list * varbind);

/// The table called "if", "inet" or "ipsec". Raises std::invalid_argument for another name.
Table const & table(std::string_view name);

} // namespace Bench
