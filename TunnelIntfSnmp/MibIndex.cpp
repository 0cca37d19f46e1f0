// Hints read and index varbinds written, part by part, each part with its trace. An unusable part
// is no fault of the request: a walk without a hint starts at the first row.
#include "TunnelIntfSnmp/MibIndex.h"
#include "TunnelIntfSnmp/Printed.h"
#include "TunnelIntfSnmp/SnmpTrace.h"

namespace TunnelIntfSnmp {

namespace {
constexpr std::size_t integerCapacity = 1024;
constexpr std::size_t octetsCapacity = 255;
} // namespace

HintReader::HintReader(char const * table, std::span<MibIndex const> indexes, Hint hint)
    : table_(table),
      indexes_(indexes),
      rest_(hint == nullptr ? nullptr : hint->indexes) {}

std::optional<std::int32_t> HintReader::integer() {
  return component([](auto const & part) { return Snmp::AsnIntegerToS32(*part.val.integer); },
                   [](std::int32_t value) { return printed(static_cast<std::uint32_t>(value)); });
}

std::optional<Snmp::Bytes> HintReader::octets() {
  return component(
      [](auto const & part) {
        return Snmp::AsnOctetStringToSnmpBytes(part.val.string, part.val_len);
      },
      [](Snmp::Bytes const & value) { return printed(value); });
}

template <class Convert, class Print>
auto HintReader::component(Convert convert, Print print)
    -> std::optional<std::invoke_result_t<Convert, netsnmp_variable_list const &>> {
  auto const & index = nextIndex();
  auto const * part = next(index);
  if (part == nullptr)
    return std::nullopt;
  try {
    auto value = convert(*part);
    LUMO_TRACE(snmpTrace(), 2, "hint component {} is '{}'", index.name, print(value));
    ++found_;
    return value;
  } catch (Zel::RangeException const & exception) {
    LUMO_TRACE(snmpTrace(), 0, "hint for index {} of {} is out of range! {}", index.name, table_,
               exception.what());
    return std::nullopt;
  }
}

MibIndex const & HintReader::nextIndex() {
  auto const & index = indexes_.front();
  indexes_ = indexes_.subspan(1);
  return index;
}

netsnmp_variable_list const * HintReader::next(MibIndex const & index) {
  auto const * part = rest_;
  if (part == nullptr)
    return nullptr;
  rest_ = part->next_variable;
  if (part->type == index.asnType)
    return part;
  LUMO_TRACE(snmpTrace(), 0, "hint for {} has incorrect type! Expecting {} but got {}", index.name,
             index.asnType, part->type);
  return nullptr;
}

IndexWriter & IndexWriter::unsigned32(char const * name, std::uint32_t value) {
  std::uint8_t buffer[integerCapacity];
  trace(name, value);
  set(ASN_INTEGER, buffer, Snmp::U32ToAsnUnsigned(value, buffer, sizeof buffer));
  return *this;
}

IndexWriter & IndexWriter::octets(char const * name, Snmp::Bytes const & value) {
  std::uint8_t buffer[octetsCapacity];
  trace(name, value);
  set(ASN_OCTET_STR, buffer, Snmp::BytesToAsnOctetString(value, buffer, sizeof buffer));
  return *this;
}

template <class T>
void IndexWriter::trace(char const * name, T const & value) const {
  LUMO_TRACE(snmpTrace(), 2, "{}IterationHelper - iterator has another value: {}={}", table_, name,
             printed(value));
}

void IndexWriter::set(u_char asnType, std::uint8_t const * buffer, int length) {
  // An index of more octets than an OID can carry has no instance a manager could name.
  auto const size = length < 0 ? 0 : static_cast<std::size_t>(length);
  snmp_set_var_typed_value(next_, asnType, buffer, size);
  next_ = next_->next_variable;
}

std::optional<std::uint32_t> ifIndexOfHint(char const * table, Hint hint) {
  if (hint == nullptr || hint->number_indexes != 1)
    return std::nullopt;
  HintReader parts(table, ifIndexAlone, hint);
  auto const * found = hint->indexes;
  auto const ifIndex = parts.integer();
  if (found == nullptr || found->type != ASN_INTEGER)
    LUMO_TRACE(snmpTrace(), 2, "{}_get_first_data_point - needed 1 components,found only {}", table,
               parts.found());
  if (!ifIndex)
    return std::nullopt;
  return static_cast<std::uint32_t>(*ifIndex);
}

} // namespace TunnelIntfSnmp
