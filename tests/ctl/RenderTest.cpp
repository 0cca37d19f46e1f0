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

} // namespace
