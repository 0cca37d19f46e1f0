// The agent in this process as a subagent: a session with a master, and what net-snmp's agent knows
// as what is registered there and served.
//
// What modules register with net-snmp from the construction on is registered with the master, in
// each context, with its priority and range; but not net-snmp's own three empty subtrees 0, 1 and
// 2, which each context begins with.
#pragma once

#include "agent/agentx/LocalAgent.h"
#include "agent/agentx/Requests.h"
#include "agent/agentx/Session.h"
#include <exception>
#include <functional>

struct register_parameters;

namespace Agent::AgentX {

/// Life cycle: between net-snmp's init_snmp() and snmp_shutdown(), around the registration of the
/// modules. One at a time.
class Subagent final : private Session::Host {
public:
  /// `served` is called after each turn in which net-snmp was asked.
  Subagent(Os::Loop & loop, MasterAddress address, std::function<void()> served);
  Subagent(Subagent const &) = delete;
  Subagent & operator=(Subagent const &) = delete;
  ~Subagent() override;

  /// Seeks the master from now on. Raises std::bad_alloc when there was no memory for a region that
  /// was registered until now: it would not be served.
  void start();
  /// Leaves the master, at once.
  void close() { session_.close(); }
  /// Passes on what handlers that delegate have answered since.
  void deliver() { agent_.deliver(); }
  SessionStatus const & status() const { return session_.status(); }
  std::string const & address() const { return session_.address(); }

private:
  void asked(Header const & header, Body body) override { requests_.take(header, body); }
  void turnEnded() override;
  void sessionLost() override { requests_.forget(); }
  void changed(int what, register_parameters const & parameters);
  void unheard(std::exception const & reason);
  static int changedHere(int, int what, void * parameters, void * self);

  std::function<void()> const served_;
  LocalAgent agent_;
  Requests requests_;
  bool hasUnheard_ = false;
  Session session_; // last: it takes its leave while the others are still there
};

} // namespace Agent::AgentX
