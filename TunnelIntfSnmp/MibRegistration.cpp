// Registration of tables with net-snmp's table iterator. The records are allocated as net-snmp
// frees them, by calloc; a failed registration has freed them already, and ends the process.
#include "TunnelIntfSnmp/MibRegistration.h"
#include "TunnelIntfSnmp/SnmpTrace.h"
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Snmp.h"
#include <cstdio>
#include <cstdlib>
#include <new>

namespace TunnelIntfSnmp {

namespace {

void traceRootOid(MibTableRegistration const & table, Zel::String const & context);
TunnelMib * mountedMib(char const * table);
netsnmp_column_info * columnInfo(MibTableRegistration const & table);
netsnmp_table_registration_info * tableInfo(MibTableRegistration const & table,
                                            netsnmp_column_info * columns,
                                            Zel::String const & context);
netsnmp_iterator_info * iteratorInfo(MibTableRegistration const & table, TunnelMib * mib,
                                     netsnmp_table_registration_info * tableRegistration);

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

namespace {

// A start without memory ends, which frees all.
template <class T>
T * zeroed() {
  auto * record = static_cast<T *>(std::calloc(1, sizeof(T))); // net-snmp frees it
  if (record == nullptr)
    throw std::bad_alloc();
  return record;
}

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

} // namespace TunnelIntfSnmp
