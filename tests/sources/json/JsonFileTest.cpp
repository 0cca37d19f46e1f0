// Document files: what is read from them, and the line that an error names.
#include "sources/json/JsonFile.h"
#include "statedb/Publisher.h"
#include "statedb/Schema.h"
#include "statedb/StateDocument.h"
#include "tests/support/TemporaryFolder.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

/// Reads a file of that text into an empty database.
class Reader {
public:
  /// What the database then holds. Raises what the reading raises.
  json read(std::string const & text) {
    folder_.write("branch.json", text);
    auto read = publisher_.beginFullRead();
    Sources::readDocument(folder_.file("branch.json"), read, [] { return true; });
    std::move(read).commit(StateDb::FullRead::Pace::atOnce);
    return StateDb::StateDocument(database_).read("");
  }
  /// What is wrong with it, without the folder; empty: nothing.
  std::string error(std::string const & text) {
    try {
      read(text);
      return "";
    } catch (Sources::JsonFileError const & wrong) {
      std::string const what = wrong.what();
      EXPECT_THAT(what, StartsWith(folder_.path().string() + "/"));
      return what.substr(folder_.path().string().size() + 1);
    }
  }

private:
  TemporaryFolder const folder_;
  StateDb::StateDb database_;
  StateDb::Publishers publishers_{database_};
  StateDb::Publisher publisher_{publishers_};
};

json read(std::string const & text) {
  return Reader().read(text);
}
std::string error(std::string const & text) {
  return Reader().error(text);
}

TEST(JsonFile, HandsOverEveryKindOfRecord) {
  auto const document = json::parse(R"({
    "tunnelIntfStatusDir": {"intfStatus": {
      "5": {"srcAddr": "192.0.2.1", "dstAddr": "2001:db8::1", "mode": "gre", "hopLimit": 64,
            "tos": 63, "ipsec": true},
      "18446744073709551615": null}},
    "ifMib": {"ifIndexByIntfId": {"0": 2147483647, "5": 17}},
    "ikeStatus": {
      "ipsecTunnelInfo": {"5": {"profileName": "a/b"}, "6": null},
      "appliedProfiles": {
        "a/b": {"appliedIntfId": {"5": {"connState": "up"}, "6": null}},
        "empty": {"appliedIntfId": {}},
        "null": null}}})");
  EXPECT_EQ(read(document.dump()), document);
}

TEST(JsonFile, TakesWhatIsLeftOutForTheDefault) {
  auto const empty = read("{}\n");
  EXPECT_EQ(empty["tunnelIntfStatusDir"]["intfStatus"], json::object());
  auto const status = read(R"({"tunnelIntfStatusDir": {"intfStatus": {"5": {}}}, "ifMib": {}})");
  EXPECT_EQ(status["tunnelIntfStatusDir"]["intfStatus"]["5"],
            json::parse(R"({"srcAddr": "", "dstAddr": "", "mode": "unknown", "hopLimit": 0,
                            "tos": 0, "ipsec": false})"));
  auto const profile = read(R"({"ikeStatus": {"appliedProfiles": {"a": {}}}})");
  EXPECT_EQ(profile["ikeStatus"]["appliedProfiles"]["a"]["appliedIntfId"], json::object());
}

TEST(JsonFile, KnowsEveryCollectionOfTheDocument) {
  for (auto const & entity : StateDb::entityTypes())
    for (auto const & collection : entity.type->collections)
      EXPECT_EQ(error(fmt::format(R"({{"{}": {{"{}": {{}}}}}})", entity.name, collection.name)),
                "");
}

TEST(JsonFile, NamesTheLineOfAValueThatDoesNotFit) {
  EXPECT_EQ(error(R"({
  "tunnelIntfStatusDir": {
    "intfStatus": {
      "4": {"srcAddr": "192.0.2.1"},
      "5": {
        "mode": "gre",
        "srcAddr":
          "192.0.2",
        "tos": 1
      }
    }
  }
})"),
            "branch.json:7: /tunnelIntfStatusDir/intfStatus/5/srcAddr: must be an IPv4 or IPv6 "
            "address, or \"\" for none, not \"192.0.2\"");
}

