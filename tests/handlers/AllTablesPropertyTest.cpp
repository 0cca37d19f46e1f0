// Everything at once: random patches of statuses, ifIndexes and IKE records, in every way that the
// machines can run, with restarts of the plug-in's agent in between; then the tables, the readiness
// and what a manager sees must be what a plain function makes of the document. TEST_SEED repeats a
// run.
#include "TunnelIntfSnmp/TunnelIntfSnmpAgent.h"
#include "TunnelIntfSnmp/tunnelMIB.h"
#include "TunnelIntfSnmp/velmoraTunnelMIB.h"
#include "statedb/StateDocument.h"
#include "tests/handlers/InProcessAgent.h"
#include "tests/support/TestScheduler.h"
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>

namespace TunnelIntfSnmp {
namespace {

using nlohmann::json;

Oid const ifTable{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1};
Oid const inetTable{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 3};
Oid const ipsecTable{1, 3, 6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 3, 34, 1, 1};

// What a manager must see, from the document alone.
class View {
public:
  explicit View(json const & document) : ike_(document.at("ikeStatus")) {
    auto const & ifIndexes = document.at("/ifMib/ifIndexByIntfId"_json_pointer);
    for (auto const & [id, status] :
         document.at("/tunnelIntfStatusDir/intfStatus"_json_pointer).items())
      if (!status.is_null() && ifIndexes.contains(id))
        addTunnel(id, ifIndexes.at(id), status);
  }

  std::vector<Varbind> below(Oid const & root) const {
    std::vector<Varbind> all;
    for (auto const & [name, varbind] : cells_)
      if (name.size() > root.size() && std::equal(root.begin(), root.end(), name.begin()))
        all.push_back(varbind);
    return all;
  }

private:
  using Octets = std::vector<std::uint8_t>;

  static Octets octets(json const & text) {
    auto const address = Plexa::IpGenAddr::fromString(text.get<std::string>()).value();
    return {address.octets().begin(), address.octets().end()};
  }
  static bool zero(Octets const & octets) {
    return std::ranges::all_of(octets, [](auto octet) { return octet == 0; });
  }
  static long type(Octets const & octets) {
    return octets.size() == 4 ? 1 : octets.size() == 16 ? 2 : 0;
  }

  void put(Oid const & table, oid column, Oid const & index, Varbind value) {
    value.name = table;
    value.name.insert(value.name.end(), {1, column});
    value.name.insert(value.name.end(), index.begin(), index.end());
    auto const name = value.name;
    cells_.emplace(name, std::move(value));
  }
  void putInteger(Oid const & table, oid column, Oid const & index, long value) {
    put(table, column, index, {{}, ASN_INTEGER, value, ""});
  }

  void addTunnel(std::string const & id, long ifIndex, json const & status) {
    auto const local = octets(status.at("srcAddr"));
    auto const remote = octets(status.at("dstAddr"));
    auto const mode = status.at("mode").get<std::string>();
    long const encaps = mode == "gre" ? 3 : mode == "direct" ? 2 : 1;
    Oid const index{static_cast<oid>(ifIndex)};
    putInteger(ifTable, 3, index, encaps);
    putInteger(ifTable, 4, index, status.at("hopLimit"));
    putInteger(ifTable, 5, index, status.at("ipsec").get<bool>() ? 2 : 1);
    putInteger(ifTable, 6, index, status.at("tos"));
    putInteger(ifTable, 8, index, type(local.empty() ? remote : local));
    put(ifTable, 9, index, {{}, ASN_OCTET_STR, 0, {local.begin(), local.end()}});
    put(ifTable, 10, index, {{}, ASN_OCTET_STR, 0, {remote.begin(), remote.end()}});
    if (!zero(local) && !zero(remote))
      addEndpoints(local, remote, encaps, ifIndex);
    if (status.at("ipsec").get<bool>())
      putInteger(ipsecTable, 1, index, connState(id));
  }
  void addEndpoints(Octets const & local, Octets const & remote, long encaps, long ifIndex) {
    Oid index{static_cast<oid>(type(local))};
    for (auto const & part : {local, remote}) {
      index.push_back(part.size());
      index.insert(index.end(), part.begin(), part.end());
    }
    index.insert(index.end(), {static_cast<oid>(encaps), 1});
    putInteger(inetTable, 6, index, ifIndex);
    putInteger(inetTable, 7, index, 1);
    putInteger(inetTable, 8, index, 5);
  }
  long connState(std::string const & id) const {
    auto const & infos = ike_.at("ipsecTunnelInfo");
    if (!infos.contains(id) || infos.at(id).is_null())
      return 0;
    auto const profile = infos.at(id).at("profileName").get<std::string>();
    auto const & profiles = ike_.at("appliedProfiles");
    if (!profiles.contains(profile) || profiles.at(profile).is_null())
      return 0;
    auto const & applied = profiles.at(profile).at("appliedIntfId");
    if (!applied.contains(id) || applied.at(id).is_null())
      return 0;
    static std::map<std::string, long> const column{{"down", 1}, {"connecting", 2}, {"ikeUp", 3},
                                                    {"up", 4},   {"rekeying", 5},   {"closing", 6}};
    auto const & state = applied.at(id).at("connState");
    if (state.is_number()) // one without a name
      return 0;
    auto const found = column.find(state.get<std::string>());
    return found == column.end() ? 0 : found->second;
  }

