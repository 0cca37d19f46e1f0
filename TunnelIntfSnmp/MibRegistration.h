// How a MIB module's tables come to net-snmp, context by context, and how they are taken back.
//
// net-snmp owns what a table is registered with, but for one thing: it never frees the column info.
// A module therefore remembers, for each context, the registrations and the column infos.
#pragma once

#include "TunnelIntfSnmp/Column.h"
#include "platform/Zel.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <list>
#include <map>
#include <span>
#include <vector>

namespace TunnelIntfSnmp {

/// One MIB module's registrations, by context, in the order in which they were made.
struct MibModule {
  Zel::String name; ///< also the debug token
  std::map<Zel::String, std::list<netsnmp_handler_registration *>> handlerRegistrations{};
  std::map<Zel::String, std::list<netsnmp_column_info *>> columnInfos{};
};

/// One part of a table's index.
struct MibIndex {
  char const * name; ///< in the MIB
  u_char asnType;    ///< ASN_INTEGER or ASN_OCTET_STR
};

/// What is particular to one table's registration. All of it lives as long as the library.
struct MibTableRegistration {
  char const * table;
  std::span<oid const> rootOid;
  std::span<MibIndex const> indexes;
  std::span<unsigned int> columns; // not const: net-snmp's structure takes no pointer to const
  Netsnmp_Node_Handler * handler;
  Netsnmp_First_Data_Point * getFirstDataPoint;
  Netsnmp_Next_Data_Point * getNextDataPoint;
  Netsnmp_Make_Data_Context * makeDataContext;
  Netsnmp_Free_Data_Context * freeDataContext;
  Netsnmp_Free_Loop_Context * freeLoopContextAtEnd;
};

/// The numbers of a row's columns. They live as long as the library.
template <class Row>
std::span<unsigned int> columnNumbers() {
  static auto numbers = [] {
    std::vector<unsigned int> all;
    for (auto const & column : Row::columns())
      all.push_back(column.number);
    return all;
  }();
  return numbers;
}

/// Registers the table for the context and remembers what unregisterModule() needs. Only the
/// default context (empty) is served; for another nothing is registered. A missing or wrong entity
/// at mibPath, and a registration that net-snmp refuses (a second one for the same context, say),
/// end the process.
void initializeTable(MibModule & module, MibTableRegistration const & table,
                     Zel::String const & context);
/// Takes back every registration of the context. Requires: no request is being served.
void unregisterModule(MibModule & module, Zel::String const & context);

} // namespace TunnelIntfSnmp
