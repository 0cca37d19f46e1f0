// May anybody read our tables?
#include "ctl/doctor/Checks.h"
#include <algorithm>
#include <fmt/format.h>

namespace Ctl::Doctor {

using Json = nlohmann::ordered_json;

namespace {

Finding unreadable(Facts const & facts) {
  return {"access", Verdict::unknown,
          fmt::format("the configuration cannot be read: {}",
                      fmt::join(facts.config->unreadable, "; ")),
          "run this as root, or name the configuration with --snmpd-config"};
}

Finding masterFinding(Facts const & facts) {
  auto const isServing =
      facts.status.value("agentx", Json::object()).value("state", "") == "serving";
  if (facts.config->isMaster || isServing)
    return {.check = "configuration",
            .what = fmt::format("{}{} \"master agentx\"", facts.configFile,
                                facts.config->isMaster ? " has" : ": snmpd is a master without")};
  return {"configuration", Verdict::todo,
          fmt::format("{} has no \"master agentx\"", facts.configFile),
          "add the line \"master agentx\", and systemctl restart snmpd"};
}

/// True if and only if the two addresses of a master are one.
bool isSameSocket(std::string_view one, std::string_view other) {
  auto const bare = [](std::string_view text) {
    return text.starts_with("unix:") ? text.substr(5) : text;
  };
  return bare(one) == bare(other);
}

void addSocketFinding(Findings & findings, Facts const & facts) {
  auto const address = facts.status["agentx"].value("address", "");
  auto const isServing = facts.status["agentx"].value("state", "") == "serving";
  auto sockets = facts.config->agentxSockets;
  if (sockets.empty())
    sockets.emplace_back("/var/agentx/master");
  if (isServing ||
      std::ranges::any_of(sockets, [&](auto const & one) { return isSameSocket(one, address); }))
    return;
  findings.push_back({"configuration", Verdict::todo,
                      fmt::format("{} has the master listen at {}, the daemon tries {}",
                                  facts.configFile, fmt::join(sockets, " and "), address),
                      fmt::format("start the daemon with --agentx {}", sockets.front())});
}

std::string nameOf(Reader const & reader) {
  return fmt::format("{} {}", reader.isCommunity ? "community" : "user", reader.name);
}

/// Why none of the readers sees the subtree: what each is limited to.
std::string limitsOf(std::vector<Reader> const & readers) {
  std::string out;
  for (auto const & reader : readers)
    out += fmt::format("{}{} is limited to {}", out.empty() ? "" : "; ", nameOf(reader),
                       reader.view.empty() ? oidText(reader.subtree.value_or(Oid{}))
                                           : "view " + reader.view);
  return out;
}

std::string openingAdvice(std::vector<Reader> const & readers, Oid const & subtree) {
  auto const limited =
      std::ranges::find_if(readers, [](auto const & one) { return !one.view.empty(); });
  return limited == readers.end()
             ? fmt::format("let a community read it: rocommunity public localhost {}",
                           oidText(subtree))
             : fmt::format("add the line \"view {} included {}\", and reload snmpd", limited->view,
                           oidText(subtree));
}

Finding sightFinding(SnmpdConfig const & config, AskedFacts const & one) {
  std::vector<std::string> seeing;
  auto isPart = false;
  for (auto const & reader : config.readers) {
    auto const sight = sightOf(config, reader, one.subtree);
    if (sight == Sight::all)
      seeing.push_back(nameOf(reader));
    isPart = isPart || sight == Sight::part;
  }
  if (!seeing.empty())
    return {.check = "access",
            .what = fmt::format("{} may be read by {}", one.name, fmt::join(seeing, ", "))};
  return {"access", Verdict::todo,
          fmt::format("{} {} ({}): {}", isPart ? "only a part may be read of" : "nobody may read",
                      one.name, oidText(one.subtree), limitsOf(config.readers)),
          openingAdvice(config.readers, one.subtree)};
}

} // namespace

Findings checkAccess(Facts const & facts) {
  if (facts.status.is_null() || !facts.config)
    return {};
  auto const & config = *facts.config;
  if (!config.unreadable.empty() && config.readers.empty())
    return {unreadable(facts)};
  Findings findings;
  if (facts.master) {
    findings.push_back(masterFinding(facts));
    addSocketFinding(findings, facts);
  }
  if (config.readers.empty()) {
    findings.push_back({"access", Verdict::todo,
                        fmt::format("{} lets nobody read anything", facts.configFile),
                        "add a line such as \"rocommunity public localhost\""});
    return findings;
  }
  for (auto const & one : facts.asked)
    findings.push_back(sightFinding(config, one));
  for (auto const & line : config.notUnderstood)
    findings.push_back(
        {"access", Verdict::unknown,
         fmt::format("a line has a name for an OID that is not known here: {}", line),
         "write the OID in numbers"});
  return findings;
}

} // namespace Ctl::Doctor
