// Why a tunnel has no row in a table, and the line that it has for people.
#include "ctl/Tunnels.h"
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;
using testing::HasSubstr;

/// A tunnel with everything, and what `changes` says otherwise; null takes a member away.
Json tunnel(Json const & changes = Json::object()) {
  auto out = Json::parse(R"({"intfId": 7, "interface": "gre1", "kind": "gre", "ifIndex": 7,
      "local": "192.0.2.1", "remote": "192.0.2.2", "mode": "gre", "hopLimit": 64, "ipsec": true,
      "profile": "hq", "connState": "up"})");
  out.merge_patch(changes);
  return out;
}

/// Rows of that ifIndex in the tables that are named, all of the same addresses.
Json tables(std::map<std::string, std::vector<int>> const & ifIndexes) {
  Json out{{"tunnelIfTable", Json::array()},
           {"tunnelInetConfigTable", Json::array()},
           {"ipsecTunnelIfTable", Json::array()}};
  for (auto const & [name, rows] : ifIndexes)
    for (auto const ifIndex : rows)
      out[name].push_back({{"ifIndex", ifIndex},
                           {"localAddr", "192.0.2.1"},
                           {"remoteAddr", "192.0.2.2"},
                           {"encapsMethod", 3}});
  return out;
}
Json allTables() {
  return tables(
      {{"tunnelIfTable", {7}}, {"tunnelInetConfigTable", {7}}, {"ipsecTunnelIfTable", {7}}});
}

Json remarks(Json const & one, Json const & served) {
  return Ctl::withRemarks(Json::array({one}), served).at(0).at("remarks");
}

TEST(Remarks, AreNoneOfATunnelThatHasAllItsRows) {
  auto const told = Ctl::withRemarks(Json::array({tunnel()}), allTables()).at(0);
  EXPECT_EQ(Json::array(), told["remarks"]);
  EXPECT_EQ(Json::object(), told["missing"]);
}

TEST(Remarks, TellThatThereIsNoIfIndex) {
  auto const told =
      Ctl::withRemarks(Json::array({tunnel({{"ifIndex", nullptr}})}), tables({})).at(0);
  EXPECT_EQ(Json::array({"no ifIndex: in no table"}), told["remarks"]);
  EXPECT_EQ(3u, told["missing"].size());
  EXPECT_EQ("no ifIndex", told["missing"]["tunnelIfTable"]);
}

TEST(Remarks, TellWhichAddressIsMissing) {
  auto const served = tables({{"tunnelIfTable", {7}}, {"ipsecTunnelIfTable", {7}}});
  EXPECT_EQ(Json::array({"no row in tunnelInetConfigTable: no local address"}),
            remarks(tunnel({{"local", ""}}), served));
  EXPECT_EQ(Json::array({"no row in tunnelInetConfigTable: no remote address"}),
            remarks(tunnel({{"remote", "0.0.0.0"}}), served));
  EXPECT_EQ(Json::array({"no row in tunnelInetConfigTable: no addresses"}),
            remarks(tunnel({{"local", "::"}, {"remote", ""}}), served));
}

TEST(Remarks, NameTheTunnelThatHasTheSameAddresses) {
  auto const served = tables(
      {{"tunnelIfTable", {7, 8}}, {"tunnelInetConfigTable", {8}}, {"ipsecTunnelIfTable", {7, 8}}});
  EXPECT_EQ(Json::array({"no row in tunnelInetConfigTable: same addresses as ifIndex 8"}),
            remarks(tunnel(), served));
  auto const both = Ctl::withRemarks(
      Json::array({tunnel(), tunnel({{"intfId", 8}, {"ifIndex", 8}, {"interface", "gre2"}})}),
      served);
  EXPECT_EQ(Json::array({"no row in tunnelInetConfigTable: same addresses as gre2"}),
            both[0]["remarks"]);
  EXPECT_EQ(Json::array(), both[1]["remarks"]);
}

