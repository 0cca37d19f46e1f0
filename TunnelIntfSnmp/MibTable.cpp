// Registration of tables, hints, and answers, as far as they do not depend on a table's row type.
// In the order of MibTable.h.
#include "TunnelIntfSnmp/MibTable.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace TunnelIntfSnmp {

namespace {

constexpr char const * mibPath = "snmp/tunnelIntf/tunnelMib";
constexpr std::size_t integerCapacity = 1024;
constexpr std::size_t octetsCapacity = 255;

template <class T>
T * zeroed() {
  auto * record = static_cast<T *>(std::calloc(1, sizeof(T))); // net-snmp frees it
  LUMO_ASSERT(record != nullptr, "out of memory");
  return record;
}

} // namespace

// Registration

namespace {

void traceRootOid(MibTableRegistration const & table, Zel::String const & context) {
  if (!snmpTrace().enabled(1))
    return;
  char rendered[200];
  snprint_objid(rendered, sizeof rendered, table.rootOid.data(), table.rootOid.size());
  LUMO_TRACE(snmpTrace(), 1, "initialize_table_{} initializing oid {} in context \"{}\"",
             table.table, rendered, context);
}

// The entity that the table is served from. The state database keeps it mounted for as long as the
// table is registered, which is why a plain pointer is enough.
TunnelMib * mountedMib(char const * table) {
  auto const e = SnmpUtil::getEntityRelative(mibPath);
  if (!e) {
    fmt::print(stderr, "Can not getEntityRelative( {} ) for table {}. Is this path correct?\n",
               mibPath, table);
    std::fflush(stderr);
  }
  LUMO_ASSERT(e, "nothing is mounted at {}", mibPath);
  auto * ptr = dynamic_cast<TunnelMib *>(e.get());
  if (ptr == nullptr)
    fmt::print(stderr, "{} does not appear to be of type TunnelIntfSnmp::TunnelMib.\n", mibPath);
  LUMO_ASSERT(ptr, "a {} is mounted at {}", e->type().name, mibPath);
  return ptr;
}

netsnmp_column_info * columnInfo(MibTableRegistration const & table) {
  auto * info = zeroed<netsnmp_column_info>();
  info->list_count = static_cast<char>(table.columns.size());
  info->details.list = table.columns.data();
  return info;
}

netsnmp_table_registration_info * tableInfo(MibTableRegistration const & table,
                                            netsnmp_column_info * columns,
                                            Zel::String const & context) {
  auto * info = zeroed<netsnmp_table_registration_info>();
  for (auto const & index : table.indexes)
    if (snmp_varlist_add_variable(&info->indexes, nullptr, 0, index.asnType, nullptr, 0) == nullptr)
      LUMO_TRACE(snmpTrace(), 0, "Failed to set up {} in netsnmp table_info in context \"{}\"",
                 index.name, context);
  info->min_column = table.columns.front();
  info->max_column = table.columns.back();
  info->valid_columns = columns;
  return info;
}

netsnmp_iterator_info * iteratorInfo(MibTableRegistration const & table, TunnelMib * mib,
                                     netsnmp_table_registration_info * tableRegistration) {
  auto * info = zeroed<netsnmp_iterator_info>();
  info->get_first_data_point = table.getFirstDataPoint;
  info->get_next_data_point = table.getNextDataPoint;
  info->make_data_context = table.makeDataContext;
  info->free_data_context = table.freeDataContext;
  info->free_loop_context_at_end = table.freeLoopContextAtEnd;
  info->myvoid = mib;
  // Rows come in ascending index order: the iterator may stop at the first one past the request.
  info->flags |= NETSNMP_ITERATOR_FLAG_SORTED | NETSNMP_HANDLER_OWNS_IINFO;
  info->table_reginfo = tableRegistration;
  return info;
}

} // namespace

