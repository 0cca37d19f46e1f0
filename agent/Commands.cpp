// The table of commands, and what each of them does. A command is a function of the host and of
// its arguments; an exception becomes an error answer with its text.
#include "agent/Commands.h"
#include "agent/JsonText.h"
#include "agent/Status.h"
#include "agent/TraceHandles.h"
#include "agent/Tunnels.h"
#include "os/Text.h"
#include "platform/Lumo.h"
#include "json/Input.h"
#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Agent {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

namespace {

Lumo::Counter requestsRefused("agent-control-requests-refused");

Answer inOnePiece(std::string text) {
  return [text = std::move(text)](std::string & out) {
    out += text;
    return false;
  };
}

template <class AnyJson>
Answer okAnswer(AnyJson const & result) {
  return inOnePiece(R"({"ok":true,"result":)" + jsonText(result) + "}");
}

/// The argument of that name. Raises std::invalid_argument when it is missing.
Json const & argument(Json const & arguments, char const * name) {
  auto const found = arguments.find(name);
  if (found == arguments.end())
    throw std::invalid_argument(fmt::format("the argument \"{}\" is missing", name));
  return *found;
}

/// As argument(), for one that is large; it is not there any more then.
Json takeArgument(Json & arguments, char const * name) {
  argument(arguments, name);
  return std::move(arguments[name]);
}

std::string textArgument(Json const & arguments, char const * name) {
  auto const & value = argument(arguments, name);
  if (!value.is_string())
    throw std::invalid_argument(fmt::format("the argument \"{}\" is no text", name));
  return value.get<std::string>();
}

Answer showVersion(CommandHost const &, Json &) {
  return okAnswer(Json{{"version", TUNNELSNMPD_VERSION}});
}

Answer showStatus(CommandHost const & host, Json &) {
  return okAnswer(host.status());
}

/// An answer whose result the writer writes piece by piece.
template <class Writer, class... From>
Answer inPieces(From &&... from) {
  // Shared: an Answer can be copied, a walk under way cannot.
  auto const writer = std::make_shared<Writer>(std::forward<From>(from)...);
  return [writer, begun = false](std::string & out) mutable {
    if (!std::exchange(begun, true))
      out += R"({"ok":true,"result":)";
    if (writer->next(out))
      return true;
    out += '}';
    return false;
  };
}

Answer showTables(CommandHost const & host, Json &) {
  return inPieces<TablesWriter>(host.mib);
}

Answer showColumns(CommandHost const & host, Json &) {
  return okAnswer(tableColumns(*host.mib));
}

Answer showTunnels(CommandHost const & host, Json &) {
  return inPieces<TunnelsWriter>(host.database, host.links);
}

Answer showConnections(CommandHost const & host, Json &) {
  return inPieces<ConnectionsWriter>(host.connections());
}

Answer showTasks(CommandHost const & host, Json &) {
  return okAnswer(tasksStatus(host.scheduler));
}

Answer showState(CommandHost const & host, Json & arguments) {
  auto const pointer = arguments.contains("pointer") ? textArgument(arguments, "pointer") : "";
  return okAnswer(host.document.read(pointer));
}

Answer patch(CommandHost const & host, Json & arguments) {
  return [outcome = host.patches.begin(takeArgument(arguments, "patch"))](std::string & out) {
    if (!*outcome)
      return true;
    auto const & refusal = **outcome;
    return (refusal.empty() ? okAnswer(Json::object()) : errorAnswer(refusal))(out);
  };
}

Answer listTraces(CommandHost const &, Json &) {
  auto levels = OrderedJson::object();
  for (auto const & handler : Lumo::debugHandlers())
    levels[handler->name()] = Lumo::levelsText(handler->levelMask());
  return okAnswer(levels);
}

Answer setTrace(CommandHost const &, Json & arguments) {
  auto const unit = textArgument(arguments, "unit");
  auto const mask = Lumo::parseLevels(textArgument(arguments, "levels"));
  handleLevelsIs(unit, mask);
  return okAnswer(OrderedJson{{"unit", unit}, {"levels", Lumo::levelsText(mask)}});
}

Answer showCoverage(CommandHost const &, Json &) {
  auto counts = OrderedJson::object();
  for (auto const * counter : Lumo::counters())
    counts[counter->name()] = counter->count();
  return okAnswer(counts);
}

Answer reread(CommandHost const & host, Json &) {
  return [outcome = host.reread()](std::string & out) {
    if (!*outcome)
      return true;
    auto const & failures = **outcome;
    auto const answer = failures.empty()
                            ? okAnswer(Json::object())
                            : errorAnswer(fmt::format("{}", fmt::join(failures, "; ")));
    return answer(out);
  };
}

Answer restartMachines(CommandHost const & host, Json &) {
  host.restartMachines();
  return okAnswer(Json::object());
}

} // namespace

