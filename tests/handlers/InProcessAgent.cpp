// net-snmp set up as an agent without files, and as its own client.
#include "tests/handlers/InProcessAgent.h"
#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <sys/socket.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace {

// A port of the system's choice: the transport is opened first, and registered with the agent.
int listenAnywhere() {
  auto * transport = netsnmp_tdomain_transport("udp:127.0.0.1:0", 1, "udp");
  if (transport == nullptr || netsnmp_register_agent_nsap(transport) == 0)
    throw std::runtime_error("the agent cannot listen on loopback");
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(transport->sock, reinterpret_cast<sockaddr *>(&address), &size);
  return ntohs(address.sin_port);
}

void configure(std::string line) {
  netsnmp_config(line.data());
}

Varbind toVarbind(netsnmp_variable_list const & from) {
  Varbind varbind{Oid(from.name, from.name + from.name_length), from.type, 0, ""};
  if (from.type == ASN_INTEGER)
    varbind.integer = *from.val.integer;
  if (from.type == ASN_OCTET_STR)
    varbind.octets.assign(reinterpret_cast<char const *>(from.val.string), from.val_len);
  return varbind;
}

struct Reply {
  bool done = false;
  Response response{};
};

int onReply(int operation, netsnmp_session *, int, netsnmp_pdu * pdu, void * magic) {
  auto & reply = *static_cast<Reply *>(magic);
  reply.done = true;
  if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
    reply.response.errorStatus = -1;
    return 1;
  }
  reply.response.errorStatus = pdu->errstat;
  reply.response.errorIndex = pdu->errindex;
  for (auto * one = pdu->variables; one != nullptr; one = one->next_variable)
    reply.response.varbinds.push_back(toVarbind(*one));
  return 1;
}

} // namespace

void PrintTo(Varbind const & varbind, std::ostream * out) {
  for (auto const part : varbind.name)
    *out << '.' << part;
  *out << " type " << varbind.type << " integer " << varbind.integer << " octets "
       << varbind.octets.size();
}

InProcessAgent & InProcessAgent::instance() {
  static InProcessAgent agent;
  return agent;
}

InProcessAgent::InProcessAgent() {
  setenv("MIBS", "", 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OID_OUTPUT_FORMAT,
                     NETSNMP_OID_OUTPUT_NUMERIC);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS,
                         1);
  add_to_init_list(std::string("-smux").data());
  init_agent("test");
  configure("rwcommunity public 127.0.0.1");
  init_snmp("test");
  peer_ = "udp:127.0.0.1:" + std::to_string(listenAnywhere());
}

Response InProcessAgent::ask(netsnmp_pdu * request, int version) {
  netsnmp_session wanted;
  snmp_sess_init(&wanted);
  std::string community = "public";
  wanted.version = version;
  wanted.peername = peer_.data();
  wanted.community = reinterpret_cast<u_char *>(community.data());
  wanted.community_len = community.size();
  wanted.retries = 0;
  wanted.timeout = 10'000'000;
  auto * session = snmp_open(&wanted);
  Reply reply;
  if (session == nullptr || snmp_async_send(session, request, onReply, &reply) == 0)
    throw std::runtime_error("the request cannot be sent");
  while (!reply.done)
    agent_check_and_process(1);
  snmp_close(session);
  return reply.response;
}

Response InProcessAgent::askFor(int command, std::vector<Oid> const & names, int version) {
  auto * request = snmp_pdu_create(command);
  for (auto const & name : names)
    snmp_add_null_var(request, name.data(), name.size());
  return ask(request, version);
}

Response InProcessAgent::get(std::vector<Oid> const & names, int version) {
  return askFor(SNMP_MSG_GET, names, version);
}

Response InProcessAgent::getNext(std::vector<Oid> const & names, int version) {
  return askFor(SNMP_MSG_GETNEXT, names, version);
}

Response InProcessAgent::getBulk(std::vector<Oid> const & names, int nonRepeaters,
                                 int maxRepetitions) {
  auto * request = snmp_pdu_create(SNMP_MSG_GETBULK);
  request->non_repeaters = nonRepeaters;
  request->max_repetitions = maxRepetitions;
  for (auto const & name : names)
    snmp_add_null_var(request, name.data(), name.size());
  return ask(request);
}

Response InProcessAgent::set(std::vector<Oid> const & names) {
  auto * request = snmp_pdu_create(SNMP_MSG_SET);
  long const one = 1;
  for (auto const & name : names)
    snmp_pdu_add_variable(request, name.data(), name.size(), ASN_INTEGER, &one, sizeof one);
  return ask(request);
}

std::vector<Varbind> InProcessAgent::walk(Oid const & root) {
  std::vector<Varbind> all;
  for (auto name = root;;) {
    auto const answer = getNext({name}).varbinds.at(0);
    if (answer.type == SNMP_ENDOFMIBVIEW || answer.name.size() < root.size() ||
        !std::equal(root.begin(), root.end(), answer.name.begin()))
      return all;
    if (answer.name <= name)
      throw std::runtime_error("the walk goes back");
    all.push_back(answer);
    name = answer.name;
  }
}
