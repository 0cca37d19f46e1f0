// The address at which a stand-alone agent is served: net-snmp's session there, with a guard
// between the session and its transport.
//
// net-snmp's own way to open an address leads requests straight to the agent and answers straight
// to the socket. Three of its faults lie there (docs/net-snmp.md): an answer that does not fit the
// size that the manager takes, a TCP manager that does not read, and a connection for which there
// is no descriptor. The guard sees each request before the agent does and each answer before the
// socket does.
#pragma once

#include <cstddef>

struct netsnmp_transport_s;
struct snmp_pdu;
struct snmp_session;

namespace Agent {

/// There is one at a time, on net-snmp's one thread. What is called by net-snmp raises nothing.
class SnmpEndpoint {
public:
  /// Serves at the transport, which is net-snmp's from here on. Raises std::runtime_error when
  /// net-snmp refuses it.
  explicit SnmpEndpoint(netsnmp_transport_s * transport);
  SnmpEndpoint(SnmpEndpoint const &) = delete;
  SnmpEndpoint & operator=(SnmpEndpoint const &) = delete;
  /// Closes the address. Connections that it accepted end with net-snmp.
  ~SnmpEndpoint();

  /// The socket of the address.
  int descriptor() const { return descriptor_; }
  /// True if and only if it takes connections.
  bool accepts() const { return accept_ != nullptr; }
  /// True if and only if a connection could not be accepted since the last time it was asked: it
  /// still waits, so that the socket stays readable.
  bool acceptFailed();

private:
  static int received(int operation, snmp_session * session, int id, snmp_pdu * pdu, void * self);
  static int send(netsnmp_transport_s * transport, void const * packet, int size, void ** to,
                  int * toSize);
  static int accept(netsnmp_transport_s * transport);

  int answer(snmp_session * session, int id, snmp_pdu & request);
  bool fits(snmp_session * session, int id, snmp_pdu & request);
  void sayTooBig(snmp_session * session, snmp_pdu & request);

  using Send = int (*)(netsnmp_transport_s *, void const *, int, void **, int *);
  using Accept = int (*)(netsnmp_transport_s *);
  Send const send_;     // the transport's own
  Accept const accept_; // null where there are no connections
  int const descriptor_;
  snmp_session * session_ = nullptr;
  bool acceptFailed_ = false;
  // While a guarded request is answered: what the manager takes, and of an answer that is longer
  // its size. 0: no request is, or no answer was longer.
  std::size_t limit_ = 0;
  std::size_t withheld_ = 0;
};

} // namespace Agent