TEST(JsonFile, NamesTheLineOfAKeyThatDoesNotFit) {
  EXPECT_THAT(error("{\n\"ifMib\": {\n\n\"ifIndexByIntfId\": {\"4\": 1,\n\"05\": 2}}}"),
              StartsWith("branch.json:5: /ifMib/ifIndexByIntfId/05: is no interface id"));
  EXPECT_THAT(error("{\n\n\"ifmib\": {}}"), StartsWith("branch.json:3: /ifmib: there is no such"));
  EXPECT_THAT(error("\n[]"), StartsWith("branch.json:1: \"\": must be an object"));
}

TEST(JsonFile, NamesTheLineOfASyntaxError) {
  EXPECT_THAT(error("{\n  \"ifMib\": {\n  }\n  \"ikeStatus\": {}\n}"),
              StartsWith("branch.json:4: syntax error"));
  EXPECT_THAT(error("{\n  \"ifMib\": {},\n}\n\n"), StartsWith("branch.json:3: syntax error"));
  EXPECT_THAT(error("{\n  \"ifMib\": {\n"), StartsWith("branch.json:3: syntax error"));
  EXPECT_THAT(error("{\n  \"ifMib\": 12x\n}"), StartsWith("branch.json:2: syntax error"));
  EXPECT_THAT(error("{\"ifMib\":\n\"no end\n}"), StartsWith("branch.json:2: syntax error"));
  EXPECT_THAT(error("{}\n{}"), StartsWith("branch.json:2: syntax error"));
  EXPECT_THAT(error("{\n\"a\xff\": 1}"), StartsWith("branch.json:2: syntax error"));
  EXPECT_THAT(error("{\n\"ifMib\": 1e999}"), StartsWith("branch.json:2: "));
}

/// Objects in objects.
std::string nested(int depth) {
  std::string text;
  for (int i = 0; i != depth; ++i)
    text += "{\"a\": ";
  return text + "{}" + std::string(static_cast<std::size_t>(depth), '}');
}

TEST(JsonFile, ReportsInOneLineThatIsNotTooLong) {
  for (auto const & text :
       {"{\n  \"ifMib\": \"" + std::string(10000, 'x') + "\n",
        "{\"ifMib\": \"" + std::string(10000, 'x') + "\"}", std::string("{\"if\tMib\": {}}"),
        std::string(R"({"a\n\u001b[31mb": {}})"), std::string("{\"ifMib\": \"\n\"}"),
        "{\"" + std::string(10000, 'x') + "\": 1}", nested(10000)}) {
    EXPECT_LT(error(text).size(), 300u);
    EXPECT_TRUE(std::ranges::none_of(error(text), [](unsigned char one) { return one < ' '; }));
    EXPECT_NE(error(text), "");
  }
}

TEST(JsonFile, RefusesAKeyThatIsThereTwice) {
  EXPECT_EQ(error("{\"ifMib\": {\"ifIndexByIntfId\": {\n\"5\": 1,\n\"6\": 2,\n\"5\": 1\n}}}"),
            "branch.json:4: /ifMib/ifIndexByIntfId/5: this key is there twice");
  EXPECT_EQ(error("{\"ifMib\": {},\n\"ifMib\": {}}"),
            "branch.json:2: /ifMib: this key is there twice");
  EXPECT_EQ(error(R"({"ikeStatus": {"appliedProfiles": {"a": {"appliedIntfId": {"5": null}},
                                                       "b": {"appliedIntfId": {"5": null}}}}})"),
            "");
}

TEST(JsonFile, TakesAnEmptyFileForAMistake) {
  for (std::string const text : {"", "\n", " \t\r\n\n"})
    EXPECT_EQ(error(text), "branch.json: the file is empty; write at least {}");
}

