// A table handler, put together of three parts: MibRegistration.h tells net-snmp of the table,
// MibWalk.h finds its rows (with MibIndex.h, which reads and writes their indexes), MibAnswer.h
// answers for them.
//
// What is particular to a table is a type that says:
//
//   Row                        the type of its rows, which lists the table's columns
//   name, keyType              "tunnelIfTable", and the type of its key, both for traces
//   rootOid, indexes           where the table stands, and the parts of its index
//   rows(mib)                  the collection
//   key(row)                   the row's key in it
//   hintKey(hint)              the key that the hint names, or nothing; may raise RangeException
//   setIndexes(row, indexes)   sets the index varbinds, in order
//   record(row)                where the columns are read from besides the row, or null
//
// and a handler with C linkage, which calls answerRequests().
#pragma once

#include "TunnelIntfSnmp/MibAnswer.h"
#include "TunnelIntfSnmp/MibRegistration.h"
#include "TunnelIntfSnmp/MibWalk.h"

namespace TunnelIntfSnmp {

/// All that net-snmp has to know of the table.
template <class Table>
MibTableRegistration registrationOf(Netsnmp_Node_Handler * handler) {
  using Walk = MibWalk<Table>;
  return {.table = Table::name,
          .rootOid = Table::rootOid,
          .indexes = Table::indexes,
          .columns = columnNumbers<typename Table::Row>(),
          .handler = handler,
          .getFirstDataPoint = Walk::get_first_data_point,
          .getNextDataPoint = Walk::get_next_data_point,
          .makeDataContext = Walk::make_data_context,
          .freeDataContext = Walk::free_data_context,
          .freeLoopContextAtEnd = Walk::free_loop_context_at_end};
}

} // namespace TunnelIntfSnmp
