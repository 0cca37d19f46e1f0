// How tunnelsnmpctl prints the answers of the daemon.
#include "ctl/Render.h"
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

TEST(Render, NumbersStandToTheRightAndTextToTheLeft) {
  auto const rows = Json::parse(R"([{"name": "a", "count": 7}, {"name": "long", "count": 1234}])");
  EXPECT_EQ("name  count\n"
            "a         7\n"
            "long   1234\n",
            Ctl::tableText(rows));
}

TEST(Render, AColumnThatNotEveryRowHasStaysEmptyThere) {
  auto const rows = Json::parse(R"([{"a": 1, "b": true}, {"b": false, "c": "x"}])");
  EXPECT_EQ("a  b    c\n"
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
  EXPECT_EQ("t: 1 rows\n"
            "i\n"
            "5\n"
            "\n"
            "u: 0 rows\n",
            Ctl::tablesText(Json::parse(R"({"t": [{"i": 5}], "u": []})")));
}

TEST(Render, StatusShowsMachinesAndTheirInputsApart) {
  auto const text = Ctl::statusText(Json::parse(R"({"ready": true, "version": "1", "servedAt": "x",
      "machines": [{"name": "m", "ready": true, "inputs": [{"name": "i", "scanned": 3}]}]})"));
  EXPECT_NE(std::string::npos, text.find("ready       yes\n"));
  EXPECT_NE(std::string::npos, text.find("\nMachines\nname  ready\nm     yes\n"));
  EXPECT_NE(std::string::npos,
            text.find("\nInputs\nmachine  name  scanned\nm        i           3\n"));
}

TEST(Render, StatusShowsWhatASourceSaysOfItselfBelowTheSources) {
  auto const text = Ctl::statusText(Json::parse(R"({"sources": [
      {"name": "linux", "state": "inSync"},
      {"name": "vici", "state": "inSync",
       "details": {"daemon": "strongSwan 5.9.8", "SAs": "4 bound, 1 not"}}]})"));
  EXPECT_NE(std::string::npos,
            text.find("\nSources\nname   state\nlinux  inSync\nvici   inSync\n"
                      "\nSource vici\ndaemon  strongSwan 5.9.8\nSAs     4 bound, 1 not\n"));
  EXPECT_EQ(std::string::npos, text.find("Source linux"));
}

TEST(Render, ConnectionsStandOneALine) {
  auto const text = Ctl::connectionsText(Json::parse(R"([
      {"connection": "hq", "child": "net", "state": "up", "interface": "ipsec0",
       "reason": "if_id", "source": "vici"},
      {"connection": "branch", "child": "", "state": "down", "interface": "",
       "reason": "no link has if_id 42", "source": "vici"}])"));
  EXPECT_EQ("connection  child  state  interface  rule or reason\n"
            "hq          net    up     ipsec0     if_id\n"
            "branch             down              no link has if_id 42\n",
            text);
}

TEST(Render, ALineOfAConnectionHasAHundredColumnsAtMost) {
  auto const longest = std::string(40, 'n') + "x";
  Json const row{{"connection", longest},
                 {"child", longest},
                 {"state", "connecting"},
                 {"interface", longest},
                 {"reason", std::string(200, 'r')}};
  auto const text = Ctl::connectionsText(Json::array({row}));
  EXPECT_EQ(text.substr(text.find('\n') + 1),
            std::string(17, 'n') + "...  " + std::string(17, 'n') + "...  connecting  " +
                std::string(17, 'n') + "...  " + std::string(19, 'r') + "...\n");
  EXPECT_EQ(text.size() - text.find('\n') - 2, 100u);
}

TEST(Render, ACutLeavesCharactersWhole) {
  Json const row{{"connection", "Zweigstelle 12345\u00fc678"},
                 {"child", "\u00e4"},
                 {"state", "up"},
                 {"interface", "x"},
                 {"reason", "if_id"}};
  EXPECT_EQ(Ctl::connectionsText(Json::array({row})),
            "connection            child  state  interface  rule or reason\n"
            "Zweigstelle 12345...  \u00e4      up     x          if_id\n");
}

TEST(Render, ConnectionsSayWhenNoSourceTellsOfAny) {
  EXPECT_EQ("no source tells of IPsec connections; \"tunnelsnmpctl status\" shows the sources, "
            "\"tunnelsnmpd --help\" which there can be\n",
            Ctl::connectionsText(Json::array()));
}

TEST(Render, StatusShowsTheMasterAndTheRegistrationsApart) {
  auto const text = Ctl::statusText(Json::parse(R"({"ready": true,
      "agentx": {"address": "unix:m", "session": 7,
                 "registrations": [{"oid": "1.3", "state": "refused"}]}})"));
  EXPECT_NE(std::string::npos, text.find("\nAgentX master\naddress  unix:m\nsession  7\n"));
  EXPECT_NE(std::string::npos, text.find("\nRegistrations\noid  state\n1.3  refused\n"));
}

TEST(Render, StatusShowsNoMasterWhereThereIsNone) {
  EXPECT_EQ(std::string::npos, Ctl::statusText(Json::parse("{}")).find("AgentX"));
}

} // namespace
