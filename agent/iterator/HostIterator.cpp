// How a registration is taken over, and here how a request then runs through this folder's files.
// Say, a GETBULK of three repetitions that asks for what comes after tunnelIfEncapsMethod of
// ifIndex 7, in a table with the rows 5, 7 and 9:
//
// 1. net-snmp calls handle(). Call cuts the request out of the PDU's list, as serialize would.
// 2. Call understands the name: column 3, and an index, which Codec decodes into index varbinds. A
//    name of any other kind goes on to net-snmp's handlers as it is.
// 3. Cursor starts. The varbinds are the hint by which the module's get_first_data_point finds row
//    7; its loop context stands there now. Codec encodes that row's index behind table, entry and
//    column: the name of a cell.
// 4. Call skips what is not past the name that was asked for: one cell, row 7 itself. Cursor goes
//    on by get_next_data_point to row 9.
// 5. Call answers. It puts the cell's name into the varbind, has the module make a data context of
//    the row, asks the module's handler in the mode of a GET, and frees the data context. It goes
//    on to the PDU's next varbind, and Cursor to the next row.
// 6. There is none. Cursor frees the loop context and starts in column 4, without a hint, at row 5:
//    the second answer. Row 7 is the third.
// 7. It is the last one: Call frees the loop context before it asks the module, as net-snmp's
//    iterator does for each answer.
//
// When the table ends before the repetitions do, the next varbind is given the last answer's name
// and no answer: the agent looks for its successor elsewhere. When the module fails at a cell, the
// answers so far are taken back and net-snmp's handlers begin anew: they know which failure the
// agent has to report.
#include "agent/iterator/HostIterator.h"
#include "agent/iterator/Call.h"
#include <array>
#include <memory>
#include <new>
#include <string_view>

namespace Agent {

namespace {

using namespace TableIterator;

constexpr char const * handlerName = "host_iterator";

int handle(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
           netsnmp_agent_request_info * agent, netsnmp_request_info * requests);
bool takeOver(netsnmp_handler_registration * registration,
              std::function<bool(void const *)> const & isOurs);

} // namespace

// A context's registrations are a list of subtrees, each with those of lower priority beneath it.
std::size_t installHostIterator(std::function<bool(void const *)> const & isOurs) {
  std::size_t count = 0;
  for (auto * context = get_top_context_cache(); context != nullptr; context = context->next)
    for (auto * subtree = context->first_subtree; subtree != nullptr; subtree = subtree->next)
      for (auto * layer = subtree; layer != nullptr; layer = layer->children)
        count += takeOver(layer->reginfo, isOurs);
  return count;
}

bool answerAlone(netsnmp_handler_registration & registration, netsnmp_agent_request_info & agent,
                 netsnmp_request_info & request) {
  auto * const handler = registration.handler;
  return handler != nullptr && handler->access_method == handle && handler->myvoid != nullptr &&
         Call(handler, &registration, &agent, Call::Stock::isNotAsked).serve(&request) ==
             SNMP_ERR_NOERROR &&
         request.status == SNMP_ERR_NOERROR;
}

namespace {

int handle(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
           netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
  if (self->myvoid == nullptr) // there was no memory for a copy of ours
    return netsnmp_call_next_handler(self, registration, agent, requests);
  return Call(self, registration, agent).serve(requests);
}

// True if and only if nothing stands above the iterator but what this one replaces.
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
    try {
      return std::make_unique<Table>(static_cast<Table const *>(table)->info).release();
    } catch (std::bad_alloc const &) { // may not pass through net-snmp
      return nullptr;
    }
  };
  handler->data_free = [](void * table) { delete static_cast<Table const *>(table); };
  return handler;
}

bool takeOver(netsnmp_handler_registration * registration,
              std::function<bool(void const *)> const & isOurs) {
  if (registration == nullptr || !isStock(*registration))
    return false;
  auto * info =
      static_cast<netsnmp_iterator_info *>(iteratorBeneath(registration->handler)->myvoid);
  return isServed(*info) && isOurs(reinterpret_cast<void const *>(info->get_first_data_point)) &&
         netsnmp_inject_handler(registration, makeHandler(info)) == SNMPERR_SUCCESS;
}

} // namespace

} // namespace Agent
