// The indexes of rows, read from requests and written into answers.
//
// On entry to a walk net-snmp's iterator leaves the index that a request names, as far as it could
// be parsed: the hint. HintReader reads it part by part; a table makes its key of the parts.
// IndexWriter does the reverse for the row that a walk has come to.
#pragma once

#include "TunnelIntfSnmp/MibRegistration.h"
#include "platform/Snmp.h"
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <type_traits>

namespace TunnelIntfSnmp {

/// Null where nobody says which index is asked for.
using Hint = netsnmp_table_request_info const *;

/// The parts of a hint, read one by one in the order of the table's indexes. Each part that cannot
/// be used is traced.
class HintReader {
public:
  /// A null hint has no parts.
  HintReader(char const * table, std::span<MibIndex const> indexes, Hint hint);

  /// The next part, or nothing when it is missing, has another type, or is out of range. Requires:
  /// the next index is an integer, or octets.
  std::optional<std::int32_t> integer();
  std::optional<Snmp::Bytes> octets();
  /// Parts that could be used so far.
  std::size_t found() const { return found_; }

private:
  /// The next part as `convert` makes it, which may raise RangeException, and `print` traces it.
  template <class Convert, class Print>
  auto component(Convert convert, Print print)
      -> std::optional<std::invoke_result_t<Convert, netsnmp_variable_list const &>>;
  MibIndex const & nextIndex();
  netsnmp_variable_list const * next(MibIndex const & index);

  char const * const table_;
  std::span<MibIndex const> indexes_;  // from the next one on
  netsnmp_variable_list const * rest_; // of the hint, likewise
  std::size_t found_ = 0;
};

/// Sets the index varbinds of a row, one after the other in index order.
class IndexWriter {
public:
  IndexWriter(char const * table, netsnmp_variable_list * first) : table_(table), next_(first) {}

  /// As unsigned, also where the MIB's type is signed: a number beyond that type's range would turn
  /// negative, and a walk would go round for ever. `name` is that of the row's attribute.
  IndexWriter & unsigned32(char const * name, std::uint32_t value);
  IndexWriter & octets(char const * name, Snmp::Bytes const & value);

private:
  template <class T>
  void trace(char const * name, T const & value) const;
  void set(u_char asnType, std::uint8_t const * buffer, int length);

  char const * const table_;
  netsnmp_variable_list * next_;
};

// Tables that are indexed by ifIndex alone

inline constexpr MibIndex ifIndexAlone[] = {{"ifIndex", ASN_INTEGER}};
/// The ifIndex that a hint names, or nothing.
std::optional<std::uint32_t> ifIndexOfHint(char const * table, Hint hint);

/// What such a table says for its walk and its registration. `Table::name` is its name.
template <class Table, class TableRow>
struct IfIndexTable {
  using Row = TableRow;
  static constexpr char const * keyType = "U32";
  static constexpr std::span<MibIndex const> indexes = ifIndexAlone;

  static std::uint32_t key(Row const & row) { return row.ifIndex(); }
  static std::optional<std::uint32_t> hintKey(Hint hint) {
    return ifIndexOfHint(Table::name, hint);
  }
  static void setIndexes(Row const & row, netsnmp_variable_list * index) {
    IndexWriter(Table::name, index).unsigned32("ifIndex", row.ifIndex());
  }
};

} // namespace TunnelIntfSnmp
