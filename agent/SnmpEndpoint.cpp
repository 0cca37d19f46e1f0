// How an answer is made to fit. net-snmp is told that there is room for any; what it then wants to
// send is looked at, and when it is longer than the manager takes, it is not sent: a GETBULK is
// answered again with fewer repetitions, everything else with tooBig (RFC 3416 sections 4.2.1 to
// 4.2.5).
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "agent/SnmpEndpoint.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

namespace Agent {

namespace {

Lumo::Counter answersWithheld("agent-snmp-answers-too-long");
Lumo::Counter acceptFailures("agent-snmp-accept-failures");
Lumo::Counter connectionsDropped("agent-snmp-connections-dropped");

/// What a datagram can carry, and so what a manager may take for the most that there is.
constexpr std::size_t largestMessage = 65507;
/// More than any answer has: the length of 2,000 varbinds with the longest names and values is
/// within it. net-snmp takes this much at once for each answer that it builds.
constexpr long roomForAny = long{4} << 20;
/// The longest name makes a varbind of some 640 octets: with fewer of them an answer fits.
constexpr std::size_t fewNames = 90;
/// More than a datagram can hold. A stream can, and each takes net-snmp a kilobyte and some time.
constexpr std::size_t manyNames = 6000;
/// Of a connection, in octets: a whole answer fits while the manager reads the one before.
constexpr int sendBuffer = 200'000;

SnmpEndpoint * current = nullptr;

bool isRequest(netsnmp_pdu const & pdu) {
  return pdu.version != SNMP_VERSION_1 &&
         (pdu.command == SNMP_MSG_GET || pdu.command == SNMP_MSG_GETNEXT ||
          pdu.command == SNMP_MSG_GETBULK || pdu.command == SNMP_MSG_SET);
}

/// Looks no further than it must.
bool hasMoreNamesThan(std::size_t limit, netsnmp_pdu const & pdu) {
  std::size_t count = 0;
  for (auto const * one = pdu.variables; one != nullptr && count <= limit; one = one->next_variable)
    ++count;
  return count > limit;
}

/// What the manager takes. An SNMPv2c message announces nothing, and RFC 3412 section 6 allows to
/// announce more than any transport carries.
std::size_t announcedBy(netsnmp_pdu const & pdu) {
  if (pdu.version != SNMP_VERSION_3 || pdu.msgMaxSize <= 0)
    return largestMessage;
  return std::min(static_cast<std::size_t>(pdu.msgMaxSize), largestMessage);
}

/// Asks for so many repetitions fewer that they should fit. False when there is no smaller number.
bool askForLess(netsnmp_pdu & bulk, std::size_t limit, std::size_t size) {
  if (bulk.command != SNMP_MSG_GETBULK || bulk.errindex <= 1)
    return false;
  auto const share = bulk.errindex * static_cast<long>(limit) / static_cast<long>(size);
  bulk.errindex = std::clamp(share, 1L, bulk.errindex - 1);
  return true;
}

/// All at once or not at all: a part of a message would leave the stream unreadable, and to wait
/// for a manager is to have every other one wait.
int sendOrHangUp(int descriptor, void const * packet, int size) {
  auto const sent =
      ::send(descriptor, packet, static_cast<std::size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
  auto const hasGone = sent < 0 && errno != EAGAIN;
  if (sent != size && !hasGone) {
    connectionsDropped.inc();
    shutdown(descriptor, SHUT_RDWR); // net-snmp finds its end when it reads, and closes it
  }
  return size;
}

} // namespace

SnmpEndpoint::SnmpEndpoint(netsnmp_transport * transport)
    : send_(transport->f_send),
      accept_(transport->f_accept),
      descriptor_(transport->sock) {
  current = this;
  transport->f_send = &SnmpEndpoint::send;
  if (accept_ != nullptr)
    transport->f_accept = &SnmpEndpoint::accept; // what it accepts has its functions, too
  netsnmp_session settings;
  snmp_sess_init(&settings);
  settings.version = SNMP_DEFAULT_VERSION;
  settings.isAuthoritative = SNMP_SESS_AUTHORITATIVE;
  settings.flags = transport->flags;
  settings.callback = &SnmpEndpoint::received;
  settings.callback_magic = this;
  session_ = snmp_add(&settings, transport, netsnmp_agent_check_packet, netsnmp_agent_check_parse);
  if (session_ == nullptr)
    throw std::runtime_error("net-snmp refuses it");
}

SnmpEndpoint::~SnmpEndpoint() {
  if (session_ != nullptr)
    snmp_close(session_);
  current = nullptr;
}

bool SnmpEndpoint::acceptFailed() {
  return std::exchange(acceptFailed_, false);
}

int SnmpEndpoint::received(int operation, netsnmp_session * session, int id, netsnmp_pdu * pdu,
                           void * self) {
  auto const isMessage = operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE; // else there is no PDU
  if (isMessage && isRequest(*pdu) &&
      (announcedBy(*pdu) < largestMessage || hasMoreNamesThan(fewNames, *pdu)))
    return static_cast<SnmpEndpoint *>(self)->answer(session, id, *pdu);
  return handle_snmp_packet(operation, session, id, pdu, nullptr);
}

// The agent works on a copy of the request and leaves the request as it was.
int SnmpEndpoint::answer(netsnmp_session * session, int id, netsnmp_pdu & request) {
  if (hasMoreNamesThan(manyNames, request)) {
    sayTooBig(session, request);
    return 1;
  }
  limit_ = announcedBy(request);
  request.msgMaxSize = roomForAny;
  while (!fits(session, id, request))
    if (!askForLess(request, limit_, withheld_)) {
      sayTooBig(session, request);
      break;
    }
  limit_ = 0;
  return 1;
}

bool SnmpEndpoint::fits(netsnmp_session * session, int id, netsnmp_pdu & request) {
  withheld_ = 0;
  handle_snmp_packet(NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE, session, id, &request, nullptr);
  return withheld_ == 0;
}

void SnmpEndpoint::sayTooBig(netsnmp_session * session, netsnmp_pdu & request) {
  auto * const refusal = snmp_clone_pdu(&request);
  if (refusal == nullptr)
    return;
  refusal->command = SNMP_MSG_RESPONSE;
  refusal->errstat = SNMP_ERR_TOOBIG;
  refusal->errindex = 0;
  snmp_free_varbind(std::exchange(refusal->variables, nullptr));
  if (snmp_send(session, refusal) == 0)
    snmp_free_pdu(refusal);
}

int SnmpEndpoint::send(netsnmp_transport * transport, void const * packet, int size, void ** to,
                       int * toSize) {
  if (current->limit_ != 0 && static_cast<std::size_t>(size) > current->limit_) {
    answersWithheld.inc();
    current->withheld_ = static_cast<std::size_t>(size);
    return size;
  }
  if ((transport->flags & NETSNMP_TRANSPORT_FLAG_STREAM) != 0)
    return sendOrHangUp(transport->sock, packet, size);
  return current->send_(transport, packet, size, to, toSize);
}

int SnmpEndpoint::accept(netsnmp_transport * transport) {
  auto const connection = current->accept_(transport);
  if (connection < 0) {
    acceptFailures.inc();
    current->acceptFailed_ = true;
  } else
    setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
  return connection;
}

} // namespace Agent
