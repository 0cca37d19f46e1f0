// Answers to GET and refusals of SET, as far as they do not depend on a table's row type. What can
// go wrong with a value is traced here, under the name of the row's attribute, and becomes the
// request's error in MibAnswer.h.
#include "TunnelIntfSnmp/MibAnswer.h"
#include <algorithm>

namespace TunnelIntfSnmp {

namespace {

constexpr std::size_t integerCapacity = 1024;
constexpr std::size_t octetsCapacity = 255;

// Encodes one value into the varbind of a request, or traces why it cannot.
class Answer {
public:
  Answer(char const * table, std::string_view name, netsnmp_variable_list * varbind)
      : table_(table),
        name_(name),
        varbind_(varbind) {}

  bool operator()(std::uint32_t value) const {
    std::uint8_t buffer[integerCapacity];
    auto const length = Snmp::U32ToAsnUnsigned(value, buffer, sizeof buffer);
    return encoded(length, "U32ToAsnUnsigned") && put(ASN_INTEGER, buffer, length);
  }
  bool operator()(std::int32_t value) const {
    std::uint8_t buffer[integerCapacity];
    auto const length = Snmp::S32ToAsnInteger(value, buffer, sizeof buffer);
    return encoded(length, "S32ToAsnInteger") && put(ASN_INTEGER, buffer, length);
  }
  bool operator()(Plexa::IpGenAddr const & value) const {
    std::uint8_t buffer[octetsCapacity];
    auto const length = Snmp::PlexaIpGenAddrToAsnOctetString(value, buffer, sizeof buffer);
    return encoded(length, "PlexaIpGenAddrToAsnOctetString") && fits(length) &&
           put(ASN_OCTET_STR, buffer, length);
  }

private:
  bool encoded(int length, char const * encoder) const {
    if (length < 0)
      LUMO_TRACE(snmpTrace(), 2, "handle_{} - {} failed for: {}", table_, encoder, name_);
    return length >= 0;
  }
  bool fits(int length) const {
    auto const tooLong = static_cast<std::size_t>(length) > octetsCapacity;
    if (tooLong)
      LUMO_TRACE(snmpTrace(), 2, "handle_{} - entity /{}/{} length out of range: {} ({})", table_,
                 SnmpUtil::getSnmpConfig()->systemName, mibPath, name_, length);
    return !tooLong;
  }
  bool put(u_char asnType, std::uint8_t const * buffer, int length) const {
    snmp_set_var_typed_value(varbind_, asnType, buffer, static_cast<std::size_t>(length));
    return true;
  }

  char const * const table_;
  std::string_view const name_;
  netsnmp_variable_list * const varbind_;
};

} // namespace

bool putValue(char const * table, Column const & column, Zel::PtrInterface const & row,
              netsnmp_request_info & request) {
  Answer const answer(table, column.attribute.name, request.requestvb);
  return std::visit(answer, column.value(row));
}

namespace {

Column const * columnOf(std::span<Column const> columns, unsigned int number) {
  auto const found = std::ranges::find(columns, number, &Column::number);
  return found == columns.end() ? nullptr : &*found;
}

void traceInvalidColumn(char const * table, unsigned int number) {
  LUMO_TRACE(snmpTrace(), 0, "{} invalid column {}", table, number);
}

} // namespace

Column const * servedColumnOf(char const * table, std::span<Column const> columns,
                              unsigned int number) {
  auto const * column = columnOf(columns, number);
  if (column != nullptr && column->value != nullptr)
    return column;
  traceInvalidColumn(table, number);
  return nullptr;
}

bool alreadyProcessed(char const * table, netsnmp_request_info const * request) {
  if (request->processed != 0)
    LUMO_TRACE(snmpTrace(), 2, "{}_handler: request {} already processed", table,
               fmt::ptr(request));
  return request->processed != 0;
}

int refuseSet(char const * table, std::span<Column const> columns,
              netsnmp_request_info * requests) {
  auto * request = requests;
  while (request != nullptr && alreadyProcessed(table, request))
    request = request->next;
  if (request == nullptr)
    return SNMP_ERR_NOERROR;
  auto const number = netsnmp_extract_table_info(request)->colnum;
  if (auto const * column = columnOf(columns, number);
      column != nullptr && column->setSays == SetSays::notConfigured)
    LUMO_TRACE(snmpTrace(), 2, "{}_handler: SET is not configured for column {}", table,
               column->name);
  else
    traceInvalidColumn(table, number);
  netsnmp_request_set_error(request, SNMP_ERR_NOTWRITABLE);
  return SNMP_ERR_NOERROR;
}

} // namespace TunnelIntfSnmp