TEST(JsonFile, HasABoundOfDepth) {
  EXPECT_EQ(error(std::string(100000, '[')),
            "branch.json:1: arrays and objects are nested deeper than 64 levels");
  EXPECT_EQ(error("{\"ifMib\":\n" + nested(100000) + "}"),
            "branch.json:2: arrays and objects are nested deeper than 64 levels");
  EXPECT_THAT(error("{\"ifMib\":\n" + nested(62) + "}"), HasSubstr("there is no such member"));
  EXPECT_EQ(error("{\"ifMib\":\n" + nested(63) + "}"),
            "branch.json:2: arrays and objects are nested deeper than 64 levels");
}

TEST(JsonFile, CountsTheElementsOfArraysInPointers) {
  EXPECT_EQ(error(R"({"ifMib": [1, {}, {"b": 2}, {"a": 3, "a": 4}]})"),
            "branch.json:1: /ifMib/3/a: this key is there twice");
  EXPECT_EQ(error(R"([[], [{"a": {"b": 1, "b": 2}}]])"),
            "branch.json:1: /1/0/a/b: this key is there twice");
}

TEST(JsonFile, TakesANulOctetForAFault) {
  using namespace std::string_literals;
  auto const nul = ": there is a NUL octet, which JSON text cannot hold; is it UTF-8?";
  EXPECT_EQ(error("{}\0"s), "branch.json:1"s + nul);
  EXPECT_EQ(error("{}\n\n\0 garbage"s), "branch.json:3"s + nul);
  EXPECT_EQ(error("\0"s), "branch.json:1"s + nul);
  EXPECT_EQ(error("{\"a\0\": 1}"s), "branch.json:1"s + nul);
}

TEST(JsonFile, SaysWhatEachPlaceWants) {
  auto const reason = [](std::string const & text) {
    auto const all = error(text);
    return all.substr(all.find(": ") + 2);
  };
  EXPECT_EQ(reason("[]"), "\"\": must be an object with some of tunnelIntfStatusDir, ifMib, "
                          "ikeStatus, not an array");
  EXPECT_EQ(reason(R"({"ifmib": {}})"),
            "/ifmib: there is no such entity; there are tunnelIntfStatusDir, ifMib, ikeStatus");
  EXPECT_EQ(reason(R"({"ifMib": 5})"), "/ifMib: must be an object, not 5");
  EXPECT_EQ(reason(R"({"tunnelIntfStatusDir": {"intfStatus": null}})"),
            "/tunnelIntfStatusDir/intfStatus: must be an object with a record for each key, not "
            "null");
  EXPECT_EQ(reason(R"({"ifMib": {"ifIndexByIntfId": []}})"),
            "/ifMib/ifIndexByIntfId: must be an object with a record for each key, not an array");
  EXPECT_EQ(reason(R"({"ifMib": {"ifIndexByIntfId": {"5": {}}}})"),
            "/ifMib/ifIndexByIntfId/5: must be an ifIndex, 1 to 2147483647, not an object");
  EXPECT_EQ(reason(R"({"ifMib": {"ifIndexByIntfId": {"5": -1}}})"),
            "/ifMib/ifIndexByIntfId/5: must be an ifIndex, 1 to 2147483647, not -1");
  EXPECT_EQ(reason(R"({"ifMib": {"ifIndexByIntfId": {"5": 1.5}}})"),
            "/ifMib/ifIndexByIntfId/5: must be an ifIndex, 1 to 2147483647, not 1.5");
  EXPECT_EQ(reason(R"({"ifMib": {"size": {}}})"), "/ifMib/size: there is no such member");
  EXPECT_EQ(reason(R"({"tunnelIntfStatusDir": {"intfStatus": {"5": 1}}})"),
            "/tunnelIntfStatusDir/intfStatus/5: must be an object with the record's members, or "
            "null, not 1");
  EXPECT_EQ(reason(R"({"tunnelIntfStatusDir": {"intfStatus": {"5": {"ipsec": {"a": 1}}}}})"),
            "/tunnelIntfStatusDir/intfStatus/5/ipsec: must be true or false, not an object");
  EXPECT_EQ(reason(R"({"tunnelIntfStatusDir": {"intfStatus": {"5": {"colour": {"a": 1}}}}})"),
            "/tunnelIntfStatusDir/intfStatus/5/colour: there is no such member");
  EXPECT_EQ(reason(R"({"ikeStatus": {"appliedProfiles": {"": {}}}})"),
            "/ikeStatus/appliedProfiles/: a profile needs a name");
  EXPECT_EQ(reason(R"({"ikeStatus": {"appliedProfiles": {"a/b~": {"x": 1}}}})"),
            "/ikeStatus/appliedProfiles/a~1b~0/x: there is no such member");
  EXPECT_EQ(reason(R"({"ikeStatus": {"appliedProfiles": {"a": {"appliedIntfId": 7}}}})"),
            "/ikeStatus/appliedProfiles/a/appliedIntfId: must be an object with a record for each "
            "key, not 7");
}

