// Single names of the tables that the iterator has taken over, asked without net-snmp's agent.
//
// For each packet the agent makes a session with copies of the PDU, a cache of subtrees and lists
// of requests, and takes all apart again: several times what the iterator and the module do. Behind
// an AgentX master each repetition of a GETBULK is such a packet. Here the iterator is called at
// once, with records that are kept.
#pragma once

#include "agent/iterator/Codec.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <memory>

namespace Agent::TableIterator {

/// Asks in the default context, about all that there is: access is somebody else's to check.
class DirectQuestion {
public:
  DirectQuestion();
  DirectQuestion(DirectQuestion const &) = delete;
  DirectQuestion & operator=(DirectQuestion const &) = delete;
  ~DirectQuestion();

  /// The value of a name, or that there is no such instance. Null when only net-snmp's agent can
  /// tell: the name is no cell of a table that was taken over, or the module fails. The varbind
  /// lives until the next call.
  netsnmp_variable_list const * get(SubIds name) { return ask(MODE_GET, name); }
  /// The next cell of the table that the name is in or directly before. Null as with get(), and
  /// when the table has no further cell.
  netsnmp_variable_list const * getNext(SubIds name) { return ask(MODE_GETNEXT, name); }

private:
  struct PduFree {
    void operator()(netsnmp_pdu * pdu) const { snmp_free_pdu(pdu); }
  };
  netsnmp_variable_list const * ask(int mode, SubIds name);

  std::unique_ptr<netsnmp_pdu, PduFree> const pdu_;
  netsnmp_agent_session session_{};
  netsnmp_agent_request_info information_{};
  netsnmp_variable_list varbind_{};
};

} // namespace Agent::TableIterator
