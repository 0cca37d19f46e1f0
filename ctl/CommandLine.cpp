// The commands and options as CLI11 knows them, and what is said where it would say too little.
#include "ctl/CommandLine.h"
#include "ctl/doctor/Doctor.h"
#include "os/CommandLine.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <string_view>
#include <utility>

namespace Ctl {

namespace {

using Action = void (*)(Arguments const &);

constexpr char const * examples = R"(Examples:
  tunnelsnmpctl status                       is it ready, and how are its sources?
  tunnelsnmpctl wait-ready --timeout 10      for scripts: 0 when ready, 1 when not in time
  tunnelsnmpctl doctor                       why does my manager show nothing?
  tunnelsnmpctl show tunnels                 one line a tunnel, and why it has no row in a table
  tunnelsnmpctl watch                        the same, and then each change
  tunnelsnmpctl show tables                  the rows that managers see
  tunnelsnmpctl show state /ifMib            a part of the input state, as JSON
  tunnelsnmpctl show ike                     which IPsec connection protects which interface?
  tunnelsnmpctl trace set Snmp=2             request traces on; "none" turns them off
  echo '[{"op":"add","path":"/ifMib/ifIndexByIntfId/7","value":12}]' | tunnelsnmpctl patch -

Exit status: 0 done, 1 refused, not ready or not in time, 2 wrong usage or no daemon there that
answers, 3 the answer could not be written to the standard output (it was carried out). Of doctor: 0
all is right, 1 something is to be done, 2 it cannot be told.
)";

/// A number of seconds; "nan" is none, and neither is what overflows.
std::string whyNoTimeout(std::string const & text) {
  double seconds = 0;
  auto const isOne =
      CLI::detail::lexical_cast(text, seconds) && seconds >= 0 && seconds <= longestTimeoutSeconds;
  return isOne ? "" : fmt::format("give 0 to {:.0f} seconds", longestTimeoutSeconds);
}

/// The same for the time between two looks.
std::string whyNoInterval(std::string const & text) {
  double seconds = 0;
  auto const isOne = CLI::detail::lexical_cast(text, seconds) &&
                     seconds >= shortestIntervalSeconds && seconds <= longestTimeoutSeconds;
  return isOne ? ""
               : fmt::format("give {:g} to {:.0f} seconds", shortestIntervalSeconds,
                             longestTimeoutSeconds);
}

class Parser {
public:
  Parser() {
    app_.footer(examples);
    app_.fallthrough();
    app_.require_subcommand(1);
    app_.add_option("--control", arguments_.control, "The daemon's control socket")
        ->type_name("PATH")
        ->capture_default_str();
    app_.add_flag("--json", arguments_.json, "Answer in JSON, for programs");
    addShow();
    addTrace();
    add(app_, "status", "Readiness, scans, sources, tasks and failures", status);
    addDoctor();
    add(app_, "patch", "Change the input state by a JSON Patch (RFC 6902)", patch)
        ->add_option("FILE", arguments_.patchFile, "The patch; - reads the standard input")
        ->required();
    add(app_, "reread", "Have the daemon read its sources and configuration again", reread);
    add(app_, "restart-machines", "Rebuild the tables from the input state; stale rows go",
        restartMachines);
    add(app_, "wait-ready", "Wait until every table agrees with its inputs", waitReady)
        ->add_option("--timeout", arguments_.timeoutSeconds, "How long to wait")
        ->type_name("SECONDS")
        ->check(CLI::Validator(whyNoTimeout, ""))
        ->capture_default_str();
    add(app_, "watch", "Show the tunnels, and then each change, until it is ended", watch)
        ->add_option("--interval", arguments_.intervalSeconds, "How long until the next look")
        ->type_name("SECONDS")
        ->check(CLI::Validator(whyNoInterval, ""))
        ->capture_default_str();
    add(app_, "version", "The versions of this program and of the daemon", showVersion);
  }
  Parser(Parser const &) = delete;
  Parser & operator=(Parser const &) = delete;

  CLI::App & app() { return app_; }
  Action action() const { return action_; }
  Arguments const & arguments() const { return arguments_; }

private:
  CLI::App * add(CLI::App & parent, char const * name, char const * meaning, Action chosen) {
    auto * const command = parent.add_subcommand(name, meaning);
    command->callback([this, chosen] { action_ = chosen; });
    return command;
  }

  void addShow() {
    auto * const show = app_.add_subcommand("show", "Show what the daemon holds");
    show->require_subcommand(1);
    add(*show, "tables", "The rows of the tables that are served", showTables);
    add(*show, "tunnels",
        "One line a tunnel: its interface, addresses, IPsec state, and why it has no row in a "
        "table",
        showTunnels);
    add(*show, "state", "The input state", showState)
        ->add_option("POINTER", arguments_.pointer, "A JSON pointer, for example /ifMib");
    add(*show, "ike", "Each IPsec connection: its state, which interface it protects, and why",
        showIke);
    add(*show, "tasks", "The scheduler's tasks", showTasks);
    add(*show, "counters", "The counts of rare events", showCounters);
  }

