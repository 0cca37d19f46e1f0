// What is said of a change.
#include "ctl/Watch.h"
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

Json tunnel(int number, Json const & changes = Json::object()) {
  auto out = Json::parse(R"({"interface": "gre1", "kind": "gre", "local": "192.0.2.1",
                             "remote": "192.0.2.2", "hopLimit": 64, "remarks": []})");
  out["intfId"] = number;
  out.merge_patch(changes);
  return out;
}

std::vector<std::string> said(Json const & before, Json const & after) {
  std::vector<std::string> lines;
  for (auto const & change : Ctl::changesBetween(before, after))
    lines.push_back(Ctl::changeText("10:00:00", change));
  return lines;
}

TEST(Watch, IsSilentWhereNothingChanged) {
  EXPECT_TRUE(said(Json::array({tunnel(1)}), Json::array({tunnel(1)})).empty());
}

TEST(Watch, TellsOfTunnelsThatComeAndGo) {
  EXPECT_THAT(said(Json::array({tunnel(1)}), Json::array({tunnel(2, {{"interface", "gre2"}})})),
              testing::ElementsAre("10:00:00  removed  gre1: gre from 192.0.2.1 to 192.0.2.2\n",
                                   "10:00:00  added    gre2: gre from 192.0.2.1 to 192.0.2.2\n"));
}

TEST(Watch, TellsWhatItWasAndWhatItIs) {
  auto const after =
      tunnel(1, {{"hopLimit", 9}, {"connState", "ikeUp"}, {"remarks", {"inet: no addresses"}}});
  EXPECT_THAT(
      said(Json::array({tunnel(1)}), Json::array({after})),
      testing::ElementsAre("10:00:00  changed  gre1: hop limit 64 -> 9, remarks none -> inet: "
                           "no addresses, IPsec none -> ike up\n"));
  auto const change = Ctl::changesBetween(Json::array({tunnel(1)}), Json::array({after})).at(0);
  EXPECT_EQ(64, change["before"]["hopLimit"]);
  EXPECT_EQ(9, change["tunnel"]["hopLimit"]);
  EXPECT_TRUE(change["before"]["connState"].is_null());
}

TEST(Watch, KeepsToThePage) {
  auto const after = tunnel(1, {{"interface", std::string(200, 'x')}});
  auto const lines = said(Json::array(), Json::array({after}));
  EXPECT_EQ(100u, lines.at(0).size() - 1);
}

} // namespace
