// tunnelsnmpctl: asks a running tunnelsnmpd through its control socket.
#include "ctl/Client.h"
#include "ctl/Render.h"
#include "json/Input.h"
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

namespace {

using Json = nlohmann::ordered_json;

constexpr int refused = 1;
constexpr int unusable = 2;

constexpr char const * examples = R"(Examples:
  tunnelsnmpctl status                       is it ready, and how are its sources?
  tunnelsnmpctl wait-ready --timeout 10      for scripts: 0 when ready, 1 when not in time
  tunnelsnmpctl show tables                  the rows that managers see
  tunnelsnmpctl show state /ifMib            a part of the input state, as JSON
  tunnelsnmpctl trace set Snmp=2             request traces on; "none" turns them off
  echo '[{"op":"add","path":"/ifMib/ifIndexByIntfId/7","value":12}]' | tunnelsnmpctl patch -

Exit status: 0 done, 1 refused, not ready or not in time, 2 wrong usage or no daemon there.
)";

struct Arguments {
  std::string control = "/run/tunnelsnmpd.sock";
  bool json = false;
  std::string pointer;
  std::string patchFile;
  std::string trace;
  double timeoutSeconds = 30;
};

class UsageError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

template <class AnyJson>
void print(Arguments const & arguments, AnyJson const & result, std::string const & text) {
  auto const shown = arguments.json ? result.dump() + '\n' : text;
  fmt::print("{}", shown);
}

template <class AnyJson = Json>
AnyJson ask(Arguments const & arguments, std::string const & command,
            nlohmann::json const & with = nlohmann::json::object()) {
  return Ctl::Client(arguments.control).request<AnyJson>(command, with);
}

void status(Arguments const & arguments) {
  auto const result = ask(arguments, "status");
  print(arguments, result, Ctl::statusText(result));
}

void showTables(Arguments const & arguments) {
  auto const result = ask(arguments, "tables/show");
  print(arguments, result, Ctl::tablesText(result));
}

void showState(Arguments const & arguments) {
  auto const result =
      ask<nlohmann::json>(arguments, "statedb/show", {{"pointer", arguments.pointer}});
  print(arguments, result, result.dump(2) + '\n');
}

void showTasks(Arguments const & arguments) {
  auto const result = ask(arguments, "tasks/show");
  print(arguments, result, result.empty() ? "no tasks\n" : Ctl::tableText(result));
}

void showCounters(Arguments const & arguments) {
  auto const result = ask(arguments, "coverage/show");
  print(arguments, result, Ctl::pairsText(result));
}

std::string readAll(std::string const & file) {
  if (file == "-")
    return {std::istreambuf_iterator<char>(std::cin), {}};
  std::ifstream in(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(in), {}};
  if (!in)
    throw UsageError(fmt::format("cannot read {}", file));
  return text;
}

void patch(Arguments const & arguments) {
  nlohmann::json patch;
  try {
    patch = JsonInput::parse<nlohmann::json>(readAll(arguments.patchFile));
  } catch (JsonInput::Wrong const & wrong) {
    throw UsageError(fmt::format("{} is no JSON: {}", arguments.patchFile, wrong.what()));
  }
  auto const result = ask(arguments, "patch", {{"patch", patch}});
  print(arguments, result, "");
}

void listTraces(Arguments const & arguments) {
  auto const result = ask(arguments, "trace/list");
  print(arguments, result, Ctl::pairsText(result));
}

void setTrace(Arguments const & arguments) {
  auto const equals = arguments.trace.find('=');
  if (equals == 0 || equals == std::string::npos)
    throw UsageError("give HANDLE=LEVELS, for example TunnelIfTableSm=6-9");
  auto const result = ask(arguments, "trace/set",
                          {{"unit", arguments.trace.substr(0, equals)},
                           {"levels", arguments.trace.substr(equals + 1)}});
  print(arguments, result, "");
}

void reread(Arguments const & arguments) {
  print(arguments, ask(arguments, "reread"), "");
}

void restartMachines(Arguments const & arguments) {
  print(arguments, ask(arguments, "restart-machines"), "");
}

void showVersion(Arguments const & arguments) {
  auto const result = ask(arguments, "version");
  print(arguments, result,
        fmt::format("tunnelsnmpctl {}\ntunnelsnmpd {}\n", TUNNELSNMPCTL_VERSION,
                    result.value("version", "")));
}

