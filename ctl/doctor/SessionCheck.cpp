// Does the master know the daemon and its tables?
#include "ctl/doctor/Checks.h"
#include <fmt/format.h>

namespace Ctl::Doctor {

using Json = nlohmann::ordered_json;

namespace {

Finding refused(std::string const & oid, std::string const & reason,
                std::map<std::string, std::string> const & owners) {
  auto const owner = owners.find(oid);
  if (reason != "duplicateRegistration")
    return {"registration", Verdict::todo, fmt::format("the master refuses {}: {}", oid, reason),
            "see what snmpd says of it: journalctl -u snmpd"};
  return {
      "registration", Verdict::todo,
      fmt::format("{} belongs to somebody else: {}", oid,
                  owner == owners.end() ? "the master does not say to whom" : owner->second),
      "stop the other subagent, or the other tunnelsnmpd, that serves it; the daemon then takes "
      "it over within a minute"};
}

} // namespace

Findings checkSession(Facts const & facts) {
  auto const session =
      facts.status.is_null() ? Json::object() : facts.status.value("agentx", Json::object());
  if (session.empty())
    return {};
  auto const state = session.value("state", "");
  // While it registers the session is open: what is refused is told by checkRegistrations().
  if (state == "serving" || state == "registering")
    return {
        {.check = "session", .what = fmt::format("open, number {}", session.value("session", 0U))}};
  auto const error = session.value("lastError", "");
  return {{"session", Verdict::todo,
           fmt::format("{}{}{}", state, error.empty() ? "" : "; last error: ", error),
           "the daemon tries again twice a second: it follows when the master can be reached and "
           "answers"}};
}

Findings checkRegistrations(Facts const & facts) {
  auto const session =
      facts.status.is_null() ? Json::object() : facts.status.value("agentx", Json::object());
  if (!session.contains("session"))
    return {};
  Findings findings;
  std::size_t registered = 0;
  auto const all = session.value("registrations", Json::array());
  for (auto const & one : all) {
    auto const state = one.value("state", "");
    registered += state == "registered" ? 1 : 0;
    if (state == "refused")
      findings.push_back(refused(one.value("oid", ""), one.value("reason", ""), facts.owners));
  }
  if (!findings.empty())
    return findings;
  if (registered == all.size())
    return {{.check = "registration", .what = fmt::format("all {} OIDs are ours", registered)}};
  return {{"registration", Verdict::todo,
           fmt::format("{} of {} OIDs are registered", registered, all.size()),
           "wait a moment, and look again"}};
}

} // namespace Ctl::Doctor
