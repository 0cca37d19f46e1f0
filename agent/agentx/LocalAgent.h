// net-snmp's agent in this process, asked without a network: what AgentX wants to know goes to the
// handlers that modules have registered with net-snmp, in the way of any SNMP request.
//
// net-snmp's own subagent does so as well, through a transport that copies each request and writes
// to a pipe. Here a request is handed over by a call, and its answer is taken where net-snmp would
// encode it.
#pragma once

#include "agent/agentx/Pdu.h"
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct snmp_session;
struct snmp_pdu;

namespace Agent::TableIterator {
class DirectQuestion;
} // namespace Agent::TableIterator

namespace Agent::AgentX {

/// net-snmp's steps of a SET: the two reservations before anything changes, the change, and its end
/// for good or, from each step, back.
enum class Question : std::uint8_t { get, getNext, reserve, reserveMore, act, commit, free, undo };

/// Life cycle: between net-snmp's init_snmp() and snmp_shutdown(). One at a time.
class LocalAgent {
public:
  /// The error as net-snmp's handlers gave it, and without an error a varbind for each that was
  /// asked about.
  using Done = std::function<void(Response)>;

  LocalAgent();
  LocalAgent(LocalAgent const &) = delete;
  LocalAgent & operator=(LocalAgent const &) = delete;
  ~LocalAgent();

  /// Asks about the varbinds, of which all but a SET's first reservation are names only. A SET's
  /// steps belong together by the `transaction`; from the second one on they have no varbinds. No
  /// access control applies: that is the master's. `done` is called by deliver(), once.
  void ask(Question question, std::string const & context, std::uint32_t transaction,
           std::vector<VarBind> const & varBinds, Done done);
  /// The answer about one name in the default context, where it is there without net-snmp's agent
  /// being asked: a cell of a table that the iterator has taken over. Nothing otherwise, and that
  /// means nothing: ask(). Requires: get or getNext.
  std::optional<VarBind> answerAtOnce(Question question, Oid const & name);
  /// True if and only if net-snmp's agent was asked since the last time.
  bool wasAsked() { return std::exchange(wasAsked_, false); }
  /// Hands out what was answered since: most answers are there when ask() returns, those of a
  /// handler that delegates come later. A `done` may ask again.
  void deliver();
  /// Questions without an answer, or with one that was not handed out.
  std::size_t pending() const { return asked_.size(); }

private:
  struct Asked {
    Done done;
    Response response;
    bool isAnswered = false;
  };
  static int takeAnswer(snmp_session * session, snmp_pdu * pdu, unsigned char * octets,
                        std::size_t * size);

  std::unique_ptr<TableIterator::DirectQuestion> const direct_;
  snmp_session * session_;
  bool wasAsked_ = false;
  long lastRequest_ = 0;
  std::map<long, Asked> asked_; // by net-snmp's request id
};

} // namespace Agent::AgentX
