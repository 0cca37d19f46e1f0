// The three that keep their rows: in net-snmp's own containers, as its manual tells to, and in an
// array that its table iterator goes through.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "bench/Peers.h"
#include <algorithm>
#include <stdexcept>
#include <vector>

namespace Bench {

namespace {

Table const * served = nullptr;

/// Owned by net-snmp from the registration on.
netsnmp_table_registration_info * describeTable();
netsnmp_handler_registration * describeHandler(Netsnmp_Node_Handler * handler);

/// Answers GETs: net-snmp's helpers make them of everything else. `Row` finds the ifIndex of the
/// row that they found, 0 for none.
template <std::uint32_t (*Row)(netsnmp_request_info *)>
int answer(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *,
           netsnmp_request_info * requests) {
  for (auto * request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0)
      continue;
    if (auto const ifIndex = Row(request); ifIndex != 0)
      setValue(*served, netsnmp_extract_table_info(request)->colnum, ifIndex, request->requestvb);
    else
      netsnmp_request_set_error(request, SNMP_NOSUCHINSTANCE);
  }
  return SNMP_ERR_NOERROR;
}

/// What container_table sorts and finds by comes first.
struct ContainerRow {
  netsnmp_index index;
  std::array<oid, longestIndex> numbers;
  std::uint32_t ifIndex;
};

std::uint32_t containerRow(netsnmp_request_info * request) {
  auto const * row = static_cast<ContainerRow *>(netsnmp_container_table_row_extract(request));
  return row == nullptr ? 0 : row->ifIndex;
}

std::uint32_t tdataRow(netsnmp_request_info * request) {
  auto const * ifIndex = static_cast<std::uint32_t *>(netsnmp_tdata_extract_entry(request));
  return ifIndex == nullptr ? 0 : *ifIndex;
}

} // namespace

void serveFromContainer(Table const & table, std::uint32_t rows) {
  static std::vector<ContainerRow> storage;
  served = &table;
  auto * const container = netsnmp_container_find("table_container");
  storage.resize(rows);
  for (std::uint32_t ifIndex = 2; auto & row : storage) {
    row.ifIndex = ifIndex;
    row.index = {table.indexLength, row.numbers.data()};
    table.index(ifIndex, row.numbers.data());
    CONTAINER_INSERT(container, &row);
    ifIndex += 2;
  }
  if (netsnmp_container_table_register(describeHandler(answer<containerRow>), describeTable(),
                                       container, TABLE_CONTAINER_KEY_NETSNMP_INDEX) != 0)
    throw std::runtime_error("net-snmp refuses the container table");
}

namespace {

void addAddress(netsnmp_tdata_row * row, std::uint32_t address) {
  auto const octets = octetsOf(address);
  netsnmp_tdata_row_add_index(row, ASN_OCTET_STR, octets.data(), octets.size());
}

void addInteger(netsnmp_tdata_row * row, long value) {
  netsnmp_tdata_row_add_index(row, ASN_INTEGER, &value, sizeof value);
}

void addIndexes(Table const & table, netsnmp_tdata_row * row, std::uint32_t ifIndex) {
  if (table.indexLength == 1)
    return addInteger(row, ifIndex);
  addInteger(row, 1);
  addAddress(row, localOf(ifIndex));
  addAddress(row, remoteOf(ifIndex));
  addInteger(row, 3);
  addInteger(row, 1);
}

} // namespace

void serveFromTdata(Table const & table, std::uint32_t rows) {
  static std::vector<std::uint32_t> storage;
  served = &table;
  auto * const data = netsnmp_tdata_create_table("tdata", 0);
  storage.resize(rows);
  for (std::uint32_t ifIndex = 2; auto & entry : storage) {
    entry = ifIndex;
    auto * const row = netsnmp_tdata_create_row();
    row->data = &entry;
    addIndexes(table, row, ifIndex);
    netsnmp_tdata_add_row(data, row);
    ifIndex += 2;
  }
  if (netsnmp_tdata_register(describeHandler(answer<tdataRow>), data, describeTable()) != 0)
    throw std::runtime_error("net-snmp refuses the tdata table");
}