TEST(Remarks, TellWhatTheMachinesHaveNotWrittenYet) {
  EXPECT_EQ(Json::array({"no row in tunnelIfTable: not written yet",
                         "no row in tunnelInetConfigTable: not written yet",
                         "no row in ipsecTunnelIfTable: not written yet"}),
            remarks(tunnel(), tables({})));
}

TEST(Remarks, TellThatThereIsNoProfileOrNoConnectionOfIt) {
  EXPECT_EQ(Json::array({"no IPsec profile"}),
            remarks(tunnel({{"profile", nullptr}, {"connState", nullptr}}), allTables()));
  EXPECT_EQ(Json::array({"profile hq knows no connection of it"}),
            remarks(tunnel({{"connState", nullptr}}), allTables()));
}

TEST(Remarks, AreNoneThatATunnelWithoutIpsecIsNotAmongThoseWith) {
  auto const one = tunnel({{"ipsec", false}, {"profile", nullptr}, {"connState", nullptr}});
  auto const served = tables({{"tunnelIfTable", {7}}, {"tunnelInetConfigTable", {7}}});
  auto const told = Ctl::withRemarks(Json::array({one}), served).at(0);
  EXPECT_EQ(Json::array(), told["remarks"]);
  EXPECT_EQ("IPsec does not protect it", told["missing"]["ipsecTunnelIfTable"]);
}

TEST(Remarks, SayNothingOfTablesThatAreNotServed) {
  EXPECT_EQ(Json::array(), remarks(tunnel(), Json::object()));
}

TEST(TunnelsText, IsALineForEach) {
  auto const unnamed = tunnel({{"intfId", 2001},
                               {"ifIndex", 2001},
                               {"interface", nullptr},
                               {"kind", nullptr},
                               {"remote", ""},
                               {"hopLimit", 0},
                               {"ipsec", false},
                               {"connState", nullptr}});
  auto const served = tables(
      {{"tunnelIfTable", {7, 2001}}, {"tunnelInetConfigTable", {7}}, {"ipsecTunnelIfTable", {7}}});
  EXPECT_EQ("IFINDEX  INTERFACE  KIND  LOCAL      REMOTE     TTL      SECURITY  NOTE\n"
            "      7  gre1       gre   192.0.2.1  192.0.2.2  64       ipsec up\n"
            "   2001             gre   192.0.2.1             inherit  none      1\n"
            "1) no row in tunnelInetConfigTable: no remote address\n",
            Ctl::tunnelsText(Ctl::withRemarks(Json::array({tunnel(), unnamed}), served)));
}

TEST(TunnelsText, FitsThePageOrSaysWhatWasCut) {
  auto const one = tunnel({{"local", "2001:db8:1111:2222:3333:4444:5555:6666"},
                           {"remote", "2001:db8:1111:2222:3333:4444:5555:7777"}});
  auto const text = Ctl::tunnelsText(Ctl::withRemarks(Json::array({one}), allTables()));
  EXPECT_THAT(text, HasSubstr("(cut to 100 columns: LOCAL, REMOTE; --json shows all)"));
  for (std::size_t begin = 0; begin < text.size(); begin = text.find('\n', begin) + 1)
    EXPECT_LE(text.find('\n', begin) - begin, 100u);
}

TEST(TunnelsText, SaysWhereThereAreNone) {
  EXPECT_THAT(Ctl::tunnelsText(Json::array()), HasSubstr("tunnelsnmpctl doctor"));
}

TEST(Tunnel, IsCalledByItsNameItsIfIndexOrItsNumber) {
  EXPECT_EQ("gre1", Ctl::tunnelName(tunnel()));
  EXPECT_EQ("ifIndex 7", Ctl::tunnelName(tunnel({{"interface", nullptr}})));
  EXPECT_EQ("interface 7", Ctl::tunnelName(tunnel({{"interface", nullptr}, {"ifIndex", nullptr}})));
}

} // namespace
