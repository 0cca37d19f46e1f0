// The two that keep their rows in net-snmp's own containers, as its manual tells to.
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