  json ike_;
  std::map<Oid, Varbind> cells_;
};

// Patches that fit the document as it is. Each interface keeps an ifIndex and addresses of its own,
// and a status goes before its ifIndex: then there is one right answer.
class Patches {
public:
  explicit Patches(std::uint32_t seed) : random_(seed) {}
  std::size_t below(std::size_t limit) { return random_() % limit; }

  json operation(json const & document) {
    auto const id = std::to_string(below(15) + 1);
    auto const at = [&](std::string const & path) {
      auto const pointer = json::json_pointer(path);
      return document.contains(pointer) ? document.at(pointer) : json(json::value_t::discarded);
    };
    auto const statusPath = "/tunnelIntfStatusDir/intfStatus/" + id;
    auto const ifIndexPath = "/ifMib/ifIndexByIntfId/" + id;
    auto const infoPath = "/ikeStatus/ipsecTunnelInfo/" + id;
    auto const profile = "p" + std::to_string(below(3));
    auto const profilePath = "/ikeStatus/appliedProfiles/" + profile;
    auto const status = at(statusPath);
    switch (below(11)) {
    case 0:
    case 1:
      return add(statusPath, below(10) == 0 ? json(nullptr) : freshStatus(id));
    case 2:
      if (!status.is_discarded())
        return {{"op", "remove"}, {"path", statusPath}};
      break;
    case 3:
      if (status.is_object())
        return {{"op", "replace"}, {"path", statusPath + "/srcAddr"}, {"value", address(id, 1)}};
      break;
    case 4:
      if (status.is_object())
        return changedMember(statusPath, id);
      break;
    case 10:
      for (auto const & path : {profilePath + "/appliedIntfId/" + id, infoPath, profilePath})
        if (below(2) == 0 && !at(path).is_discarded())
          return {{"op", "remove"}, {"path", path}};
      break;
    case 9:
      if (at(infoPath).is_object())
        return {{"op", "replace"}, {"path", infoPath + "/profileName"}, {"value", profile}};
      break;
    case 5:
      if (status.is_discarded() && !at(ifIndexPath).is_discarded())
        return {{"op", "remove"}, {"path", ifIndexPath}};
      break;
    case 6:
      return add(infoPath, below(6) == 0 ? json(nullptr) : json({{"profileName", profile}}));
    case 7:
      return add(profilePath,
                 below(8) == 0 ? json(nullptr) : json({{"appliedIntfId", {{id, state()}}}}));
    default:
      if (at(profilePath).is_object())
        return add(profilePath + "/appliedIntfId/" + id, state());
    }
    return add(ifIndexPath, 1000 - std::stoul(id));
  }

private:
  static json add(std::string const & path, json value) {
    return {{"op", "add"}, {"path", path}, {"value", std::move(value)}};
  }
  json changedMember(std::string const & statusPath, std::string const & id) {
    auto fresh = freshStatus(id);
    static char const * const members[] = {"srcAddr",  "dstAddr", "mode",
                                           "hopLimit", "tos",     "ipsec"};
    auto const member = std::string(members[below(6)]);
    return {{"op", "replace"}, {"path", statusPath + "/" + member}, {"value", fresh.at(member)}};
  }
  json state() { return below(8) == 0 ? json(nullptr) : json({{"connState", below(10)}}); }
  std::string address(std::string const & id, std::size_t end) {
    auto const host = std::to_string(end) + "." + id;
    std::string const all[] = {"",
                               "0.0.0.0",
                               "::",
                               "10.0." + host,
                               "10.9." + host,
                               "2001:db8::" + std::to_string(end) + ":" + id};
    return all[below(6)];
  }
  json freshStatus(std::string const & id) {
    return {{"srcAddr", address(id, 1)}, {"dstAddr", address(id, 2)}, {"mode", below(4)},
            {"hopLimit", below(256)},    {"tos", below(64)},          {"ipsec", below(2) == 0}};
  }
  std::mt19937 random_;
};

class AllTables : public ::testing::TestWithParam<RunMode> {
protected:
  AllTables() : scheduler_(Zel::makePtr<TestScheduler>(GetParam().yield, testSeed())) {
    Kiln::TaskSchedulerRoot::schedulerIs(scheduler_);
    SnmpUtil::entityRootIs([this](std::string_view path) {
      return path == "snmp/tunnelIntf/tunnelMib" ? Zel::Ptr<Zel::Entity>(mib_) : nullptr;
    });
    init_tunnelMIB("");
    init_velmoraTunnelMIB("");
  }
  ~AllTables() override {
    unregister_tunnelMIB("");
    unregister_velmoraTunnelMIB("");
    SnmpUtil::entityRootIs({});
    Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
  }

