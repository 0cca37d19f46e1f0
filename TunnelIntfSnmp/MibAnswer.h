// Answers to the requests for a table: GETs from the row that the iterator found and the list of
// the table's columns, every SET with a refusal.
#pragma once

#include "TunnelIntfSnmp/Column.h"
#include "TunnelIntfSnmp/MibWalk.h"
#include "TunnelIntfSnmp/Printed.h"
#include "TunnelIntfSnmp/SnmpTrace.h"
#include <span>

namespace TunnelIntfSnmp {

/// Puts the value that the row has for the column into the answer of the request. What cannot be
/// encoded is traced under the attribute's name and answered with false; the varbind is then
/// untouched. Requires: GET serves the column, and the row is one of its table.
bool putValue(char const * table, Column const & column, Zel::PtrInterface const & row,
              netsnmp_request_info & request);

/// The served column of that number, or null, which is traced.
Column const * servedColumnOf(char const * table, std::span<Column const> columns,
                              unsigned int number);
/// Traces and returns true when somebody else has answered the request already.
bool alreadyProcessed(char const * table, netsnmp_request_info const * request);
/// Refuses the first request that nobody has answered, in whatever phase of a SET.
int refuseSet(char const * table, std::span<Column const> columns, netsnmp_request_info * requests);

/// Answers GETs from the rows that the iterator found. What `Table` has to have stands in
/// MibTable.h.
template <class Table>
int answerGets(netsnmp_request_info * requests) {
  for (auto * request = requests; request != nullptr; request = request->next) {
    if (alreadyProcessed(Table::name, request))
      continue;
    auto const * entry = static_cast<typename MibWalk<Table>::Entry const *>(
        netsnmp_extract_iterator_context(request));
    if (entry == nullptr) {
      LUMO_TRACE(snmpTrace(), 2, "{}_handler: null data context in request", Table::name);
      return SNMP_ERR_NOERROR;
    }
    auto const number = netsnmp_extract_table_info(request)->colnum;
    auto const * column = servedColumnOf(Table::name, Table::Row::columns(), number);
    if (column == nullptr) {
      netsnmp_request_set_error(request, SNMP_NOSUCHOBJECT);
      return SNMP_ERR_NOERROR;
    }
    LUMO_TRACE(snmpTrace(), 2, "{}_handler: request GET for column {}, key {}", Table::name,
               column->name, printed(Table::key(*entry->row)));
    if (!putValue(Table::name, *column, *entry->row, *request)) {
      netsnmp_request_set_error(requests,
                                SNMP_ERR_GENERR); // on the first, not on the one that failed
      return SNMP_ERR_GENERR;
    }
  }
  return SNMP_ERR_NOERROR;
}

/// What a table's request handler does: answers GETs, refuses everything else.
template <class Table>
int answerRequests(netsnmp_agent_request_info const & agent, netsnmp_request_info * requests) {
  LUMO_TRACE(snmpTrace(), 2, "{}_handler", Table::name);
  LUMO_TRACE(snmpTrace(), 2, "{}_handler: request mode {}", Table::name, agent.mode);
  return agent.mode == MODE_GET ? answerGets<Table>(requests)
                                : refuseSet(Table::name, Table::Row::columns(), requests);
}

} // namespace TunnelIntfSnmp
