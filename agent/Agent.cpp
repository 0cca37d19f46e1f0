// The start and the stop, step by step, and what the daemon does in between.
#include "agent/Agent.h"
#include "agent/LineWriter.h"
#include "agent/Report.h"
#include "agent/Status.h"
#include "agent/TraceHandles.h"
#include "agent/iterator/HostIterator.h"
#include "os/Text.h"
#include "platform/Snmp.h"
#include <algorithm>
#include <array>
#include <new>
#include <nlohmann/json.hpp>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

Lumo::Counter notifieeExceptions("agent-notifiee-exceptions");
Lumo::Counter taskExceptions("agent-task-exceptions");
Lumo::Counter machinesHealed("agent-machines-healed");

/// How long a task works before it is asked to yield: about as long as half of all requests wait
/// while there is much to do.
constexpr std::chrono::milliseconds taskShare{2};

/// How often it is looked whether the machines have missed a change.
constexpr std::chrono::seconds healPeriod{1};

constexpr char const * mibPath = "snmp/tunnelIntf/tunnelMib";
constexpr char const * rootPath = "snmp/tunnelIntf/root";

std::string hostName() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  return name.data();
}

// Known by its name before it has traced anything, so that it can be switched on.
auto const debugHandler = Lumo::Platform::getDebugHandler("tunnelsnmpd", false);

/// Traces a step of the start or of the stop; docs/startup.md tells what holds after each.
void done(char const * step) {
  LUMO_TRACE(*debugHandler, 1, "{}", step);
}

void writeTrace(Lumo::TraceMessage const & message) {
  say(Os::printable(Lumo::traceLine(message)));
}

} // namespace

Agent::Agent(Options options, EventLoop & loop)
    : options_(std::move(options)),
      loop_(loop),
      scheduler_(Zel::makePtr<Kiln::TaskScheduler>(std::chrono::steady_clock::now, taskShare)),
      notifieeFailed_([this](std::string_view pointer, std::exception const & exception) {
        noteShortage(exception);
        reportFailure(notifieeExceptions, fmt::format("after the change of {}", pointer),
                      exception);
      }),
      document_(database_, notifieeFailed_),
      publishers_(database_, notifieeFailed_) {
  if (!options_.isGuest)
    serviceManager_.emplace(loop);
  try {
    healing_ = loop_.every(healPeriod, [this] { heal(); });
    startPlatform();
    startPlugin();
    startSources();
    startMachines();
    startSnmp();
    startControl();
  } catch (...) {
    stop();
    throw;
  }
}

Agent::~Agent() {
  stop();
}

std::string Agent::listen() {
  servedAt_ = snmp_->listen(options_.listen);
  done("listening");
  return servedAt_;
}

bool Agent::work() {
  try {
    scheduler_->runOne();
    if (scheduler_->scheduled() == 0 && !ready_)
      noticeReady();
  } catch (std::exception const & exception) {
    noteShortage(exception);
    reportFailure(taskExceptions, "in a task", exception);
  }
  return scheduler_->scheduled() != 0;
}

void Agent::restartMachines() {
  try {
    Zel::attributeDel(*database_.lookup(rootPath), "tunnelIntfSnmpAgent");
    // Of this table no row is taken over: one that was left would keep its successor out, and then
    // be reconciled away.
    Zel::attributeDel(*database_.lookup(mibPath), "tunnelInetConfigTable");
    startMachines();
  } catch (...) {
    hasMissedChanges_ = true; // there may be no machines now
    throw;
  }
}

void Agent::stop() {
  if (serviceManager_)
    serviceManager_->stopping();
  healing_.reset();
  control_.reset(); // an answer under way holds rows
  patches_.reset();
  done("control socket closed");
  rereads_.reset();
  sources_.clear();
  done("sources ended");
  stopPlugin();
  snmp_.reset();
  done("SNMP shut down");
  Zel::exceptionReporterIs({});
  Lumo::traceSinkIs({});
}