  void start() {
    root_->tunnelIntfSnmpAgentIs(mib_, database_.tunnelIntfStatusDir(), database_.ifMib(),
                                 database_.ikeStatus());
  }
  // The rows of two tables stay and are reconciled; the third does not take rows over.
  void restart() {
    root_->tunnelIntfSnmpAgentDel();
    mib_->tunnelInetConfigTableDelAll();
    for (std::uint32_t stale = 5000; stale != 5003; ++stale) {
      mib_->tunnelIfTableIs(stale, nullptr);
      mib_->ipsecTunnelIfTableIs(stale, nullptr, nullptr);
    }
    start();
  }
  void patch(Patches & patches, std::size_t count) {
    for (; count > 0; --count) {
      auto const operations = json::array({patches.operation(document_.read(""))});
      log_ += operations.dump() + "\n";
      document_.apply(operations);
      for (auto runs = patches.below(3); runs > 0; --runs)
        scheduler_->runOne();
    }
  }
  void expectEverythingRight() {
    scheduler_->runUntilQuiet();
    auto const & agent = *root_->tunnelIntfSnmpAgent();
    expectReady(*agent.tunnelIfTableSm());
    expectReady(*agent.tunnelInetConfigTableSm());
    expectReady(*agent.ipsecTunnelIfTableSm());
    View const view(document_.read(""));
    auto & manager = InProcessAgent::instance();
    for (auto const & table : {ifTable, inetTable, ipsecTable})
      EXPECT_EQ(manager.walk(table), view.below(table));
  }

  static void expectReady(TableSmBase const & machine) {
    EXPECT_TRUE(machine.ready());
    EXPECT_TRUE(machine.idle());
    EXPECT_FALSE(machine.mibOutputReconciling());
    for (std::size_t output = 0; output != machine.names().outputs.size(); ++output)
      EXPECT_TRUE(machine.outputState()->outputReady(output)) << output;
  }

  Zel::Ptr<TestScheduler> scheduler_;
  InProcessAgent & manager_ = InProcessAgent::instance();
  StateDb::StateDb database_;
  StateDb::StateDocument document_{database_};
  Zel::Ptr<TunnelMib> mib_ = Zel::makePtr<TunnelMib>("tunnelMib");
  Zel::Ptr<Root> root_ = Root::RootIs("root");
  std::string log_;
};
// The agent starts its machines in tasks: three of the four ways.
INSTANTIATE_TEST_SUITE_P(Modes, AllTables, ::testing::Values(runModes[1], runModes[2], runModes[3]),
                         [](auto const & mode) { return mode.param.name; });

TEST_P(AllTables, ShowAManagerWhatTheDocumentSays) {
  for (std::uint32_t round = 0; round != 12; ++round) {
    Patches patches(testSeed() + round);
    patch(patches, patches.below(30));
    if (round == 0)
      start();
    else
      restart();
    for (int stretch = 0; stretch != 4; ++stretch) {
      patch(patches, 15);
      expectEverythingRight();
      ASSERT_FALSE(HasFailure()) << "round " << round << "\n" << log_;
    }
  }
}

} // namespace
} // namespace TunnelIntfSnmp
