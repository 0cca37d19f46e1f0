// A column of a MIB table, described once. A row type lists its columns, and from that list follow
// the row's description by attribute names, the column numbers that net-snmp is told, the answers
// to GET and the refusals of SET.
#pragma once

#include "platform/Plexa.h"
#include "platform/Snmp.h"
#include "platform/Zel.h"
#include <concepts>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <variant>

namespace TunnelIntfSnmp {

/// The value of a column. Its alternative says how it is answered: as an INTEGER without or with a
/// sign, or as an OCTET STRING of the address's 4, 16 or no octets.
using ColumnValue = std::variant<std::uint32_t, std::int32_t, Plexa::IpGenAddr>;

/// Why a SET of the column is refused, as the trace of the refusal puts it.
enum class SetSays { invalidColumn, notConfigured };

struct Column {
  unsigned int number;
  char const * name; ///< in the MIB
  SetSays setSays;
  /// The row's attribute that the column shows. Without a name where GET does not serve the column.
  Zel::Attribute attribute{};
  /// Reads the value now; null where GET does not serve the column. Requires: a row of the table
  /// that has the column.
  ColumnValue (*value)(Zel::PtrInterface const & row) = nullptr;
};

/// The name by which the framework knows the type of an attribute.
template <class T>
constexpr std::string_view typeNameOf() {
  if constexpr (std::same_as<T, std::uint8_t>)
    return "U8";
  else if constexpr (std::same_as<T, std::uint32_t>)
    return "U32";
  else if constexpr (std::same_as<T, Plexa::IpGenAddr>)
    return "Plexa::IpGenAddr";
  else if constexpr (std::same_as<T, Snmp::Bytes>)
    return "Snmp::Bytes";
  else
    return T::typeName;
}

namespace Detail {

// Only for their types: the row and the value of a column's getter.
template <class Row, class Result>
Row const & rowOf(Result (Row::*)() const);
template <class Row, class Result>
std::remove_cvref_t<Result> valueOf(Result (Row::*)() const);

template <class Value>
using AnsweredAs = std::conditional_t<std::unsigned_integral<Value>, std::uint32_t, Value>;

template <auto Getter, class As>
ColumnValue columnValue(Zel::PtrInterface const & row) {
  using Row = decltype(rowOf(Getter));
  return static_cast<As>((static_cast<Row>(row).*Getter)());
}

} // namespace Detail

/// A column that GET answers with what `Getter`, a const member function of the row, returns.
/// `enumerators` says what its numbers mean, where they are an enumeration's.
template <auto Getter, class As = Detail::AnsweredAs<decltype(Detail::valueOf(Getter))>>
constexpr Column servedColumn(unsigned int number, char const * name, std::string_view attribute,
                              SetSays setSays, std::span<Zel::Enumerator const> enumerators = {}) {
  using Value = decltype(Detail::valueOf(Getter));
  return {number,
          name,
          setSays,
          {.name = attribute,
           .typeName = typeNameOf<Value>(),
           .get = Zel::getBy<Getter>,
           .enumerators = enumerators},
          Detail::columnValue<Getter, As>};
}

/// A column that net-snmp is told of and GET does not serve.
constexpr Column unservedColumn(unsigned int number, char const * name, SetSays setSays) {
  return {number, name, setSays};
}

} // namespace TunnelIntfSnmp
