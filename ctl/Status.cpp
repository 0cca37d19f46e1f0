// One section for each member of the answer, in the order in which an operator asks: is it ready,
// who is served, where do the tunnels come from, what is going on inside.
#include "ctl/Status.h"
#include "ctl/Render.h"
#include <array>
#include <ctime>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Ctl {

using Json = nlohmann::ordered_json;

namespace {

using Pairs = std::vector<std::pair<std::string, Cell>>;

std::string section(std::string_view title, std::string const & text, bool hasColours) {
  return text.empty() ? ""
                      : fmt::format("\n{}\n{}",
                                    coloured(std::string(title), Tone::heading, hasColours), text);
}

std::string masterText(Json const & master, std::chrono::system_clock::time_point now) {
  if (master.empty())
    return "";
  Pairs pairs{{"address", {master.value("address", "")}}};
  auto const since = master.value("since", "");
  auto const state = master.value("state", "");
  pairs.emplace_back(
      "state", Cell{since.empty() ? state : fmt::format("{} for {}", state, ageText(since, now))});
  if (master.contains("session"))
    pairs.emplace_back("session", Cell{fmt::format("number {}", master["session"].dump())});
  if (auto const opened = master.value("sessions", 0U); opened != 0)
    pairs.emplace_back("opened", Cell{opened == 1 ? "once" : fmt::format("{} times", opened)});
  if (auto const error = master.value("lastError", ""); !error.empty())
    pairs.emplace_back("last error", Cell{error});
  return layOutPairs(pairs);
}

/// Only what is there to be told: no context where none is used.
Json registrationRows(Json const & registrations) {
  auto rows = Json::array();
  for (auto const & one : registrations) {
    Json row{{"registered OID", one.value("oid", "")}};
    if (auto const context = one.value("context", ""); !context.empty())
      row["context"] = context;
    row["state"] = one.value("state", "");
    row["reason"] = words(one.value("reason", ""));
    rows.push_back(std::move(row));
  }
  return rows;
}

std::string machineState(Json const & machine) {
  if (machine.value("reconciling", false))
    return "removes rows that nothing produced";
  if (machine.value("ready", false))
    return "ready";
  return machine.value("initialScanDone", false) ? "second pass" : "first pass";
}

Json machineRows(Json const & machines) {
  auto rows = Json::array();
  for (auto const & machine : machines) {
    Json row{{"machine", machine.value("name", "")}, {"state", machineState(machine)}};
    if (auto const unheard = machine.value("rescanUnheard", 0); unheard != 0)
      row["remarks"] =
          fmt::format("read everything again {} times, as changes were missed", unheard);
    rows.push_back(std::move(row));
  }
  return rows;
}

/// The inputs of the machines as rows of one table.
Json inputRows(Json const & machines) {
  auto rows = Json::array();
  for (auto const & machine : machines)
    for (auto const & input : machine.value("inputs", Json::array()))
      rows.push_back({{"machine", machine.value("name", "")},
                      {"input", input.value("name", "")},
                      {"scan", input.value("scanState", Json())},
                      {"scanned", input.value("scanned", Json())},
                      {"input size", input.value("inputSize", Json())}});
  return rows;
}

/// "15 tunnels, 15 ifIndexes".
std::string recordsText(Json const & records) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 6> names{
      {{"intfStatus", "tunnels"},
       {"ifIndexByIntfId", "ifIndexes"},
       {"ipsecTunnelInfo", "tunnels with a profile"},
       {"appliedProfiles", "profiles"},
       {"appliedIntfId", "connections"},
       {"claims", "tunnels said to be protected"}}};
  std::string out;
  for (auto const & [member, count] : records.items()) {
    auto const * const known = std::ranges::find(names, member, [](auto one) { return one.first; });
    out += fmt::format("{}{} {}", out.empty() ? "" : ", ", count.dump(),
                       known == names.end() ? member : known->second);
  }
  return out.empty() ? "nothing" : out;
}

Table sourceTable(Json const & sources) {
  Table table{.headings = {"SOURCE", "STATE", "READING", "FULL READS", "CHANGES"}};
  for (auto const & source : sources) {
    auto const state = source.value("state", "");
    auto const tone = state == "inSync" ? Tone::good : Tone::bad;
    table.rows.push_back({{source.value("name", "")},
                          {words(state), tone},
                          cellOf(source.value("reading", Json())),
                          cellOf(source.value("fullReads", Json())),
                          cellOf(source.value("changes", Json()))});
  }
  return table;
}

/// What the sources say of themselves, each under its name.
std::string detailSections(Json const & sources, bool hasColours) {
  std::string out;
  for (auto const & source : sources) {
    auto told = Json::object();
    if (auto const error = source.value("lastError", ""); !error.empty())
      told["last error"] = error;
    told["publishes"] = recordsText(source.value("records", Json::object()));
    told.update(source.value("details", Json::object()));
    out += section(fmt::format("Source {}", source.value("name", "")), pairsText(told), hasColours);
  }
  return out;
}

/// The counts that are not zero, in words; "none" where all are.
std::string failuresText(Json const & failures) {
  auto told = Json::object();
  for (auto const & [name, value] : failures.items())
    if (value != 0 && value != "")
      told[words(name)] = value;
  return failures.empty() ? "" : told.empty() ? "none\n" : pairsText(told);
}

std::string tasksText(Json const & tasks) {
  auto told = Json::object();
  for (auto const & [name, value] : tasks.items())
    told[words(name)] = value;
  return pairsText(told);
}

} // namespace

std::string statusText(Json const & status, std::chrono::system_clock::time_point now,
                       bool hasColours) {
  auto const machines = status.value("machines", Json::array());
  auto const sources = status.value("sources", Json::array());
  auto const master = status.value("agentx", Json::object());
  auto const top = Json{{"ready", status.value("ready", false)},
                        {"version", status.value("version", "")},
                        {"served at", status.value("servedAt", "")},
                        {"enterprise", status.value("enterprise", 0)}};
  auto const registrations = registrationRows(master.value("registrations", Json::array()));
  return pairsText(top) + section("AgentX master", masterText(master, now), hasColours) +
         section("Registrations", tableText(registrations, hasColours), hasColours) +
         section("Sources", layOut(sourceTable(sources), hasColours), hasColours) +
         detailSections(sources, hasColours) +
         section("Machines", tableText(machineRows(machines), hasColours), hasColours) +
         section("Inputs", tableText(inputRows(machines), hasColours), hasColours) +
         section("Tasks", tasksText(status.value("tasks", Json::object())), hasColours) +
         section("Failures survived", failuresText(status.value("failures", Json::object())),
                 hasColours);
}

std::string ageText(std::string const & time, std::chrono::system_clock::time_point now) {
  std::tm parts{};
  if (strptime(time.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) == nullptr)
    return time;
  auto const then = std::chrono::system_clock::from_time_t(timegm(&parts));
  auto const seconds =
      std::max<long>(0, std::chrono::floor<std::chrono::seconds>(now - then).count());
  if (seconds < 60)
    return fmt::format("{} s", seconds);
  if (seconds < 60 * 60)
    return fmt::format("{} min {} s", seconds / 60, seconds % 60);
  if (seconds < 24 * 60 * 60)
    return fmt::format("{} h {} min", seconds / 3600, seconds / 60 % 60);
  return fmt::format("{} days {} h", seconds / 86400, seconds / 3600 % 24);
}

} // namespace Ctl