void initializeTable(MibModule & module, MibTableRegistration const & table,
                     Zel::String const & context) {
  traceRootOid(table, context);
  auto * registration = netsnmp_create_handler_registration(
      fmt::format("{}_{}", table.table, context).c_str(), table.handler, table.rootOid.data(),
      table.rootOid.size(), HANDLER_CAN_RWRITE);
  if (!context.empty()) {
    netsnmp_handler_registration_free(registration);
    LUMO_TRACE(snmpTrace(), 2,
               "initialize_table_{} in context \"{}\" hivePathWithContext not specified",
               table.table, context);
    return;
  }
  module.handlerRegistrations[context].push_back(registration);
  auto * mib = mountedMib(table.table);
  registration->my_reg_void = mib;
  auto * columns = columnInfo(table);
  auto * iterator = iteratorInfo(table, mib, tableInfo(table, columns, context));
  module.columnInfos[context].push_back(columns);
  auto const result = netsnmp_register_table_iterator(registration, iterator);
  LUMO_ASSERT(result == 0, "net-snmp refuses to register {} in context \"{}\"", table.table,
              context);
  // The hint is that of a PDU's first request only: requests must come one by one.
  auto const injected = netsnmp_inject_handler(registration, netsnmp_get_serialize_handler());
  LUMO_ASSERT(injected == (0), "net-snmp refuses the serialize handler of {}", table.table);
  LUMO_TRACE(snmpTrace(), 8, "Initialized table {} in context \"{}\"", table.table, context);
}

void unregisterModule(MibModule & module, Zel::String const & context) {
  LUMO_TRACE(snmpTrace(), 2, "Unregistering {} in context \"{}\"", module.name, context);
  for (auto * registration : std::list(module.handlerRegistrations[context]))
    netsnmp_unregister_handler(registration);
  module.handlerRegistrations.erase(context);
  for (auto * columns : std::list(module.columnInfos[context]))
    std::free(columns);
  module.columnInfos.erase(context);
  Snmp::unregisterMibContext(module.name, context);
}

// Finding rows

HintReader::HintReader(char const * table, Hint hint)
    : table_(table),
      rest_(hint == nullptr ? nullptr : hint->indexes) {}

netsnmp_variable_list const * HintReader::next(char const * index, u_char asnType) {
  auto const * part = rest_;
  if (part == nullptr)
    return nullptr;
  rest_ = part->next_variable;
  if (part->type == asnType)
    return part;
  LUMO_TRACE(snmpTrace(), 0, "hint for {} has incorrect type! Expecting {} but got {}", index,
             asnType, part->type);
  return nullptr;
}

template <class T>
void HintReader::use(char const * index, T const & value) {
  LUMO_TRACE(snmpTrace(), 2, "hint component {} is '{}'", index, printed(value));
  ++found_;
}

std::optional<std::int32_t> HintReader::integer(char const * index) {
  auto const * part = next(index, ASN_INTEGER);
  if (part == nullptr)
    return std::nullopt;
  try {
    auto const value = Snmp::AsnIntegerToS32(*part->val.integer);
    use(index, static_cast<std::uint32_t>(value));
    return value;
  } catch (Zel::RangeException const & exception) {
    LUMO_TRACE(snmpTrace(), 0, "hint for index {} of {} is out of range! {}", index, table_,
               exception.what());
    return std::nullopt;
  }
}

std::optional<Snmp::Bytes> HintReader::octets(char const * index) {
  auto const * part = next(index, ASN_OCTET_STR);
  if (part == nullptr)
    return std::nullopt;
  auto const value = Snmp::AsnOctetStringToSnmpBytes(part->val.string, part->val_len);
  use(index, value);
  return value;
}

std::optional<std::uint32_t> ifIndexOfHint(char const * table, Hint hint) {
  if (hint == nullptr || hint->number_indexes != 1)
    return std::nullopt;
  HintReader parts(table, hint);
  auto const * found = hint->indexes;
  auto const ifIndex = parts.integer("ifIndex");
  if (found == nullptr || found->type != ASN_INTEGER)
    LUMO_TRACE(snmpTrace(), 2, "{}_get_first_data_point - needed 1 components,found only {}", table,
               parts.found());
  if (!ifIndex)
    return std::nullopt;
  return static_cast<std::uint32_t>(*ifIndex);
}

template <class T>
void IndexWriter::trace(char const * name, T const & value) const {
  LUMO_TRACE(snmpTrace(), 2, "{}IterationHelper - iterator has another value: {}={}", table_, name,
             printed(value));
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

void IndexWriter::set(u_char asnType, std::uint8_t const * buffer, int length) {
  // An index of more octets than an OID can carry has no instance a manager could name.
  auto const size = length < 0 ? 0 : static_cast<std::size_t>(length);
  snmp_set_var_typed_value(next_, asnType, buffer, size);
  next_ = next_->next_variable;
}

// Answering

namespace {

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
