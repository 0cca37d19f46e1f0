// An agent that serves one table of tunnels without the plug-in: one of Peers.h, stand-alone in the
// daemon's own engine and loop, or as a subagent in net-snmp's, as its manual tells to. Ends on
// SIGTERM.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "agent/EventLoop.h"
#include "agent/SnmpEngine.h"
#include "bench/Peers.h"
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <fmt/format.h>

namespace {

struct Arguments {
  std::string table;
  std::uint32_t rows = 0;
  std::string mode;
  std::string master;
};

void serve(Arguments const & arguments) {
  auto const & table = Bench::table(arguments.table);
  if (arguments.mode == "container")
    Bench::serveFromContainer(table, arguments.rows);
  else if (arguments.mode == "iterator")
    Bench::serveFromIterator(table, arguments.rows);
  else if (arguments.mode == "tdata")
    Bench::serveFromTdata(table, arguments.rows);
  else
    Bench::serveByArithmetic(table, arguments.rows, arguments.mode == "arithmetic-bulk");
}

void runAlone(Arguments const & arguments) {
  Agent::EventLoop loop;
  auto const onTerm = loop.signal(SIGTERM, [&] { loop.stop(); });
  Agent::SnmpEngine engine(loop, {});
  serve(arguments);
  fmt::print("peer: listening on {}\n", engine.listen("udp:127.0.0.1:0"));
  std::fflush(stdout);
  loop.run([] { return false; });
}

std::sig_atomic_t volatile stopped = 0;

void runAsSubagent(Arguments const & arguments) {
  std::signal(SIGTERM, [](int) { stopped = 1; });
  for (auto const flag : {NETSNMP_DS_LIB_DONT_READ_CONFIGS, NETSNMP_DS_LIB_DONT_PERSIST_STATE})
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, flag, 1);
  setenv("MIBS", "", 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET,
                        arguments.master.c_str());
  init_agent("peer");
  init_snmp("peer");
  serve(arguments);
  fmt::print("peer: listening on agentx:{}\n", arguments.master);
  std::fflush(stdout);
  while (stopped == 0)
    agent_check_and_process(1);
  snmp_shutdown("peer");
}

void run(Arguments const & arguments) {
  if (arguments.master.empty())
    runAlone(arguments);
  else
    runAsSubagent(arguments);
}

} // namespace

int main(int argc, char ** argv) {
  Arguments arguments;
  CLI::App app("Serves a table of tunnels with net-snmp alone, to be measured against.", "peer");
  app.add_option("--table", arguments.table, "Which table")
      ->required()
      ->check(CLI::IsMember({"if", "inet", "ipsec"}));
  app.add_option("--rows", arguments.rows, "How many tunnels")
      ->required()
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--mode", arguments.mode, "How a row is found")
      ->required()
      ->check(CLI::IsMember({"arithmetic", "arithmetic-bulk", "container", "iterator", "tdata"}));
  app.add_option("--agentx", arguments.master,
                 "The socket of a master; else it listens for itself");
  CLI11_PARSE(app, argc, argv);
  try {
    run(arguments);
    return 0;
  } catch (std::exception const & error) {
    fmt::print(stderr, "peer: {}\n", error.what());
    return 1;
  }
}
