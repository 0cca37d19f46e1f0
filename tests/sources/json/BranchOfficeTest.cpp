// The example that is shipped: it must load, and show every kind of tunnel.
#include "sources/json/JsonSource.h"
#include "tests/sources/SourceHost.h"
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>

namespace {

using nlohmann::json;

class BranchOffice : public testing::Test, protected SourceHost {
protected:
  BranchOffice() { source->start(); }

  std::unique_ptr<Sources::Source> const source =
      Sources::makeJsonSource(EXAMPLES "/branch-office.json", surroundings(), allTheTime);
};

TEST_F(BranchOffice, SaysEverythingInTheFormInWhichItIsRead) {
  auto const path = std::string(EXAMPLES "/branch-office.json");
  EXPECT_EQ(document.read(""), json::parse(std::ifstream(path)));
}

TEST_F(BranchOffice, HasTunnelsOfEveryMode) {
  std::set<std::string> modes;
  for (auto const & status : document.read("/tunnelIntfStatusDir/intfStatus"))
    modes.insert(status["mode"].get<std::string>());
  EXPECT_EQ(modes, (std::set<std::string>{"gre", "direct", "vti", "xfrm", "erspan", "vxlan",
                                          "geneve", "wireguard", "sitSpecial"}));
}

TEST_F(BranchOffice, GivesEachTunnelAnIfIndexOfItsOwn) {
  auto const indexes = document.read("/ifMib/ifIndexByIntfId");
  auto const statuses = document.read("/tunnelIntfStatusDir/intfStatus");
  std::set<int> different;
  for (auto const & [id, status] : statuses.items())
    different.insert(indexes.at(id).get<int>());
  EXPECT_EQ(different.size(), indexes.size());
  EXPECT_GE(different.size(), 12u);
}

TEST_F(BranchOffice, HasNoTwoTunnelsBetweenTheSameAddresses) {
  std::set<std::string> ends;
  for (auto const & status : document.read("/tunnelIntfStatusDir/intfStatus")) {
    auto const from = status["srcAddr"].get<std::string>();
    auto const to = status["dstAddr"].get<std::string>();
    if (!from.empty() && !to.empty()) {
      EXPECT_TRUE(ends.insert(from + " " + to).second) << status;
    }
  }
}

TEST_F(BranchOffice, KnowsTheConnectionOfEachTunnelThatIpsecProtects) {
  auto const ike = document.read("/ikeStatus");
  auto const statuses = document.read("/tunnelIntfStatusDir/intfStatus");
  for (auto const & [id, status] : statuses.items()) {
    ASSERT_EQ(status["ipsec"].get<bool>(), ike["ipsecTunnelInfo"].contains(id)) << id;
    if (!status["ipsec"])
      continue;
    auto const profile = ike["ipsecTunnelInfo"][id]["profileName"].get<std::string>();
    EXPECT_TRUE(ike["appliedProfiles"].at(profile)["appliedIntfId"].contains(id)) << id;
  }
}

} // namespace