struct Commands::Command {
  std::string_view name;
  std::string_view arguments;
  std::string_view meaning;
  Answer (*execute)(CommandHost const & host, Json & arguments);
};

std::vector<Commands::Command> const & Commands::table() {
  static std::vector<Command> const table{
      {"list-commands", "", "what can be asked",
       [](CommandHost const &, Json &) {
         auto commands = OrderedJson::array();
         for (auto const & command : Commands::table())
           commands.push_back({{"name", command.name},
                               {"arguments", command.arguments},
                               {"meaning", command.meaning}});
         return okAnswer(commands);
       }},
      {"version", "", "the version of the daemon", showVersion},
      {"status", "", "readiness, scans, tasks, sources and failures", showStatus},
      {"tables/show", "", "the rows that are served", showTables},
      {"tables/columns", "", "the columns of each table, and what their numbers mean", showColumns},
      {"tunnels/show", "", "what is known of each tunnel", showTunnels},
      {"ike/show", "", "each IPsec connection, and which interface it protects", showConnections},
      {"tasks/show", "", "every task of the scheduler", showTasks},
      {"statedb/show", "pointer", "the input state below a JSON pointer", showState},
      {"patch", "patch", "changes the input state by a JSON Patch (RFC 6902)", patch},
      {"trace/list", "", "the trace levels of each handle", listTraces},
      {"trace/set", "unit levels", "sets the trace levels of a handle", setTrace},
      {"coverage/show", "", "the counts of rare events", showCoverage},
      {"reread", "", "reads sources and configuration again", reread},
      {"restart-machines", "", "starts the machines anew; stale rows go", restartMachines},
  };
  return table;
}

Answer Commands::answer(std::string_view request) {
  try {
    return execute(JsonInput::parse<Json>(request));
  } catch (JsonInput::Wrong const & wrong) {
    return errorAnswer(fmt::format("the request is no JSON that can be used: {}", wrong.what()));
  } catch (std::exception const & error) {
    return errorAnswer(error.what());
  }
}

Answer Commands::execute(Json request) {
  if (!request.is_object() || !request.contains("command") || !request["command"].is_string())
    throw std::invalid_argument(R"(give {"command": "...", "arguments": {...}})");
  auto const & name = request["command"].get_ref<std::string const &>();
  auto arguments = request.contains("arguments") ? std::move(request["arguments"]) : Json::object();
  if (!arguments.is_object())
    throw std::invalid_argument("\"arguments\" is no object");
  auto const found =
      std::ranges::find_if(table(), [&](Command const & command) { return command.name == name; });
  if (found == table().end())
    throw std::invalid_argument(fmt::format("no command \"{}\"; ask for list-commands", name));
  return found->execute(host_, arguments);
}

Answer errorAnswer(std::string_view error) {
  requestsRefused.inc();
  return inOnePiece(jsonText(OrderedJson{{"ok", false}, {"error", Os::oneLine(error)}}));
}

} // namespace Agent
