// Do tunnels come in?
#include "ctl/doctor/Checks.h"
#include <fmt/format.h>

namespace Ctl::Doctor {

using Json = nlohmann::ordered_json;

namespace {

std::size_t publishedBy(Json const & source) {
  return source.value("records", Json::object()).value("intfStatus", std::size_t{0});
}

Finding findingOf(Json const & source) {
  auto const check = fmt::format("source {}", source.value("name", ""));
  auto const error = source.value("lastError", "");
  if (source.value("state", "") != "inSync")
    return source.value("reading", false) && error.empty()
               ? Finding{check, Verdict::todo, "it reads everything for the first time",
                         "wait until it has: tunnelsnmpctl wait-ready"}
               : Finding{check, Verdict::todo,
                         error.empty() ? "it is not in sync" : "not in sync: " + error,
                         "mend what it complains of; what it last published is served until then"};
  return {.check = check,
          .what = fmt::format("in sync, publishes {} tunnels", publishedBy(source))};
}

/// What it leaves out because nobody asked for it: right, but good to know.
void addSkipped(Findings & findings, Json const & source) {
  auto const details = source.value("details", Json::object());
  if (auto const skipped = details.value("not published", ""); !skipped.empty())
    findings.push_back({.check = fmt::format("source {}", source.value("name", "")),
                        .what = "leaves out links of other kinds: " + skipped});
}

} // namespace

Findings checkSources(Facts const & facts) {
  if (facts.status.is_null())
    return {};
  auto const sources = facts.status.value("sources", Json::array());
  if (sources.empty())
    return {{"sources", Verdict::todo, "the daemon was started without any source of tunnels",
             "start it with --source linux (TUNNELSNMPD_OPTIONS in /etc/default/tunnelsnmpd)"}};
  Findings findings;
  for (auto const & source : sources) {
    findings.push_back(findingOf(source));
    addSkipped(findings, source);
  }
  return findings;
}

} // namespace Ctl::Doctor