void Agent::stopPlugin() {
  if (snmp_)
    snmp_->stopServing();
  done("serving ended");
  if (plugin_)
    plugin_->unregisterMibs();
  done("modules unregistered");
  database_.unmount(rootPath); // its end removes the machines
  done("machines removed");
  database_.unmount(mibPath);
  Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
  SnmpUtil::entityRootIs({});
  SnmpUtil::snmpConfigIs(nullptr); // ours, and the platform may outlive our code
  plugin_.reset();
  done("plug-in unloaded");
}

void Agent::startPlatform() {
  Lumo::traceSinkIs(writeTrace);
  Zel::exceptionReporterIs([this](std::string_view where, std::exception const & exception) {
    noteShortage(exception);
    reportFailure(notifieeExceptions, where, exception);
  });
  for (auto const & trace : options_.traces)
    Lumo::traceLevelsIs(trace.handle, trace.levelMask);
  Kiln::TaskSchedulerRoot::schedulerIs(scheduler_);
  SnmpUtil::entityRootIs([this](std::string_view path) { return database_.lookup(path); });
  auto const config = Zel::makePtr<Snmp::Config>();
  config->systemName = hostName();
  SnmpUtil::snmpConfigIs(config);
  done("platform set up");
}

void Agent::startPlugin() {
  plugin_ = std::make_unique<Plugin>(options_.pluginFile);
  requireTraceHandles();
  done("plug-in loaded");
  try {
    database_.create(mibPath, "TunnelIntfSnmp::TunnelMib");
    database_.create(rootPath, "TunnelIntfSnmp::Root");
  } catch (Zel::GenericAccessError const & error) {
    throw std::runtime_error(
        fmt::format("{} is not the plug-in that is wanted: {}", options_.pluginFile, error.what()));
  }
  done("entities made");
}

// Before the plug-in is there its handles are not.
void Agent::requireTraceHandles() const {
  try {
    for (auto const & trace : options_.traces)
      requireHandle(trace.handle);
  } catch (std::invalid_argument const & error) {
    throw ConfigurationError(fmt::format("--trace: {}", error.what()));
  }
}

void Agent::startSources() {
  Sources::Surroundings const surroundings{
      loop_,
      publishers_,
      links_,
      boundLinks_,
      [this](Sources::Source const & source) { sourceHasChanged(source); },
      [](Sources::Source const & source, std::string_view text) {
        report(fmt::format("{}: {}", source.name(), text));
      }};
  rereads_.emplace(
      loop_, sources_, [this] { return rereadConfiguration(); },
      [this](bool isUnderWay) { rereadIsUnderWay(isUnderWay); });
  for (auto const & text : options_.sources) {
    try {
      sources_.push_back(Sources::makeSource(text, surroundings));
    } catch (std::invalid_argument const & error) {
      throw ConfigurationError(fmt::format("--source {}: {}", text, error.what()));
    }
    sources_.back()->start();
  }
  done("sources started");
}

void Agent::startMachines() {
  std::array<Zel::Ptr<Zel::PtrInterface>, 4> const inputs{database_.lookup(mibPath),
                                                          database_.tunnelIntfStatusDir(),
                                                          database_.ifMib(), database_.ikeStatus()};
  Zel::attributeIs(*database_.lookup(rootPath), "tunnelIntfSnmpAgent", inputs);
  ready_ = false;
  done("machines made");
}

void Agent::noticeReady() {
  ready_ = isReady(machinesStatus(*database_.lookup(rootPath)));
  if (!ready_)
    return;
  done("ready");
  if (serviceManager_)
    serviceManager_->ready(servedAt_);
}

// Whether it was a machine that raised it, nobody knows here.
void Agent::noteShortage(std::exception const & what) {
  if (dynamic_cast<std::bad_alloc const *>(&what) != nullptr)
    hasMissedChanges_ = true;
}

