// One function for each kind of fact, in the order of the checks.
#include "ctl/doctor/Look.h"
#include "ctl/Client.h"
#include "ctl/Tunnels.h"
#include "ctl/doctor/Manager.h"
#include "os/Descriptor.h"
#include "os/UnixAddress.h"
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Ctl::Doctor {

using Json = nlohmann::ordered_json;

namespace {

/// A doctor does not wait as long as a patient: who is silent for so long is stuck.
constexpr Limits patience{.silence = std::chrono::seconds(3), .whole = std::chrono::seconds(60)};

Json ask(std::string const & control, char const * command) {
  return Client(control, patience).request<Json>(command, "{}");
}

/// Why the daemon cannot be asked.
ControlFacts::Result whyUnreachable(std::string const & path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0)
    return errno == EACCES ? ControlFacts::Result::notPermitted : ControlFacts::Result::noSocket;
  if (access(path.c_str(), W_OK) != 0)
    return ControlFacts::Result::notPermitted;
  return S_ISSOCK(status.st_mode) ? ControlFacts::Result::nobodyListens
                                  : ControlFacts::Result::other;
}

void lookAtDaemon(Facts & facts) {
  auto & control = facts.control;
  try {
    facts.status = ask(control.path, "status");
    auto tables = ask(control.path, "tables/show");
    facts.tunnels = withRemarks(ask(control.path, "tunnels/show"), tables);
    facts.tables = std::move(tables);
    control.result = ControlFacts::Result::answers;
    return;
  } catch (Late const & late) {
    control.result = ControlFacts::Result::silent;
    control.error = late.what();
  } catch (Unreachable const & error) {
    control.result = whyUnreachable(control.path);
    control.error = error.what();
  } catch (std::exception const & error) { // it refuses, or says what is not understood
    control.error = error.what();
  }
  facts.status = Json();
}

/// Who listens at the control socket.
Credentials credentialsOf(std::string const & control) {
  auto const address = Os::UnixAddress::ofPath(control);
  Os::Descriptor const made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ucred peer{};
  socklen_t size = sizeof peer;
  if (!address || !made || connect(made.get(), address->get(), address->size()) != 0 ||
      getsockopt(made.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
    return {};
  Credentials out{.user = peer.uid, .groups = {peer.gid}};
  std::ifstream status(fmt::format("/proc/{}/status", peer.pid));
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("Groups:")) {
      std::istringstream groups(line.substr(std::string("Groups:").size()));
      for (gid_t group = 0; groups >> group;)
        out.groups.push_back(group);
    }
  return out;
}

PathPart partAt(std::filesystem::path const & path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0)
    return {.path = path, .exists = false};
  return {.path = path,
          .isSocket = S_ISSOCK(status.st_mode),
          .mode = status.st_mode,
          .owner = status.st_uid,
          .group = status.st_gid};
}

/// The folders to the path and the path itself, up to the first that is not there.
std::vector<PathPart> partsOf(std::filesystem::path const & path) {
  std::vector<PathPart> parts;
  std::filesystem::path begin;
  for (auto const & name : std::filesystem::absolute(path)) {
    begin /= name;
    parts.push_back(partAt(begin));
    if (!parts.back().exists)
      break;
  }
  return parts;
}

/// The path of the master's socket; empty when it is reached by TCP.
std::string pathOfMaster(std::string const & address) {
  if (address.starts_with("unix:"))
    return address.substr(std::string("unix:").size());
  return address.find('/') == std::string::npos ? "" : address;
}

std::optional<std::string> connectError(std::string const & path) {
  auto const address = Os::UnixAddress::ofPath(path);
  Os::Descriptor const made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!address)
    return "the path is too long";
  if (made && connect(made.get(), address->get(), address->size()) == 0)
    return std::nullopt;
  return std::strerror(errno);
}

void lookAtMaster(Facts & facts) {
  auto const session = facts.status.find("agentx");
  if (session == facts.status.end())
    return;
  auto & master = facts.master.emplace();
  auto const path = pathOfMaster(session->value("address", ""));
  if (path.empty())
    return;
  master.daemon = credentialsOf(facts.control.path);
  master.parts = partsOf(path);
  if (session->value("state", "") != "serving")
    master.connectError = connectError(path);
}

void readConfiguration(Facts & facts, std::string const & ofSnmpd) {
  auto const isSnmpds = facts.master || facts.isInsideSnmpd;
  facts.configFile = isSnmpds ? ofSnmpd : facts.status.value("configuration", "");
  if (!facts.configFile.empty())
    facts.config = readSnmpdConfig(facts.configFile, realConfigFiles());
}

