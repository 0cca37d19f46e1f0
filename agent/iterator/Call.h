// One call of the iterator's handler: it understands each request, answers it through the module,
// or leaves it to net-snmp's handlers beneath. How a request runs through the files here stands at
// the top of HostIterator.cpp.
#pragma once

#include "agent/iterator/Codec.h"
#include "agent/iterator/Cursor.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <optional>

namespace Agent::TableIterator {

/// net-snmp's table iterator in the chain that begins with `handler`, or null. Beneath it is the
/// handler of the module.
netsnmp_mib_handler * iteratorBeneath(netsnmp_mib_handler * handler);

/// One call of the handler: some requests of one PDU. Lives as long as the call.
class Call {
public:
  /// Whether what this call does not answer goes on to net-snmp's handlers beneath, or fails.
  enum class Stock : bool { isNotAsked, isAsked };

  Call(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
       netsnmp_agent_request_info * agent, Stock stock = Stock::isAsked);

  /// Serves the requests one by one, up to the first that fails. Returns an SNMP error status.
  int serve(netsnmp_request_info * requests);

private:
  int serveOne(netsnmp_request_info & request);
  int leaveToStock(netsnmp_request_info & request);

  bool understand(netsnmp_request_info const & request);
  bool understandColumn(oid number);
  bool understandIndex(SubIds index);
  bool beforeFirstColumn(SubIds name) const;

  int get(netsnmp_request_info & request);
  int set(netsnmp_request_info & request);
  bool findsRow(void *& dataContext);
  int walk(netsnmp_request_info & request);
  bool answerRepetitions(netsnmp_request_info & request);
  int repetitions(netsnmp_request_info const & request);
  bool seesEnough();
  void skipAsked(Cursor & cursor) const;
  bool answer(netsnmp_request_info & request, Cursor & cursor, bool isLast);
  int askModule(netsnmp_request_info & request, void * dataContext, int seen);

  netsnmp_mib_handler * const self_;
  netsnmp_handler_registration * const registration_;
  netsnmp_agent_request_info * const agent_;
  Stock const stock_;
  Table const & table_;
  SubIds const root_;
  netsnmp_mib_handler * const module_;
  std::optional<bool> seesEnough_;
  netsnmp_table_request_info asked_; // what the request under way names, as the module sees it
};

} // namespace Agent::TableIterator