// A daemon that is not there yet may still be starting: only the end of the time decides.
void waitReady(Arguments const & arguments) {
  using Clock = std::chrono::steady_clock;
  auto const end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(arguments.timeoutSeconds));
  for (;;) {
    auto const last = Clock::now() >= end;
    try {
      auto const result = ask(arguments, "status");
      if (result.value("ready", false))
        return print(arguments, result, "");
      if (last)
        throw Ctl::Refused(fmt::format("not ready after {} s; see tunnelsnmpctl status",
                                       arguments.timeoutSeconds));
    } catch (Ctl::Unreachable const &) {
      if (last)
        throw;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

using Action = void (*)(Arguments const &);

/// The command line; `action` is what the chosen command does.
class CommandLine {
public:
  explicit CommandLine(Arguments & arguments) {
    app_.footer(examples);
    app_.fallthrough();
    app_.require_subcommand(1);
    app_.add_option("--control", arguments.control, "The daemon's control socket")
        ->type_name("PATH")
        ->capture_default_str();
    app_.add_flag("--json", arguments.json, "Answer in JSON, for programs");
    addShow(arguments);
    addTrace(arguments);
    add(app_, "status", "Readiness, scans, sources, tasks and failures", status);
    add(app_, "patch", "Change the input state by a JSON Patch (RFC 6902)", patch)
        ->add_option("FILE", arguments.patchFile, "The patch; - reads the standard input")
        ->required();
    add(app_, "reread", "Have the daemon read its sources and configuration again", reread);
    add(app_, "restart-machines", "Rebuild the tables from the input state; stale rows go",
        restartMachines);
    add(app_, "wait-ready", "Wait until every table agrees with its inputs", waitReady)
        ->add_option("--timeout", arguments.timeoutSeconds, "How long to wait")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    add(app_, "version", "The versions of this program and of the daemon", showVersion);
  }

  CLI::App & app() { return app_; }
  Action action() const { return action_; }

private:
  CLI::App * add(CLI::App & parent, char const * name, char const * meaning, Action chosen) {
    auto * const command = parent.add_subcommand(name, meaning);
    command->callback([this, chosen] { action_ = chosen; });
    return command;
  }

  void addShow(Arguments & arguments) {
    auto * const show = app_.add_subcommand("show", "Show what the daemon holds");
    show->require_subcommand(1);
    add(*show, "tables", "The rows of the tables that are served", showTables);
    add(*show, "state", "The input state", showState)
        ->add_option("POINTER", arguments.pointer, "A JSON pointer, for example /ifMib");
    add(*show, "tasks", "The scheduler's tasks", showTasks);
    add(*show, "counters", "The counts of rare events", showCounters);
  }

  void addTrace(Arguments & arguments) {
    auto * const trace = app_.add_subcommand("trace", "Look at and change the trace levels");
    trace->require_subcommand(1);
    add(*trace, "list", "Each handle with its levels", listTraces);
    add(*trace, "set", "Set the levels of one handle", setTrace)
        ->add_option("HANDLE=LEVELS", arguments.trace, "For example TunnelIfTableSm=6-9")
        ->required();
  }

  CLI::App app_{"Asks a running tunnelsnmpd through its control socket.", "tunnelsnmpctl"};
  Action action_ = nullptr;
};

int complain(int exitStatus, std::string_view what) {
  fmt::print(stderr, "tunnelsnmpctl: {}\n", what);
  return exitStatus;
}

} // namespace

int main(int argc, char ** argv) {
  Arguments arguments;
  CommandLine line(arguments);
  try {
    line.app().parse(argc, argv);
    line.action()(arguments);
    return 0;
  } catch (CLI::Success const &) { // help was asked for
    fmt::print("{}", line.app().help());
    return 0;
  } catch (CLI::ParseError const & error) {
    return complain(unusable, fmt::format("{}; see tunnelsnmpctl --help", error.what()));
  } catch (UsageError const & error) {
    return complain(unusable, error.what());
  } catch (Ctl::Unreachable const & error) {
    return complain(unusable, error.what());
  } catch (Ctl::Refused const & error) {
    return complain(refused, error.what());
  } catch (nlohmann::json::exception const & error) {
    return complain(refused, fmt::format("the daemon's answer is not understood: {}; are both of "
                                         "the same version?",
                                         error.what()));
  }
}
