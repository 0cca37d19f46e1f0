// Texts that are taken, and what is said of those that are not.
#include "json/Input.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using testing::StartsWith;

/// What is wrong with the text; empty: nothing.
std::string wrong(std::string_view text) {
  try {
    JsonInput::parse<json>(text);
    return "";
  } catch (JsonInput::Wrong const & reason) {
    return reason.what();
  }
}

/// So many arrays and objects inside each other, by turns.
std::string nested(std::size_t levels) {
  std::string begin;
  std::string end;
  for (std::size_t level = 0; level != levels; ++level) {
    begin += level % 2 == 0 ? "[" : "{\"a\":";
    end.insert(0, level % 2 == 0 ? "]" : "}");
  }
  return begin + (levels % 2 == 0 ? "1" : "") + end;
}

TEST(JsonInput, ReadsAWholeText) {
  EXPECT_EQ(JsonInput::parse<json>(R"( {"b": [1, "x"], "a": null} )"),
            json({{"b", {1, "x"}}, {"a", nullptr}}));
  EXPECT_EQ(JsonInput::parse<ordered_json>(R"({"b": 1, "a": 2})").dump(), R"({"b":1,"a":2})");
}

TEST(JsonInput, NamesTheLineAndWhatIsWrong) {
  EXPECT_THAT(wrong("{\n\"a\": 1,\n}"),
              StartsWith("line 3: syntax error while parsing object key"));
  EXPECT_THAT(wrong("{} {}"), StartsWith("line 1: syntax error"));
  EXPECT_THAT(wrong(""), StartsWith("line 1: syntax error while parsing value - unexpected end"));
  EXPECT_THAT(wrong("\n\n[1"), StartsWith("line 3: syntax error"));
  EXPECT_EQ(wrong("[1e999]"), "number overflow parsing '1e999'");
}

TEST(JsonInput, KeepsTheReasonShort) {
  EXPECT_LE(wrong("\"" + std::string(100000, 'x')).size(), 250u);
}

TEST(JsonInput, QuotesTheTextInAscii) {
  EXPECT_EQ(wrong("[\"\xff\"]"), "line 1: syntax error while parsing value - invalid string: "
                                 "ill-formed UTF-8 byte; last read: '\"<FF>'");
  EXPECT_THAT(wrong("[\"\n\"]"), testing::HasSubstr("<U+000A>"));
}

TEST(JsonInput, TakesNoNulOctet) {
  using namespace std::string_view_literals;
  auto const nul = "there is a NUL octet, which JSON text cannot hold; is it UTF-8?";
  EXPECT_EQ(wrong("{}\0"sv), std::string("line 1: ") + nul);
  EXPECT_EQ(wrong("{}\n\0garbage"sv), std::string("line 2: ") + nul);
  EXPECT_EQ(wrong("[\"a\0b\"]"sv), std::string("line 1: ") + nul);
  EXPECT_EQ(wrong("[\"\\u0000\"]"), "") << "an escaped one is a character like others";
}

TEST(JsonInput, HasABoundOfDepth) {
  EXPECT_EQ(wrong(nested(JsonInput::deepest)), "");
  EXPECT_EQ(wrong(nested(JsonInput::deepest + 1)),
            "arrays and objects are nested deeper than 64 levels");
  EXPECT_EQ(wrong(nested(100'000)), JsonInput::tooDeep());
  EXPECT_EQ(wrong(std::string(100'000, '[')), JsonInput::tooDeep());
}

TEST(JsonInput, CountsDepthAndNotArrays) {
  std::string wide = "[";
  for (int i = 0; i != 1000; ++i)
    wide += "[{}],";
  EXPECT_EQ(wrong(wide + "[]]"), "");
}

TEST(JsonInput, CountsNoBracketsInsideStrings) {
  std::string const brackets(100, '[');
  auto const text = R"(["\\", "a\"{)" + brackets + R"(", "\u005b)" + brackets + R"("])";
  EXPECT_EQ(JsonInput::parse<nlohmann::json>(text).size(), 3u);
  EXPECT_THROW(JsonInput::parse<nlohmann::json>(R"(["\\", )" + brackets), JsonInput::Wrong);
}

TEST(JsonInput, NamesNothingOfTheLibrary) {
  for (std::string const text : {"", "{", "[1e999]", "nul", "\"\xff\"", "{\"a\" 1}", "\"\\ud800\""})
    EXPECT_THAT(wrong(text), testing::Not(testing::ContainsRegex("json\\.|exception|parse_error")))
        << text;
}

} // namespace
