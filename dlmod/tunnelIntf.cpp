// The module that snmpd loads: the plug-in, the state database and the sources in snmpd's process,
// on its loop, for the managers that snmpd answers.
//
// Nothing is started while snmpd loads it: at that time snmpd may still be root, reads its
// configuration, and is about to become another process. The first turn of its loop starts what the
// daemon starts (docs/startup.md), but for net-snmp itself. What fails is said in snmpd's log, and
// snmpd goes on without our tables.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "agent/Agent.h"
#include "agent/Report.h"
#include "dlmod/GuestLoop.h"
#include "dlmod/Settings.h"
#include <algorithm>
#include <array>
#include <dlfcn.h>
#include <filesystem>
#include <optional>
#include <span>

extern "C" {
[[gnu::visibility("default")]] void init_tunnelIntf();
[[gnu::visibility("default")]] void deinit_tunnelIntf();
}

namespace Dlmod {

namespace {

class Module {
public:
  Module() : loop_([this] { return work(); }) {}

private:
  bool work();
  void start();

  SettingsReader const reader_;
  bool isTried_ = false;
  GuestLoop loop_;
  std::optional<Agent::Agent> agent_; // last: it ends before what it works on
};

std::optional<Module> module;

void log(std::string_view text) noexcept;
void requireFree();
std::string pluginFile();
std::string inWordsOfSnmpd(std::string text);

bool Module::work() {
  if (!std::exchange(isTried_, true))
    start();
  return agent_ && agent_->work();
}

void Module::start() {
  try {
    auto settings = reader_.settings();
    if (settings.sources.empty() && settings.controlPath.empty())
      Agent::report("no source: say tunnelIntfSource linux, or another one, below the line \"dlmod "
                    "tunnelIntf\"");
    requireFree();
    Agent::Options options;
    options.isGuest = true;
    options.sources = std::move(settings.sources);
    options.controlPath = std::move(settings.controlPath);
    options.pluginFile = pluginFile();
    agent_.emplace(std::move(options), loop_.loop());
  } catch (std::exception const & error) {
    Agent::report(inWordsOfSnmpd(error.what()) +
                  " (no tunnel is served; when that is mended, send snmpd HUP)");
  }
}

// As a warning: Debian's snmpd keeps nothing less.
void log(std::string_view text) noexcept {
  snmp_log(LOG_WARNING, "%.*s\n", static_cast<int>(text.size()), text.data());
}

constexpr std::array<oid, 8> tunnelMib{1, 3, 6, 1, 2, 1, 10, 131};
constexpr std::array<oid, 9> vendorMib{1, 3, 6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 3, 34};

bool isWithin(netsnmp_subtree const & subtree, std::span<oid const> root) {
  return subtree.reginfo != nullptr && subtree.reginfo->rootoid_len >= root.size() &&
         std::equal(root.begin(), root.end(), subtree.reginfo->rootoid);
}

/// The plug-in takes a second registration of its tables for a fault of its own, and ends the
/// process; here it may be a subagent's.
void requireFree() {
  auto const * const context = netsnmp_subtree_find_first("");
  for (auto const * one = context; one != nullptr; one = one->next)
    for (auto const root : {std::span<oid const>(tunnelMib), std::span<oid const>(vendorMib)})
      if (isWithin(*one, root))
        throw std::runtime_error(fmt::format(
            "{} is served by somebody else ({}): a subagent such as tunnelsnmpd, or another "
            "module; end it, or leave out this one",
            fmt::join(std::span(one->reginfo->rootoid, one->reginfo->rootoid_len), "."),
            one->reginfo->handlerName == nullptr ? "without a name" : one->reginfo->handlerName));
}

/// Beside the module, where it is installed and where it is built.
std::string pluginFile() {
  Dl_info information{};
  if (dladdr(reinterpret_cast<void const *>(&init_tunnelIntf), &information) == 0)
    throw std::runtime_error("cannot find the folder of the module");
  auto const folder = std::filesystem::absolute(information.dli_fname).parent_path();
  return (folder / "libTunnelIntfSnmp.so").string();
}

/// The options of the daemon's command line, which the texts of errors name, as the lines that say
/// the same here.
std::string inWordsOfSnmpd(std::string text) {
  using Words = std::pair<std::string_view, std::string_view>;
  constexpr std::array words{
      Words{"--source", "tunnelIntfSource"}, Words{"--control", "tunnelIntfControl"},
      Words{"name the file with --plugin", "its place is beside the module"}};
  for (auto const & [option, line] : words)
    for (auto at = text.find(option); at != std::string::npos; at = text.find(option))
      text.replace(at, option.size(), line);
  return text;
}

} // namespace

} // namespace Dlmod

void init_tunnelIntf() {
  Agent::voiceIs({"tunnelIntf", &Dlmod::log});
  try {
    Dlmod::module.emplace();
  } catch (std::exception const & error) {
    Agent::report(error.what());
  }
}

void deinit_tunnelIntf() {
  Dlmod::module.reset();
}