void Agent::heal() {
  if (!std::exchange(hasMissedChanges_, false))
    return;
  restartMachines();
  machinesHealed.inc();
  report("memory was short; the machines have been started anew, in case they missed a change");
}

void Agent::startSnmp() {
  if (options_.isGuest)
    servedAt_ = "the program that it is a part of";
  else
    snmp_ = std::make_unique<SnmpEngine>(loop_, SnmpSettings{options_.configFile, options_.agentx});
  done("SNMP set up");
  plugin_->registerMibs();
  if (options_.iterator == Iterator::host)
    installHostIterator([this](void const * code) { return plugin_->contains(code); });
  done("modules registered");
}

void Agent::startControl() {
  if (options_.controlPath.empty())
    return;
  patches_ = std::make_unique<Patches>(document_);
  CommandHost const host{document_,
                         database_.lookup(mibPath),
                         *patches_,
                         *scheduler_,
                         [this] { return status(); },
                         [this] { return reread(); },
                         [this] { restartMachines(); },
                         [this] { return connections(); },
                         database_,
                         links_};
  auto const commands = std::make_shared<Commands>(host);
  control_ = std::make_unique<ControlSocket>(
      loop_, options_.controlPath,
      [commands](std::string_view request) { return commands->answer(request); });
  done("control socket made");
}

std::vector<std::string> Agent::rereadConfiguration() {
  try {
    if (snmp_)
      snmp_->reread();
    return {};
  } catch (std::exception const & error) {
    return {error.what()};
  }
}

void Agent::rereadIsUnderWay(bool isUnderWay) {
  if (serviceManager_)
    isUnderWay ? serviceManager_->reloading() : serviceManager_->reloaded();
}

// What goes wrong while everything is read again is told when that is over.
void Agent::sourceHasChanged(Sources::Source const & source) const {
  auto const status = source.status();
  if (status.state == Sources::SourceStatus::State::inSync)
    report(fmt::format("{}: in sync again", source.name()));
  else if (!rereads_->isUnderWay())
    report(fmt::format("{}: {}", source.name(), status.lastError));
}

// While a large source is read for the first time the tables agree with inputs that say little.
bool Agent::isReady(nlohmann::ordered_json const & machines) const {
  return allReady(machines) && std::ranges::none_of(sources_, [](auto const & source) {
           auto const status = source->status();
           return status.isReading && status.fullReads == 0;
         });
}

nlohmann::ordered_json Agent::status() const {
  using Json = nlohmann::ordered_json;
  auto machines = machinesStatus(*database_.lookup(rootPath));
  auto sources = Json::array();
  for (auto const & source : sources_)
    sources.push_back(sourceStatus(*source));
  Json out{{"ready", isReady(machines)},
           {"version", TUNNELSNMPD_VERSION},
           {"servedAt", servedAt_},
           {"enterprise", VELMORA_ENTERPRISE_NUMBER},
           {"configuration", options_.configFile},
           {"guest", options_.isGuest}};
  if (auto const * master = snmp_ ? snmp_->agentx() : nullptr)
    out["agentx"] = masterStatus(*master);
  out["machines"] = std::move(machines);
  out["tasks"] = tasksSummary(*scheduler_);
  out["sources"] = std::move(sources);
  out["failures"] = {{"notifiees", notifieeExceptions.count()},
                     {"tasks", taskExceptions.count()},
                     {"callbacks", Lumo::counter("agent-callback-exceptions")},
                     {"linesLost", errorStream().lost()},
                     {"linesHeldBack", Lumo::counter("agent-snmp-lines-held-back")},
                     {"last", lastFailure()}};
  return out;
}

std::vector<SourceConnections> Agent::connections() const {
  std::vector<SourceConnections> all;
  all.reserve(sources_.size());
  for (auto const & source : sources_)
    all.push_back({source->name(), source->connections()});
  return all;
}

} // namespace Agent
