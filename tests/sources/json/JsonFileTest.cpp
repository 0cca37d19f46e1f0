#include "sources/json/JsonFile.h"
#include "tests/support/TemporaryFolder.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

std::string error(std::string_view text) {
  try {
    Sources::decodeDocument("branch.json", text);
    return "";
  } catch (Sources::JsonFileError const & wrong) {
    return wrong.what();
  }
}

TEST(JsonFile, ReadsADocument) {
  EXPECT_EQ(Sources::decodeDocument("f", R"({"ifMib": {"ifIndexByIntfId": {"5": 17}}})"),
            json::parse(R"({"ifMib": {"ifIndexByIntfId": {"5": 17}}})"));
  EXPECT_EQ(Sources::decodeDocument("f", "{}\n"), json::object());
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

TEST(JsonFile, ReportsInOneLineThatIsNotTooLong) {
  for (auto const & text : {"{\n  \"ifMib\": \"" + std::string(10000, 'x') + "\n",
                            "{\"ifMib\": \"" + std::string(10000, 'x') + "\"}",
                            std::string("{\"if\tMib\": {}}"), std::string("{\"ifMib\": \"\n\"}")}) {
    EXPECT_LT(error(text).size(), 300u);
    EXPECT_EQ(error(text).find('\n'), std::string::npos);
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
  for (auto const * text : {"", "\n", " \t\r\n\n"})
    EXPECT_EQ(error(text), "branch.json: the file is empty; write at least {}");
}

TEST(JsonFile, SurvivesDeepNesting) {
  EXPECT_THAT(error(std::string(100000, '[')), HasSubstr("syntax error"));
  EXPECT_THAT(error("{\"ifMib\": " + std::string(100000, '[') + std::string(100000, ']') + "}"),
              HasSubstr("/ifMib: must be an object, not an array"));
}

TEST(JsonFile, FindsTheNearestLineOfAPointer) {
  auto const * const text = "{\n\"a\": {\n\"b/c\": {\n\"~\": [\n{\"x\": 1}]}},\n\"ab\": 2}";
  EXPECT_EQ(Sources::lineOf(text, ""), 1u);
  EXPECT_EQ(Sources::lineOf(text, "/a"), 2u);
  EXPECT_EQ(Sources::lineOf(text, "/a/b~1c"), 3u);
  EXPECT_EQ(Sources::lineOf(text, "/a/b~1c/~0"), 4u);
  EXPECT_EQ(Sources::lineOf(text, "/a/b~1c/none/at/all"), 3u);
  EXPECT_EQ(Sources::lineOf(text, "/ab"), 6u);
  EXPECT_EQ(Sources::lineOf(text, "/abc"), 1u);
}

TEST(JsonFile, SaysWhyAFileCannotBeRead) {
  TemporaryFolder const folder;
  auto const why = [](std::string const & path) -> std::string {
    try {
      Sources::readFile(path);
      return "";
    } catch (Sources::JsonFileError const & wrong) {
      return wrong.what();
    }
  };
  auto const missing = folder.file("missing.json");
  EXPECT_EQ(why(missing), missing + ": cannot be read: No such file or directory");
  EXPECT_EQ(why(folder.path().string()),
            folder.path().string() + ": cannot be read: Is a directory");
  folder.write("f", std::string(100000, 'x') + "\n");
  EXPECT_EQ(Sources::readFile(folder.file("f")), std::string(100000, 'x') + "\n");
}

} // namespace
