// How tunnelsnmpctl prints the answers of the daemon.
#include "ctl/Render.h"
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

TEST(Render, NumbersStandToTheRightAndTextToTheLeft) {
  auto const rows = Json::parse(R"([{"name": "a", "count": 7}, {"name": "long", "count": 1234}])");
  EXPECT_EQ("NAME  COUNT\n"
            "a         7\n"
            "long   1234\n",
            Ctl::tableText(rows));
}

TEST(Render, AColumnThatNotEveryRowHasStaysEmptyThere) {
  auto const rows = Json::parse(R"([{"a": 1, "b": true}, {"b": false, "c": "x"}])");
  EXPECT_EQ("A  B    C\n"
            "1  yes\n"
            "   no   x\n",
            Ctl::tableText(rows));
}

TEST(Render, NoRowsGiveNoHeader) {
  EXPECT_EQ("", Ctl::tableText(Json::array()));
}

TEST(Render, PairsAlignTheirNumbers) {
  EXPECT_EQ("a         7\n"
            "longer  120\n"
            "text    x\n",
            Ctl::pairsText(Json::parse(R"({"a": 7, "longer": 120, "text": "x"})")));
}

TEST(Render, TablesStandUnderTheirNamesWithTheirRowCounts) {
  EXPECT_EQ("t: 1 row\n"
            "I\n"
            "5\n"
            "\n"
            "u: 0 rows\n",
            Ctl::tablesText(Json::parse(R"({"t": [{"i": 5}], "u": []})"), Json::object()));
}

TEST(Render, TablesHaveNamesForNumbersAddressesForOctetsAndNoKey) {
  auto const tables = Json::parse(R"({"t": [
      {"key": "Value('x'", "ifIndex": 7, "encapsMethod": 3, "localAddr": "'c0000201'"},
      {"ifIndex": 8, "encapsMethod": 9, "localAddr": "'20010db8000000000000000000000002'"},
      {"ifIndex": 9, "encapsMethod": 1, "localAddr": "''"},
      {"ifIndex": 10, "encapsMethod": 1, "localAddr": "'zz'"}]})");
  auto const columns = Json::parse(R"({"t": [
      {"name": "encapsMethod", "type": "U32", "enumerators": {"1": "other", "3": "gre"}},
      {"name": "localAddr", "type": "Snmp::Bytes"}]})");
  EXPECT_EQ("t: 4 rows\n"
            "IFINDEX  ENCAP  LOCAL ADDRESS\n"
            "      7  gre    192.0.2.1\n"
            "      8  9      2001:db8::2\n"
            "      9  other\n"
            "     10  other  'zz'\n",
            Ctl::tablesText(tables, columns));
}

TEST(Render, ConnectionsStandOneALine) {
  auto const text = Ctl::connectionsText(Json::parse(R"([
      {"connection": "hq", "child": "net", "state": "up", "interface": "ipsec0",
       "reason": "if_id", "source": "vici"},
      {"connection": "branch", "child": "", "state": "down", "interface": "",
       "reason": "no link has if_id 42", "source": "vici"}])"));
  EXPECT_EQ("CONNECTION  CHILD  STATE  INTERFACE  RULE OR REASON\n"
            "hq          net    up     ipsec0     if_id\n"
            "branch             down              no link has if_id 42\n",
            text);
}

TEST(Render, ConnectionsSayWhenNoSourceTellsOfAny) {
  EXPECT_EQ("no source tells of IPsec connections; \"tunnelsnmpctl status\" shows the sources, "
            "\"tunnelsnmpd --help\" which there can be\n",
            Ctl::connectionsText(Json::array()));
}

} // namespace
