// Can the daemon reach its master?
#include "ctl/doctor/Checks.h"
#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

namespace Ctl::Doctor {

using Json = nlohmann::ordered_json;

namespace {

bool isServing(Json const & status) {
  return status.value("agentx", Json::object()).value("state", "") == "serving";
}

/// True if and only if the system lets the daemon do with the file what the bit says, one of the
/// last three of a mode.
bool mayDo(PathPart const & part, Credentials const & who, mode_t bit) {
  if (who.user == 0)
    return true;
  if (who.user == part.owner)
    return (part.mode >> 6 & bit) != 0;
  auto const isMember = std::ranges::find(who.groups, part.group) != who.groups.end();
  return (part.mode >> (isMember ? 3 : 0) & bit) != 0;
}

constexpr auto startMaster =
    "put \"master agentx\" into /etc/snmp/snmpd.conf, and (re)start snmpd: systemctl restart snmpd";

Finding missing(PathPart const & part) {
  return {"master", Verdict::todo, fmt::format("{} does not exist", part.path), startMaster};
}

Finding closedTo(PathPart const & part, Credentials const & who) {
  return {"master", Verdict::todo,
          fmt::format("the daemon, user {}, may not {} {} (mode {:04o}, owner {}, group {})",
                      who.user, part.isSocket ? "connect to" : "go through", part.path,
                      part.mode & 07777U, part.owner, part.group),
          "open it to the daemon's group in /etc/snmp/snmpd.conf: agentXPerms 0660 0711 root "
          "_tunnelsnmpd; then systemctl restart snmpd"};
}

} // namespace

Findings checkMaster(Facts const & facts) {
  if (!facts.master)
    return {};
  auto const & master = *facts.master;
  auto const address = facts.status.value("agentx", Json::object()).value("address", "");
  if (isServing(facts.status))
    return {{.check = "master", .what = fmt::format("an AgentX master serves at {}", address)}};
  for (auto const & part : master.parts) {
    if (!part.exists)
      return {missing(part)};
    if (!mayDo(part, master.daemon, part.isSocket ? 2 : 1))
      return {closedTo(part, master.daemon)};
  }
  if (master.connectError)
    return {{"master", Verdict::todo,
             fmt::format("nobody takes connections at {}: {}", address, *master.connectError),
             startMaster}};
  return {{.check = "master", .what = fmt::format("somebody takes connections at {}", address)}};
}

} // namespace Ctl::Doctor
