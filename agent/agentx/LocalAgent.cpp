// Requests as net-snmp's PDUs, and its PDUs as answers.
//
// The session that net-snmp answers to is one without a network. It needs a descriptor all the
// same, since a session without is taken for one that has ended: an eventfd that nobody ever
// writes to. Its function that builds packets is where the answers are taken; what it builds is one
// octet that the transport throws away.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "agent/agentx/LocalAgent.h"
#include "agent/iterator/DirectQuestion.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <new>
#include <stdexcept>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace Agent::AgentX {

namespace {

Lumo::Counter answersLost("agentx-answers-lost");

netsnmp_transport * makeTransport();
int commandOf(Question question);

/// A list of varbinds that grows at its end.
class VarBindList {
public:
  /// The varbinds are the PDU's. Requires: it has none.
  explicit VarBindList(netsnmp_pdu & pdu) : end_(&pdu.variables) {}
  /// Leaves out what net-snmp cannot hold.
  void append(VarBind const & varBind);

private:
  netsnmp_variable_list ** end_;
};

VarBind toVarBind(netsnmp_variable_list const & from);

/// As net-snmp counts sub-identifiers, each in a `long`.
class LongOid {
public:
  explicit LongOid(Oid const & from) : size_(std::min(from.size(), subIds_.size())) {
    std::copy_n(from.begin(), size_, subIds_.begin());
  }
  oid const * data() const { return subIds_.data(); }
  std::size_t size() const { return size_; }

private:
  std::array<oid, longestOid> subIds_;
  std::size_t const size_;
};

} // namespace

LocalAgent::LocalAgent() : direct_(std::make_unique<TableIterator::DirectQuestion>()) {
  netsnmp_session wanted;
  snmp_sess_init(&wanted);
  wanted.version = SNMP_VERSION_2c;
  wanted.callback = [](int, netsnmp_session *, int, netsnmp_pdu *, void *) { return 1; };
  wanted.callback_magic = this;
  session_ = snmp_add_full(&wanted, makeTransport(), nullptr, nullptr, nullptr,
                           &LocalAgent::takeAnswer, nullptr, nullptr, nullptr);
  if (session_ == nullptr)
    throw std::runtime_error("net-snmp makes no session for AgentX");
}

LocalAgent::~LocalAgent() {
  snmp_close(session_);
}

void LocalAgent::ask(Question question, std::string const & context, std::uint32_t transaction,
                     std::vector<VarBind> const & varBinds, Done done) {
  std::unique_ptr<netsnmp_pdu, decltype(&snmp_free_pdu)> const pdu( // net-snmp works with a copy
      snmp_pdu_create(commandOf(question)), &snmp_free_pdu);
  if (!pdu)
    throw std::bad_alloc();
  wasAsked_ = true;
  auto const request = ++lastRequest_;
  pdu->version = SNMP_VERSION_2c;
  pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
  pdu->reqid = request;
  pdu->transid = static_cast<long>(transaction);
  if (!context.empty()) { // the default one has no name
    pdu->contextName = strdup(context.c_str());
    if (pdu->contextName == nullptr)
      throw std::bad_alloc();
    pdu->contextNameLen = context.size();
  }
  VarBindList list(*pdu);
  for (auto const & varBind : varBinds)
    list.append(varBind);
  asked_[request].done = std::move(done);
  handle_snmp_packet(NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE, session_, 0, pdu.get(), nullptr);
}

std::optional<VarBind> LocalAgent::answerAtOnce(Question question, Oid const & from) {
  LongOid const name(from);
  auto const * const found = question == Question::get
                                 ? direct_->get({name.data(), name.size()})
                                 : direct_->getNext({name.data(), name.size()});
  try {
    return found == nullptr ? std::nullopt : std::optional(toVarBind(*found));
  } catch (std::runtime_error const &) {
    return std::nullopt; // it fails again when the agent is asked, and is told as it should be
  }
}

void LocalAgent::deliver() {
  auto const isAnswered = [](auto const & one) { return one.second.isAnswered; };
  for (auto next = std::ranges::find_if(asked_, isAnswered); next != asked_.end();
       next = std::ranges::find_if(asked_, isAnswered)) {
    auto asked = std::move(asked_.extract(next).mapped());
    asked.done(std::move(asked.response));
  }
}

// Called from C: nothing may be raised.
int LocalAgent::takeAnswer(netsnmp_session * session, netsnmp_pdu * pdu, unsigned char *,
                           std::size_t * size) {
  *size = 1;
  auto & self = *static_cast<LocalAgent *>(session->callback_magic);
  auto const found = self.asked_.find(pdu->reqid);
  if (found == self.asked_.end())
    return SNMPERR_SUCCESS;
  auto & response = found->second.response;
  try {
    response.error = static_cast<Error>(pdu->errstat);
    response.index = static_cast<std::uint16_t>(pdu->errindex);
    if (response.error == Error::none)
      for (auto const * one = pdu->variables; one != nullptr; one = one->next_variable)
        response.varBinds.push_back(toVarBind(*one));
  } catch (std::exception const &) {
    answersLost.inc();
    response = {.error = Error::generic, .varBinds = {}};
  }
  found->second.isAnswered = true;
  return SNMPERR_SUCCESS;
}

