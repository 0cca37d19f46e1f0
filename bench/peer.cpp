// An agent that serves one table of tunnels without the plug-in: the daemon's own engine and loop
// around one of Peers.h. Ends on SIGTERM.
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
};

void serve(Arguments const & arguments) {
  auto const & table = Bench::table(arguments.table);
  if (arguments.mode == "container")
    Bench::serveFromContainer(table, arguments.rows);
  else if (arguments.mode == "tdata")
    Bench::serveFromTdata(table, arguments.rows);
  else
    Bench::serveByArithmetic(table, arguments.rows, arguments.mode == "arithmetic-bulk");
}

void run(Arguments const & arguments) {
  Agent::EventLoop loop;
  auto const onTerm = loop.signal(SIGTERM, [&] { loop.stop(); });
  Agent::SnmpEngine engine(loop, {});
  serve(arguments);
  fmt::print("peer: listening on {}\n", engine.listen("udp:127.0.0.1:0"));
  std::fflush(stdout);
  loop.run([] { return false; });
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
      ->check(CLI::IsMember({"arithmetic", "arithmetic-bulk", "container", "tdata"}));
  CLI11_PARSE(app, argc, argv);
  try {
    run(arguments);
    return 0;
  } catch (std::exception const & error) {
    fmt::print(stderr, "peer: {}\n", error.what());
    return 1;
  }
}