TEST(JsonFile, ReportsAFaultOfTheTextBeforeAValueThatDoesNotFit) {
  EXPECT_THAT(error("{\n\"ifMib\": 5,\n\"ikeStatus\": nonsense}"),
              StartsWith("branch.json:3: syntax error"));
  EXPECT_THAT(error("{\n\"ifMib\": 5,\n\"ifMib\": {}}"),
              StartsWith("branch.json:3: /ifMib: this key is there twice"));
  EXPECT_THAT(error("{\n\"ifMib\": 5,\n\"ikeStatus\": 6}"), StartsWith("branch.json:2: /ifMib"));
}

/// A document with tunnels 1 to 1000, one a line, of several pieces; tunnel N is in line N + 1.
std::string manyLines(std::string const & last) {
  std::string text = "{\"tunnelIntfStatusDir\": {\"intfStatus\": {\n";
  for (int id = 1; id <= 1000; ++id)
    text += fmt::format("\"{}\": {{\"srcAddr\": \"192.0.2.1\", \"tos\": {}}},\n", id, id % 64);
  return text + last + "}}}";
}

TEST(JsonFile, ReadsAFileOfManyPieces) {
  auto const all = read(manyLines("\"5000\": null"));
  auto const & statuses = all["tunnelIntfStatusDir"]["intfStatus"];
  ASSERT_EQ(statuses.size(), 1001u);
  for (int id = 1; id <= 1000; ++id)
    ASSERT_EQ(statuses[std::to_string(id)]["tos"], id % 64);
}

TEST(JsonFile, CountsTheLinesOfAFileOfManyPieces) {
  EXPECT_THAT(error(manyLines("\"x\": null")),
              StartsWith("branch.json:1002: /tunnelIntfStatusDir/intfStatus/x: is no interface"));
  EXPECT_THAT(error(manyLines("\"999\": null")),
              StartsWith("branch.json:1002: /tunnelIntfStatusDir/intfStatus/999: this key"));
  EXPECT_THAT(error(manyLines("}")), StartsWith("branch.json:1002: syntax error"));
}

TEST(JsonFile, EndsWhenItIsNotWantedAnyMore) {
  TemporaryFolder const folder;
  folder.write("f", manyLines("\"5000\": null"));
  StateDb::StateDb database;
  StateDb::Publishers publishers(database);
  StateDb::Publisher publisher(publishers);
  auto read = publisher.beginFullRead();
  int pieces = 0;
  try {
    Sources::readDocument(folder.file("f"), read, [&] { return ++pieces != 2; });
    FAIL();
  } catch (Sources::JsonFileError const & wrong) {
    FAIL() << wrong.what();
  } catch (...) {
    EXPECT_EQ(pieces, 2);
  }
}

} // namespace