  void addDoctor() {
    auto * const command = add(
        app_, "doctor", "Why does my manager show nothing? What is right, and what to do", doctor);
    command
        ->add_option("--snmpd-config", arguments_.snmpdConfig,
                     "The configuration of the master, snmpd")
        ->type_name("FILE")
        ->capture_default_str();
    command
        ->add_option(
            "--address", arguments_.address,
            "Where to ask as a manager does, as net-snmp writes addresses; without it as the "
            "configuration says")
        ->type_name("ADDRESS");
    command->add_option("SNMP-ARGUMENT", arguments_.snmpArguments,
                        "Behind --, as snmpget takes them before the host: -- -v2c -c COMMUNITY. "
                        "Without any, a community of the configuration, or public");
  }

  void addTrace() {
    auto * const trace = app_.add_subcommand("trace", "Look at and change the trace levels");
    trace->require_subcommand(1);
    add(*trace, "list", "Each handle with its levels", listTraces);
    add(*trace, "set", "Set the levels of one handle", setTrace)
        ->add_option("HANDLE=LEVELS", arguments_.trace, "For example TunnelIfTableSm=6-9")
        ->required();
  }

  Arguments arguments_;
  CLI::App app_{"Asks a running tunnelsnmpd through its control socket.", "tunnelsnmpctl"};
  Action action_ = nullptr;
};

ParsedLine usageError(std::string const & reason) {
  return {.text = fmt::format("tunnelsnmpctl: {}; see tunnelsnmpctl --help\n", reason),
          .exitStatus = unusable};
}

std::string whatIsWrong(CLI::App const & app, CLI::ParseError const & error);

} // namespace

ParsedLine parseCommandLine(std::vector<std::string> arguments) {
  Parser parser;
  try {
    Os::requireValues(parser.app(), arguments);
    std::ranges::reverse(arguments); // CLI11 takes them last first
    parser.app().parse(std::move(arguments));
    return {.action = parser.action(), .arguments = parser.arguments()};
  } catch (CLI::Success const &) { // help was asked for
    return {.text = parser.app().help()};
  } catch (CLI::ValidationError const & error) {
    return usageError(error.what());
  } catch (CLI::ParseError const & error) {
    return usageError(whatIsWrong(parser.app(), error));
  }
}

namespace {

std::vector<CLI::App const *> commandsOf(CLI::App const & app) {
  return app.get_subcommands([](CLI::App const *) { return true; });
}

/// The names of all commands, those below a command behind its name: "show tables".
std::vector<std::string> commandNames(CLI::App const & app, std::string const & before = "") {
  std::vector<std::string> names;
  for (auto const * command : commandsOf(app)) {
    auto const name = before + command->get_name();
    auto const below = commandNames(*command, name + " ");
    if (below.empty())
      names.push_back(name);
    names.insert(names.end(), below.begin(), below.end());
  }
  return names;
}

/// How many characters are to be put, left out or replaced to make one of the other (Levenshtein).
std::size_t distance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i != one.size(); ++i) {
    auto diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j != other.size(); ++j)
      diagonal = std::exchange(row[j + 1], std::min({diagonal + (one[i] == other[j] ? 0 : 1),
                                                     row[j] + 1, row[j + 1] + 1}));
  }
  return row.back();
}

/// From what was written to a command, by its whole name or the last word of it.
std::size_t distanceToCommand(std::string_view written, std::string_view command) {
  auto const lastWord = command.substr(command.rfind(' ') + 1);
  return std::min(distance(written, command), distance(written, lastWord));
}

/// What was probably meant: no more than half of it is written differently. Of two that are as near
/// it is the one of the same length, since letters are swapped more often than forgotten.
std::string suggestion(std::string const & written, std::vector<std::string> const & commands) {
  auto const nearness = [&](std::string const & command) {
    auto const [shorter, longer] = std::minmax({written.size(), command.size()});
    return std::pair(distanceToCommand(written, command), longer - shorter);
  };
  auto const nearest = std::ranges::min_element(commands, {}, nearness);
  return 2 * nearness(*nearest).first <= written.size()
             ? fmt::format(" (did you mean \"{}\"?)", *nearest)
             : "";
}

// Where a command is missing, CLI11 says only that. The words that it could not place are behind
// those that it could.
std::string whatIsWrong(CLI::App const & app, CLI::ParseError const & error) {
  auto const * last = &app;
  std::string written;
  while (!last->get_subcommands().empty()) {
    last = last->get_subcommands().front();
    written += last->get_name() + " ";
  }
  if (commandsOf(*last).empty())
    return error.what();
  auto const commands = commandNames(app);
  auto const there = fmt::format("the commands are {}", fmt::join(commands, ", "));
  auto const words = app.remaining(true);
  if (words.empty())
    return fmt::format("give a command; {}", there);
  if (words.front().starts_with('-'))
    return fmt::format("there is no option {} before a command; {}", words.front(), there);
  written += words.front();
  return fmt::format("\"{}\" is no command{}; {}", written, suggestion(written, commands), there);
}

} // namespace
} // namespace Ctl