namespace {

netsnmp_transport * makeTransport() {
  // net-snmp frees it.
  auto * const transport = static_cast<netsnmp_transport *>(calloc(1, sizeof(netsnmp_transport)));
  if (transport == nullptr)
    throw std::bad_alloc();
  transport->sock = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (transport->sock == -1) {
    free(transport);
    throw std::runtime_error(fmt::format("cannot make an eventfd: {}", std::strerror(errno)));
  }
  transport->msgMaxSize = SNMP_MAX_PACKET_LEN;
  transport->f_send = [](netsnmp_transport *, void const *, int size, void **, int *) {
    return size;
  };
  transport->f_recv = [](netsnmp_transport *, void *, int, void **, int *) { return -1; };
  transport->f_close = [](netsnmp_transport * self) {
    return close(std::exchange(self->sock, -1));
  };
  return transport;
}

int commandOf(Question question) {
  switch (question) {
  case Question::get:
    return SNMP_MSG_GET;
  case Question::getNext:
    return SNMP_MSG_GETNEXT;
  case Question::reserve:
    return SNMP_MSG_INTERNAL_SET_RESERVE1;
  case Question::reserveMore:
    return SNMP_MSG_INTERNAL_SET_RESERVE2;
  case Question::act:
    return SNMP_MSG_INTERNAL_SET_ACTION;
  case Question::commit:
    return SNMP_MSG_INTERNAL_SET_COMMIT;
  case Question::free:
    return SNMP_MSG_INTERNAL_SET_FREE;
  case Question::undo:
    return SNMP_MSG_INTERNAL_SET_UNDO;
  }
  return SNMP_MSG_GET;
}

Oid toOid(oid const * from, std::size_t length) {
  Oid result;
  result.reserve(length);
  for (auto const subId : std::span(from, length))
    result.push_back(static_cast<std::uint32_t>(subId));
  return result;
}

/// A value as snmp_varlist_add_variable() takes it: calls `put(octets, size)`.
template <class Put>
void withValue(VarBind const & varBind, Put put) {
  if (auto const * number = std::get_if<std::uint32_t>(&varBind.value)) {
    // net-snmp's integers are of the machine's own width, and so their sign has to be stretched.
    auto const value = varBind.type == ValueType::integer
                           ? static_cast<long>(static_cast<std::int32_t>(*number))
                           : static_cast<long>(*number);
    put(&value, sizeof value);
  } else if (auto const * large = std::get_if<std::uint64_t>(&varBind.value)) {
    counter64 const value{static_cast<u_long>(*large >> 32U),
                          static_cast<u_long>(*large & 0xFFFFFFFFU)};
    put(&value, sizeof value);
  } else if (auto const * octets = std::get_if<std::string>(&varBind.value))
    put(octets->data(), octets->size());
  else if (auto const * name = std::get_if<Oid>(&varBind.value)) {
    LongOid const value(*name);
    put(value.data(), value.size() * sizeof(oid));
  } else
    put(nullptr, 0);
}

void VarBindList::append(VarBind const & varBind) {
  LongOid const name(varBind.name);
  withValue(varBind, [&](void const * octets, std::size_t size) {
    snmp_varlist_add_variable(end_, name.data(), name.size(), static_cast<u_char>(varBind.type),
                              octets, size);
  });
  if (*end_ == nullptr)
    throw std::bad_alloc();
  end_ = &(*end_)->next_variable;
}

decltype(VarBind::value) toValue(netsnmp_variable_list const & from) {
  switch (static_cast<ValueType>(from.type)) {
  case ValueType::integer:
  case ValueType::counter32:
  case ValueType::gauge32:
  case ValueType::timeTicks:
    return static_cast<std::uint32_t>(*from.val.integer);
  case ValueType::counter64:
    return static_cast<std::uint64_t>(from.val.counter64->high) << 32U |
           (from.val.counter64->low & 0xFFFFFFFFU);
  case ValueType::octetString:
  case ValueType::opaque:
  case ValueType::ipAddress:
    return std::string(reinterpret_cast<char const *>(from.val.string), from.val_len);
  case ValueType::objectIdentifier:
    return toOid(from.val.objid, from.val_len / sizeof(oid));
  case ValueType::null:
  case ValueType::noSuchObject:
  case ValueType::noSuchInstance:
  case ValueType::endOfMibView:
    return {};
  }
  throw std::runtime_error("a value of a type that AgentX has not");
}

VarBind toVarBind(netsnmp_variable_list const & from) {
  return {toOid(from.name, from.name_length), static_cast<ValueType>(from.type), toValue(from)};
}

} // namespace

} // namespace Agent::AgentX