/// The subtrees that are ours, by the MIB modules that define them.
void chooseSubtrees(Facts & facts) {
  auto const enterprise = facts.status.value("enterprise", 0UL);
  AskedFacts standard{.name = "TUNNEL-MIB", .subtree = {1, 3, 6, 1, 2, 1, 10, 131}};
  AskedFacts vendors{.name = facts.mib.module, .subtree = {1, 3, 6, 1, 4, 1, enterprise, 3, 34}};
  for (auto const & [name, rows] : facts.tables.items())
    if (!rows.empty())
      (name.starts_with("tunnel") ? standard : vendors).hasRows = true;
  facts.asked = {standard, vendors};
}

/// A community that may ask from here; one that sees most, if there are several.
Reader const * bestCommunity(Facts const & facts) {
  Reader const * best = nullptr;
  for (auto const & reader : facts.config->readers) {
    if (!reader.isCommunity || !mayAskFromHere(reader))
      continue;
    if (sightOf(*facts.config, reader, facts.asked.front().subtree) == Sight::all)
      return &reader;
    best = best == nullptr ? &reader : best;
  }
  return best;
}

/// What a manager would say of itself; none when nobody may ask from here.
std::vector<std::string> credentials(Facts & facts, std::vector<std::string> const & given) {
  facts.askedAs = "these credentials";
  if (!given.empty())
    return given;
  std::string community = "public";
  if (facts.config && !facts.config->readers.empty()) {
    auto const * best = bestCommunity(facts);
    if (best == nullptr)
      return {};
    community = best->name;
  }
  facts.askedAs = fmt::format("community \"{}\"", community);
  return {"-v2c", "-c", community};
}

/// The master's own list of who registered what (NET-SNMP-AGENT-MIB, nsModuleName), as far as it
/// may be read. Its index is the context, the OID and a priority.
void lookForOwners(Facts & facts, Manager & manager) {
  Oid const names{1, 3, 6, 1, 4, 1, 8072, 1, 2, 1, 1, 4};
  auto const session = facts.status.value("agentx", Json::object());
  for (auto const & one : session.value("registrations", Json::array())) {
    auto const oid = oidFromText(one.value("oid", ""));
    if (one.value("state", "") != "refused" || !oid)
      continue;
    auto place = names;
    place.push_back(0);
    place.push_back(oid->size());
    place.insert(place.end(), oid->begin(), oid->end());
    auto const answer = manager.next(place);
    if (answer.result == Answer::Result::value && isWithin(answer.oid, place))
      facts.owners[one.value("oid", "")] = answer.text;
  }
}

void askAsManager(Facts & facts, Arguments const & arguments) {
  auto const listeners = facts.master || facts.isInsideSnmpd
                             ? facts.config->listeners
                             : std::vector{facts.status.value("servedAt", "")};
  facts.askedAt = arguments.address.empty() ? addressFromHere(listeners) : arguments.address;
  auto const who = credentials(facts, arguments.snmpArguments);
  facts.hasCredentials = !who.empty();
  if (!facts.hasCredentials)
    return;
  try {
    Manager manager(who, facts.askedAt);
    for (auto & one : facts.asked) {
      one.answer = manager.next(one.subtree);
      if (one.answer.result == Answer::Result::noAnswer)
        return;
    }
    lookForOwners(facts, manager);
  } catch (std::invalid_argument const & error) {
    throw UsageError(error.what());
  }
}

void lookForMib(MibFacts & mib) {
  mib.folders = mibFolders();
  for (auto const & folder : mib.folders)
    for (auto const * ending : {".txt", "", ".mib", ".my"}) {
      auto const file = std::filesystem::path(folder) / (mib.module + ending);
      std::error_code error;
      if (mib.file.empty() && std::filesystem::is_regular_file(file, error))
        mib.file = file;
    }
}

} // namespace

Facts lookAround(Arguments const & arguments) {
  Facts facts;
  facts.control.path = arguments.control;
  facts.mib.module = "VELMORA-TUNNEL-MIB";
  lookAtDaemon(facts);
  if (!facts.status.is_null()) {
    facts.isInsideSnmpd = facts.status.value("guest", false);
    lookAtMaster(facts);
    readConfiguration(facts, arguments.snmpdConfig);
    chooseSubtrees(facts);
    askAsManager(facts, arguments);
  }
  lookForMib(facts.mib);
  return facts;
}

} // namespace Ctl::Doctor
