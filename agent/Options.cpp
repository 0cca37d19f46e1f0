// The options as CLI11 knows them, their help, and what is checked beyond their form. What can only
// be known later, such as whether a trace handle exists, Agent.cpp checks.
#include "agent/Options.h"
#include "os/CommandLine.h"
#include "platform/Lumo.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace Agent {

namespace {

constexpr char const * defaultAgentxSocket = "/var/agentx/master";

constexpr char const * explanations = R"(Sources:
  json:FILE                 what a regular file of at most 256 MiB says
  linux[:OPTIONS]           the tunnel links of this machine; OPTIONS, with commas between them:
                              kinds=+KIND,-KIND,...  more or fewer kinds of link
                              ipsec=states           IPsec connections by the kernel's security
                                                     associations, whichever IKE daemon made them
  vici[:SOCKET][,bind=CONNECTION[/CHILD]@INTERFACE]...
                            the connections of strongSwan at SOCKET (/run/charon.vici), and which
                            interface they protect where neither links nor selectors tell it

Examples:
  Serve the tunnels of this machine on loopback, to community "public":
    tunnelsnmpd --source linux
  The same, and whether strongSwan has them up, one of them named by its connection:
    tunnelsnmpd --source linux --source vici:bind=headquarters@ipsec0
  The same with any other IKE daemon, or keys set by hand:
    tunnelsnmpd --source linux:ipsec=states
  Serve what a file says, on a free port, with the control socket beside it:
    tunnelsnmpd --listen udp:127.0.0.1:0 --source json:office.json --control ./ctl.sock
  Join a running snmpd (which needs "master agentx" in its configuration):
    tunnelsnmpd --agentx --source linux
  Own access rules, and a look at what the interface table's machine does:
    tunnelsnmpd --config tunnelsnmpd.conf --source linux --trace TunnelIfTableSm=6-9

Signals: HUP reads the sources and the configuration again; TERM, INT and QUIT end the daemon, USR1
and USR2 do nothing.
Exit status: 0 ended by a signal, 1 failed while running or starting, 2 wrong command line or
configuration. See also: tunnelsnmpctl --help
)";

struct Parser {
  CLI::App app{"SNMP agent for the tunnel interfaces: tunnelIfTable, tunnelInetConfigTable and the "
               "IPsec tunnel table, read-only.",
               "tunnelsnmpd"};
  Options options;
  std::string agentxSocket;
  std::string iterator = "host";
  std::vector<std::string> traceTexts;

  explicit Parser(std::string const & defaultPlugin) {
    options.pluginFile = defaultPlugin;
    app.footer(explanations);
    app.set_version_flag("--version", TUNNELSNMPD_VERSION);
    addTransport();
    app.add_option(
           "--source", options.sources,
           "Where the tunnels, and what protects them, come from: one of the sources below. May be "
           "given several times, linux once; without any, the state is what \"tunnelsnmpctl "
           "patch\" makes it")
        ->type_name("SOURCE")
        ->allow_extra_args(false);
    app.add_option("--config", options.configFile,
                   "Access rules as snmpd.conf has them (rocommunity, createUser, rouser, view). "
                   "Without it: rocommunity public 127.0.0.1")
        ->type_name("FILE");
    app.add_option("--trace", traceTexts,
                   "Trace levels of a handle, for example Snmp=2 or TunnelIfTableSm=6-9; the lines "
                   "go to the standard error stream. May be given several times")
        ->type_name("HANDLE=LEVELS")
        ->allow_extra_args(false);
    app.add_option("--control", options.controlPath, "Socket for tunnelsnmpctl")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--plugin", options.pluginFile, "The library to load")
        ->type_name("FILE")
        ->capture_default_str();
    addIterator();
  }

  void addIterator() {
    app.add_option(
           "--iterator", iterator,
           "What finds the rows: \"host\", the daemon's own iterator, or \"stock\", that of "
           "net-snmp. Both answer alike; stock costs several times as much, and is for "
           "comparing them, or for a plug-in whose rows are not in the order of their indexes")
        ->type_name("NAME")
        ->check(CLI::IsMember({"host", "stock"}).description(""))
        ->capture_default_str();
  }

  void addTransport() {
    auto * const listen = app.add_option("--listen", options.listen,
                                         "Where to serve SNMP, as net-snmp writes addresses; port "
                                         "0 takes a free one")
                              ->type_name("ADDRESS")
                              ->capture_default_str();
    app.add_option("--agentx", agentxSocket,
                   fmt::format("Serve through the AgentX master at SOCKET (default {}), a path or "
                               "tcp:HOST:PORT with a numeric address, instead of listening",
                               defaultAgentxSocket))
        ->type_name("[SOCKET]")
        ->expected(0, 1)
        ->excludes(listen);
  }
};

TraceOption parseTrace(std::string const & text) {
  auto const equals = text.find('=');
  if (equals == 0 || equals == std::string::npos)
    throw std::invalid_argument(
        fmt::format("--trace {}: give HANDLE=LEVELS, for example TunnelIfTableSm=6-9", text));
  try {
    return {text.substr(0, equals), Lumo::parseLevels(text.substr(equals + 1))};
  } catch (std::invalid_argument const & reason) {
    throw std::invalid_argument(fmt::format("--trace {}: {}", text, reason.what()));
  }
}

Options finish(Parser & parser) {
  auto & options = parser.options;
  if (parser.app.count("--agentx") != 0)
    options.agentx = parser.agentxSocket.empty() ? defaultAgentxSocket : parser.agentxSocket;
  options.iterator = parser.iterator == "host" ? Iterator::host : Iterator::stock;
  for (auto const & text : parser.traceTexts)
    options.traces.push_back(parseTrace(text));
  return options;
}

ParsedOptions usageError(std::string const & reason) {
  return {std::nullopt, fmt::format("tunnelsnmpd: {}; see tunnelsnmpd --help\n", reason), 2};
}

} // namespace

ParsedOptions parseOptions(std::vector<std::string> arguments, std::string const & defaultPlugin) {
  Parser parser(defaultPlugin);
  try {
    Os::requireValues(parser.app, arguments);
    std::ranges::reverse(arguments); // CLI11 takes them last first
    parser.app.parse(std::move(arguments));
    return {finish(parser), "", 0};
  } catch (CLI::CallForHelp const &) {
    return {std::nullopt, parser.app.help(), 0};
  } catch (CLI::CallForVersion const &) {
    return {std::nullopt, fmt::format("tunnelsnmpd {}\n", TUNNELSNMPD_VERSION), 0};
  } catch (CLI::ParseError const & error) {
    return usageError(error.what());
  } catch (std::invalid_argument const & error) {
    return usageError(error.what());
  }
}

} // namespace Agent
