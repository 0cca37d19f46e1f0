// What a master asks, answered by the agent in this process (RFC 2741 section 7.2.3 and 7.2.4).
//
// AgentX and SNMP differ in little: a master gives the range in which it wants the next name, may
// ask for the first name of a range itself, and carries out a SET in steps of its own.
#pragma once

#include "agent/agentx/LocalAgent.h"
#include "agent/agentx/Pdu.h"
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent::AgentX {

/// A GetBulk is answered with fewer repetitions when it would have more varbinds than these.
inline constexpr std::size_t mostBulkAnswers = 1000;
/// SETs that a master may have under way.
inline constexpr std::size_t mostSets = 16;
/// Requests that a master may have under way. Only handlers that delegate leave any.
inline constexpr std::size_t mostRequests = 256;

class Requests {
public:
  /// Called from LocalAgent::deliver() or take(), once for each request but a CleanupSet, unless it
  /// was forgotten.
  using Answer = std::function<void(Header const &, Response)>;

  /// The agent must outlive it.
  Requests(LocalAgent & agent, Answer answer) : agent_(agent), answer_(std::move(answer)) {}

  /// Begins to answer. Requires: the body is a request.
  void take(Header const & header, Body const & body);
  /// The session is over: no request is answered any more, and SETs that are under way are undone.
  void forget();

private:
  class Walk;
  struct Set {
    std::uint32_t id; // towards the agent
    std::string context;
    bool isCommitted = false;
  };

  bool answersAtOnce(Header const & header, Question question, std::string const & context,
                     std::vector<SearchRange> const & ranges);
  std::optional<VarBind> answerAtOnce(Question question, SearchRange const & range);
  void get(Header const & header, Get const & get);
  void getNext(Header const & header, GetNext const & next);
  void walk(Header const & header, std::string context, std::vector<SearchRange> ranges,
            std::size_t nonRepeaters, std::size_t repetitions);
  void test(Header const & header, TestSet const & set);
  void reserveMore(Header const & header, Set const & set);
  void commit(Header const & header);
  void undo(Header const & header);
  void cleanUp(Header const & header);
  void end(Set const & set, Question how, LocalAgent::Done done);
  LocalAgent::Done answering(Header const & header, Error failure = Error::none);
  void answer(Header const & header, Response response);
  void refuse(Header const & header, Error error);

  LocalAgent & agent_;
  Answer const answer_;
  std::uint32_t session_ = 0; // grows with each forget()
  std::uint32_t lastSet_ = 0;
  std::map<std::uint32_t, Set> sets_; // by the master's transaction
};

} // namespace Agent::AgentX