namespace {

/// Of the table iterator: the rows, by ifIndex.
std::vector<std::uint32_t> iterated;

/// Puts the row's index into the varbinds, and says which row comes next; null behind the last.
netsnmp_variable_list * give(std::size_t row, void ** loopContext, void ** dataContext,
                             netsnmp_variable_list * indexes) {
  if (row >= iterated.size()) {
    *loopContext = nullptr;
    return nullptr;
  }
  long const ifIndex = iterated[row];
  snmp_set_var_value(indexes, &ifIndex, sizeof ifIndex);
  *loopContext = &iterated[row];
  *dataContext = &iterated[row];
  return indexes;
}

netsnmp_variable_list * firstRow(void ** loopContext, void ** dataContext,
                                 netsnmp_variable_list * indexes, netsnmp_iterator_info *) {
  auto const * hint = static_cast<netsnmp_table_request_info const *>(*loopContext);
  auto const wanted =
      hint != nullptr && hint->number_indexes == 1 ? *hint->indexes->val.integer : 0;
  auto const found = std::ranges::lower_bound(
      iterated, wanted, {}, [](auto ifIndex) { return static_cast<long>(ifIndex); });
  return give(static_cast<std::size_t>(found - iterated.begin()), loopContext, dataContext,
              indexes);
}

netsnmp_variable_list * nextRow(void ** loopContext, void ** dataContext,
                                netsnmp_variable_list * indexes, netsnmp_iterator_info *) {
  auto const * row = static_cast<std::uint32_t const *>(*loopContext);
  return give(static_cast<std::size_t>(row - iterated.data()) + 1, loopContext, dataContext,
              indexes);
}

std::uint32_t iteratedRow(netsnmp_request_info * request) {
  auto const * row = static_cast<std::uint32_t *>(netsnmp_extract_iterator_context(request));
  return row == nullptr ? 0 : *row;
}

} // namespace

void serveFromIterator(Table const & table, std::uint32_t rows) {
  if (table.indexLength != 1)
    throw std::runtime_error("the iterator serves tables by ifIndex only");
  served = &table;
  iterated.resize(rows);
  for (std::uint32_t ifIndex = 2; auto & row : iterated) {
    row = ifIndex;
    ifIndex += 2;
  }
  auto * const info = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
  info->get_first_data_point = firstRow;
  info->get_next_data_point = nextRow;
  info->flags |= NETSNMP_ITERATOR_FLAG_SORTED;
  info->table_reginfo = describeTable();
  auto * const handler = describeHandler(answer<iteratedRow>);
  if (netsnmp_register_table_iterator(handler, info) != 0 ||
      netsnmp_inject_handler(handler, netsnmp_get_serialize_handler()) != 0)
    throw std::runtime_error("net-snmp refuses the iterator's table");
}

namespace {

netsnmp_table_registration_info * describeTable() {
  static std::vector<unsigned int> columns;
  columns.assign(served->columns.begin(), served->columns.end());
  auto * const info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
  for (auto const type : served->indexTypes)
    netsnmp_table_helper_add_index(info, type);
  info->min_column = columns.front();
  info->max_column = columns.back();
  info->valid_columns = SNMP_MALLOC_TYPEDEF(netsnmp_column_info);
  info->valid_columns->isRange = 0;
  info->valid_columns->list_count = static_cast<char>(columns.size());
  info->valid_columns->details.list = columns.data();
  return info;
}

netsnmp_handler_registration * describeHandler(Netsnmp_Node_Handler * handler) {
  auto const & entry = served->entry; // a table is registered one above its entry
  return netsnmp_create_handler_registration("stored", handler, entry.data(), entry.size() - 1,
                                             HANDLER_CAN_RONLY);
}

} // namespace

} // namespace Bench
