// The daemon's iterator over the plug-in's own tables, from none to some hundred rows.
#include "agent/Plugin.h"
#include "agent/iterator/HostIterator.h"
#include "platform/Kiln.h"
#include "platform/Snmp.h"
#include "statedb/Schema.h"
#include "statedb/StateDb.h"
#include "tests/agent/IteratorComparison.h"
#include "tests/support/TestScheduler.h"
#include <array>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using Wire::Oid;

constexpr char const * mibPath = "snmp/tunnelIntf/tunnelMib";
constexpr char const * rootPath = "snmp/tunnelIntf/root";

Oid const ifTable{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1};
Oid const inetConfigTable{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 3};
Oid const ipsecTable{1, 3, 6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 3, 34, 1, 1};

/// Tunnel `number` of the document, counted from 1, has the ifIndex 3 + 2 * number.
json documentOf(unsigned count) {
  json statuses = json::object();
  json ifIndexes = json::object();
  for (unsigned number = 1; number <= count; ++number) {
    auto const id = std::to_string(number);
    auto const v6 = number % 3 == 0;
    statuses[id] = {{"srcAddr", v6 ? fmt::format("2001:db8::{:x}", number)
                                   : fmt::format("10.0.{}.1", number % 250)},
                    {"dstAddr", v6 ? "2001:db8:a::1" : fmt::format("10.1.0.{}", number % 250 + 1)},
                    {"mode", number % 2 == 0 ? "gre" : "direct"},
                    {"hopLimit", number % 256},
                    {"tos", number % 64},
                    {"ipsec", number % 2 == 0}};
    ifIndexes[id] = 3 + 2 * number;
  }
  return {{"tunnelIntfStatusDir", {{"intfStatus", statuses}}},
          {"ifMib", {{"ifIndexByIntfId", ifIndexes}}}};
}

/// The plug-in at work on a document, registered with net-snmp.
class Tunnels {
public:
  explicit Tunnels(unsigned count) : plugin_(PLUGIN_FILE) {
    Kiln::TaskSchedulerRoot::schedulerIs(scheduler_);
    SnmpUtil::entityRootIs([this](std::string_view path) { return database_.lookup(path); });
    database_.create(mibPath, "TunnelIntfSnmp::TunnelMib");
    database_.create(rootPath, "TunnelIntfSnmp::Root");
    StateDb::fill(database_, documentOf(count));
    std::array<Zel::Ptr<Zel::PtrInterface>, 4> const inputs{
        database_.lookup(mibPath), database_.tunnelIntfStatusDir(), database_.ifMib(),
        database_.ikeStatus()};
    Zel::attributeIs(*database_.lookup(rootPath), "tunnelIntfSnmpAgent", inputs);
    scheduler_->runUntilQuiet();
    plugin_.registerMibs();
  }
  Tunnels(Tunnels const &) = delete;
  Tunnels & operator=(Tunnels const &) = delete;
  ~Tunnels() {
    plugin_.unregisterMibs();
    database_.unmount(rootPath);
    database_.unmount(mibPath);
    Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
    SnmpUtil::entityRootIs({});
  }

private:
  Zel::Ptr<TestScheduler> const scheduler_ = Zel::makePtr<TestScheduler>(Yield::never);
  Agent::Plugin plugin_; // goes last but for the scheduler: the database holds its objects
  StateDb::StateDb database_;
};

Names namesOfAllTables() {
  auto names = namesAround(ifTable, {1, 3, 6, 11}, {{4}, {5}, {7}, {8}, {4294967295}});
  for (auto const & more : {namesAround(inetConfigTable, {6, 8},
                                        {{1, 4, 10, 0, 1, 1, 4, 10, 1, 0, 2, 2, 1},
                                         {1, 4, 10, 0, 9, 1, 4, 10, 1, 0, 9, 3, 1}}),
                            namesAround(ipsecTable, {1}, {{7}, {8}})})
    names.insert(names.end(), more.begin(), more.end());
  return names;
}

class HostIteratorOfPlugin : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Rows, HostIteratorOfPlugin, testing::Values(0u, 1u, 2u, 5u, 400u));

TEST_P(HostIteratorOfPlugin, AnswersWhatTheStockIteratorAnswers) {
  Tunnels const tunnels(GetParam());
  auto const requests = everyRequest(namesOfAllTables());
  auto const expected = answers(requests);
  ASSERT_EQ(3u, Agent::installHostIterator());
  expectAnswers(expected, requests);
}

TEST_P(HostIteratorOfPlugin, AnswersRandomRequestsAlike) {
  Tunnels const tunnels(GetParam());
  std::mt19937 random(testSeed());
  auto const requests = randomRequests(namesOfAllTables(), 3000, random);
  auto const expected = answers(requests);
  ASSERT_EQ(3u, Agent::installHostIterator());
  expectAnswers(expected, requests);
}

/// What GETBULK finds from the root of everything on.
std::vector<std::string> wholeWalk() {
  std::vector<Wire::Request> requests;
  for (unsigned long column = 1; column != 12; ++column)
    for (unsigned long row = 0; row < 810; row += 20) {
      auto name = ifTable;
      name.insert(name.end(), {1, column, row});
      requests.push_back({Wire::Command::getBulk, {name}, 0, 50});
    }
  return answers(requests);
}

TEST(HostIteratorOfPluginWalk, FindsEveryRow) {
  Tunnels const tunnels(400);
  auto const expected = wholeWalk();
  ASSERT_EQ(3u, Agent::installHostIterator());
  EXPECT_EQ(expected, wholeWalk());
}

} // namespace
