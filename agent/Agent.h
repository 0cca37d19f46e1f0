// The daemon as a whole: what is made in which order, and undone in which.
//
// docs/startup.md tells the steps by name and what holds after each; the handle "tunnelsnmpd"
// traces them. Two things decide the order. The machines come after the sources, so that their
// first scans find what there is; and SNMP comes after the machines, so that no request is answered
// out of tables that nobody fills. At the end serving stops before anything goes that an answer may
// hold.
//
// Where there is no memory for telling the machines of a change, a row may be missing or stay. What
// a machine has not heard it cannot know of, so within a second the machines are started anew.
#pragma once

#include "agent/ControlSocket.h"
#include "agent/EventLoop.h"
#include "agent/Options.h"
#include "agent/Patches.h"
#include "agent/Plugin.h"
#include "agent/Rereads.h"
#include "agent/ServiceManager.h"
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
  /// Requires: it is no guest, which is served as soon as it is constructed.
  std::string listen();
  /// One piece of background work: runs the next task, if one is scheduled. True if and only if
  /// another one waits. An exception out of a task is reported and counted
  /// ("agent-task-exceptions").
  bool work();
  /// Reads the configuration and the sources again, as Rereads::wish() says.
  std::shared_ptr<RereadOutcome const> reread() { return rereads_->wish(); }
  /// Replaces the plug-in's agent: the machines start anew and reconcile their tables, so that rows
  /// that no input produces any more go. Raises what the start of a machine raises.
  void restartMachines();

private:
  /// Undoes a start, complete or not, in the right order.
  void stop();
  void stopPlugin();
  void startPlatform();
  void startPlugin();
  void requireTraceHandles() const;
  void startSources();
  void startMachines();
  void noticeReady();
  void noteShortage(std::exception const & what);
  void heal();
  void startSnmp();
  void startControl();
  std::vector<std::string> rereadConfiguration();
  void rereadIsUnderWay(bool isUnderWay);
  void sourceHasChanged(Sources::Source const & source) const;
  bool isReady(nlohmann::ordered_json const & machines) const;
  nlohmann::ordered_json status() const;
  std::vector<SourceConnections> connections() const;

  Options const options_;
  EventLoop & loop_;
  std::optional<ServiceManager> serviceManager_; // none for a guest: that of its host is not ours
  Zel::Ptr<Kiln::TaskScheduler> const scheduler_;
  StateDb::StateDb database_;
  StateDb::NotifieeFailed const notifieeFailed_;
  StateDb::StateDocument document_;
  StateDb::Publishers publishers_;
  Sources::Links links_;
  Sources::Ike::BoundLinks boundLinks_;
  std::unique_ptr<SnmpEngine> snmp_; // null for a guest: net-snmp is its host's
  std::unique_ptr<Plugin> plugin_;
  std::vector<std::unique_ptr<Sources::Source>> sources_;
  std::optional<Rereads> rereads_;
  std::unique_ptr<Patches> patches_;
  std::unique_ptr<ControlSocket> control_;
  Os::Loop::Handle healing_; // made at the start: it is for when there is no memory
  bool hasMissedChanges_ = false;
  std::string servedAt_;
  bool ready_ = false; // as last noticed, of the machines that there are
};

} // namespace Agent
