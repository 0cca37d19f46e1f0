// The daemon as a whole: what is made in which order, and undone in the reverse one.
//
//   platform     trace levels and sink, the default task scheduler with the real clock
//   state        the state database with its three empty inputs; SnmpUtil resolves paths in it
//   plug-in      the library is loaded; its MIB entity and its root are made by type name
//   sources      every source has published what there is
//   machines     the root has its agent: the state machines begin
//   snmp         net-snmp has read its configuration, and the MIB modules are registered; their
//                tables are served by the daemon's own iterator, unless it is told otherwise
//   control      the control socket answers
//   listening    SNMP is served; the operator is told on the standard output stream
//
// What is made last goes first: control socket, sources, MIB registrations, machines, entities,
// library, net-snmp.
#pragma once

#include "agent/ControlSocket.h"
#include "agent/EventLoop.h"
#include "agent/Options.h"
#include "agent/Plugin.h"
#include "agent/SnmpEngine.h"
#include "platform/Kiln.h"
#include "platform/Lumo.h"
#include "sources/Registry.h"
#include "statedb/Publishers.h"
#include "statedb/StateDb.h"
#include "statedb/StateDocument.h"
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

class Agent {
public:
  /// Starts everything but the listening. Raises ConfigurationError, std::runtime_error or a Zel
  /// exception, one line each, with everything undone.
  Agent(Options options, EventLoop & loop);
  Agent(Agent const &) = delete;
  Agent & operator=(Agent const &) = delete;
  ~Agent();

  /// Begins to serve SNMP. Returns where, as SnmpEngine::listen does, and raises what it raises.
  std::string listen();
  /// One piece of background work: runs the next task. True if and only if another one waits. An
  /// exception out of a task is reported and counted ("agent-task-exceptions").
  bool work();
  /// Reads the configuration again, and begins to read the sources again. The failures are reported
  /// and put into what is returned when all is read, which may be some turns of the loop later.
  std::shared_ptr<RereadOutcome const> reread();
  /// Replaces the plug-in's agent: the machines start anew and reconcile their tables, so that rows
  /// that no input produces any more go. Raises what the start of a machine raises.
  void restartMachines();

private:
  /// Undoes a start, complete or not, in the right order.
  void stop();
  void startPlatform();
  void startPlugin();
  void startSources();
  void startMachines();
  void startSnmp();
  void startControl();
  std::vector<std::string> rereadConfiguration();
  void lookAtRereads();
  void finish(RereadOutcome & reread, std::vector<std::string> failures) const;
  nlohmann::ordered_json status() const;

  Options const options_;
  EventLoop & loop_;
  Zel::Ptr<Kiln::TaskScheduler> const scheduler_;
  StateDb::StateDb database_;
  StateDb::NotifieeFailed const notifieeFailed_;
  StateDb::StateDocument document_;
  StateDb::Publishers publishers_;
  Sources::Links links_;
  std::unique_ptr<SnmpEngine> snmp_;
  std::unique_ptr<Plugin> plugin_;
  std::vector<std::unique_ptr<Sources::Source>> sources_;
  /// What is being read again, each with the failures until now.
  std::vector<std::pair<std::shared_ptr<RereadOutcome>, std::vector<std::string>>> rereads_;
  Os::Loop::Handle nextLook_; // whether that is over
  std::unique_ptr<ControlSocket> control_;
  std::string servedAt_;
};

} // namespace Agent
