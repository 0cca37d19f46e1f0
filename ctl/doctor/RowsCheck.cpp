// Have tunnels become rows?
#include "ctl/doctor/Checks.h"
#include <algorithm>
#include <fmt/format.h>
#include <map>

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

/// How many tunnels have remarks, and which: "2 of 15 tunnels: no IPsec profile (2)".
std::string remarksOf(Json const & tunnels) {
  constexpr std::size_t most = 4;
  std::map<std::string, std::size_t> counts;
  std::size_t remarkable = 0;
  for (auto const & tunnel : tunnels) {
    auto const remarks = tunnel.value("remarks", Json::array());
    remarkable += remarks.empty() ? 0 : 1;
    for (auto const & remark : remarks)
      ++counts[remark.get<std::string>()];
  }
  std::vector<std::string> told;
  told.reserve(counts.size());
  for (auto const & [remark, count] : counts)
    told.push_back(fmt::format("{} ({})", remark, count));
  if (told.size() > most) {
    told.resize(most);
    told.emplace_back("...");
  }
  return remarkable == 0
             ? ""
             : fmt::format("{} of {} tunnels: {}; tunnelsnmpctl show tunnels says which",
                           remarkable, tunnels.size(), fmt::join(told, "; "));
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
  if (auto remarks = remarksOf(facts.tunnels); !remarks.empty() && hasRows(facts.tables))
    findings.push_back({.check = "rows", .what = std::move(remarks)});
  return findings;
}

} // namespace Ctl::Doctor
