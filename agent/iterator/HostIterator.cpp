// How a registration is taken over, and how a request then runs through the files of this folder.
//
// net-snmp calls handle() with the requests of a PDU that fall into a table; Call takes them one by
// one. A GETBULK of three repetitions from `...131.1.1.1.1.3.7`, tunnelIfEncapsMethod of ifIndex 7,
// runs so:
//
//   Call        understands the name: column 3 of the table, and the rest is its index. Codec
//   decodes
//               it into index varbinds. A name that is none of a cell, of a column, or of a place
//               before the first column goes to net-snmp's handlers as it is.
//   Cursor      starts: the module's get_first_data_point is told the index by the hint, and its
//   loop
//               context stands at row 7, with that row's index in varbinds of the cursor. Codec
//               encodes them behind table, entry and column: the name of the cell.
//   Call        skips what is not past the name asked for: here one cell, its own.
//   Cursor      goes on: get_next_data_point leads to row 9, say.
//   Call        answers: puts the cell's name into the varbind, has the module make a data context
//   of
//               the row, asks the module's handler in the mode of a GET, frees the data context.
//               Twice more, each time a row further and into the PDU's next varbind.
//   Cursor      at the last row of column 3 frees the loop context and starts in column 4 with
//               get_first_data_point, without a hint.
//   Call        at the last repetition frees the loop context before the module is asked, as
//               net-snmp's iterator does for each.
//
// When the table ends before the repetitions do, the next varbind stays without an answer and is
// given the last answer's name: the agent looks for its successor elsewhere. When a module fails at
// a cell, the answers so far are taken back and net-snmp's handlers begin anew: they know which
// failure the agent has to report.
#include "agent/iterator/HostIterator.h"
#include "agent/iterator/Call.h"
#include <array>
#include <memory>
#include <string_view>

namespace Agent {

namespace {

using namespace TableIterator;

constexpr char const * handlerName = "host_iterator";

bool takeOver(netsnmp_handler_registration * registration);

} // namespace

std::size_t installHostIterator() {
  std::size_t count = 0;
  for (auto * context = get_top_context_cache(); context != nullptr; context = context->next)
    for (auto * subtree = context->first_subtree; subtree != nullptr; subtree = subtree->next)
      for (auto * layer = subtree; layer != nullptr; layer = layer->children)
        count += takeOver(layer->reginfo);
  return count;
}

namespace {

int handle(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
           netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
  if (agent->mode == MODE_GET || agent->mode == MODE_GETNEXT || agent->mode == MODE_GETBULK)
    return Call(self, registration, agent).serve(requests);
  return netsnmp_call_next_handler(self, registration, agent, requests);
}

/// True if and only if nothing stands above the iterator but what this one replaces.
bool isStock(netsnmp_handler_registration const & registration) {
  constexpr std::array<std::string_view, 4> names{"serialize", "bulk_to_next", TABLE_HANDLER_NAME,
                                                  TABLE_ITERATOR_NAME};
  auto const * handler = registration.handler;
  for (auto const name : names) {
    if (handler == nullptr || handler->handler_name != name)
      return false;
    handler = handler->next;
  }
  return handler != nullptr;
}

bool hasFixedLengths(netsnmp_variable_list const * indexes) {
  while (indexes != nullptr && indexes->val_len == 0)
    indexes = indexes->next_variable;
  return indexes != nullptr;
}

bool isServed(netsnmp_iterator_info const & info) {
  return (info.flags & NETSNMP_ITERATOR_FLAG_SORTED) != 0 && info.free_loop_context == nullptr &&
         info.get_first_data_point != nullptr && info.get_next_data_point != nullptr &&
         info.make_data_context != nullptr && info.free_data_context != nullptr &&
         info.free_loop_context_at_end != nullptr && !hasFixedLengths(info.table_reginfo->indexes);
}

netsnmp_mib_handler * makeHandler(netsnmp_iterator_info * info) {
  auto * handler = netsnmp_create_handler(handlerName, handle);
  handler->myvoid = std::make_unique<Table>(info).release();
  // A registration is copied when somebody registers a name within it.
  handler->data_clone = [](void * table) -> void * {
    return std::make_unique<Table>(static_cast<Table const *>(table)->info).release();
  };
  handler->data_free = [](void * table) { delete static_cast<Table const *>(table); };
  return handler;
}

bool takeOver(netsnmp_handler_registration * registration) {
  if (registration == nullptr || !isStock(*registration))
    return false;
  auto * info =
      static_cast<netsnmp_iterator_info *>(iteratorBeneath(registration->handler)->myvoid);
  return isServed(*info) &&
         netsnmp_inject_handler(registration, makeHandler(info)) == SNMPERR_SUCCESS;
}

} // namespace

} // namespace Agent
