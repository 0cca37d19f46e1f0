// Have tunnels become rows?
#include "ctl/doctor/Checks.h"
#include <fmt/format.h>

namespace Ctl::Doctor {

using Json = nlohmann::ordered_json;

namespace {

/// "tunnelIfTable 15, tunnelInetConfigTable 13".
std::string countsOf(Json const & tables) {
  std::string out;
  for (auto const & [name, rows] : tables.items())
    out += fmt::format("{}{} {}", out.empty() ? "" : ", ", name, rows.size());
  return out;
}

bool hasRows(Json const & tables) {
  return std::any_of(tables.begin(), tables.end(), [](Json const & rows) { return !rows.empty(); });
}

std::size_t remarkable(Json const & tunnels) {
  return static_cast<std::size_t>(
      std::count_if(tunnels.begin(), tunnels.end(), [](Json const & tunnel) {
        return !tunnel.value("remarks", Json::array()).empty();
      }));
}

Finding rowsFinding(Facts const & facts) {
  if (!facts.status.value("ready", false))
    return {"rows", Verdict::todo, "the tables do not agree with their inputs yet",
            "wait until they do: tunnelsnmpctl wait-ready"};
  if (hasRows(facts.tables))
    return {.check = "rows", .what = countsOf(facts.tables)};
  if (facts.tunnels.empty())
    return {
        "rows", Verdict::todo, "no source publishes any tunnel, so all tables are empty",
        "make one (ip tunnel add ...), or have other kinds published: --source linux:kinds=+KIND"};
  return {"rows", Verdict::todo,
          fmt::format("none of the {} tunnels has a row", facts.tunnels.size()),
          "see why: tunnelsnmpctl show tunnels"};
}

} // namespace

Findings checkRows(Facts const & facts) {
  if (facts.status.is_null())
    return {};
  Findings findings{rowsFinding(facts)};
  if (auto const count = remarkable(facts.tunnels); count != 0 && hasRows(facts.tables))
    findings.push_back({.check = "rows",
                        .what = fmt::format("{} of {} tunnels lack a row or an IPsec connection; "
                                            "tunnelsnmpctl show tunnels says which and why",
                                            count, facts.tunnels.size())});
  return findings;
}

} // namespace Ctl::Doctor
