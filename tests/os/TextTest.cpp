// Text of unknown origin, as it is shown.
#include "os/Text.h"
#include <gtest/gtest.h>

namespace {

TEST(Text, StaysAsItIsWhereNothingIsObeyed) {
  for (auto const * text : {"", "plain (text) ~", "Zürich", "日本", "\xF0\x9F\x98\x80", "\\x1B"})
    EXPECT_EQ(text, Os::printable(text));
}

TEST(Text, ShowsWhatATerminalWouldObeyByItsNumber) {
  EXPECT_EQ("\\x1B[2J\\x07", Os::printable("\x1B[2J\x07"));
  EXPECT_EQ("a\\x0Ab\\x0D\\x09\\x7F", Os::printable("a\nb\r\t\x7F"));
  EXPECT_EQ("\\x00z", Os::printable(std::string_view("\0z", 2)));
  EXPECT_EQ("\\xC2\\x9B2J", Os::printable("\xC2\x9B"
                                          "2J"));
  EXPECT_EQ("\xC2\xA0", Os::printable("\xC2\xA0")) << "the first character behind those";
}

TEST(Text, ShowsWhatIsNoUtf8ByItsNumber) {
  EXPECT_EQ("\\x80", Os::printable("\x80"));
  EXPECT_EQ("\\xFFx", Os::printable("\xFFx"));
  EXPECT_EQ("\\xE2\\x82", Os::printable("\xE2\x82")) << "cut off";
  EXPECT_EQ("\\xE2x", Os::printable("\xE2x"));
  EXPECT_EQ("\\xC1\\x8A", Os::printable("\xC1\x8A")) << "a line end in two octets";
  EXPECT_EQ("\\xE0\\x80\\x8A", Os::printable("\xE0\x80\x8A")) << "and in three";
  EXPECT_EQ("\\xF0\\x80\\x80\\x8A", Os::printable("\xF0\x80\x80\x8A")) << "and in four";
  EXPECT_EQ("\\xED\\xA0\\x80", Os::printable("\xED\xA0\x80")) << "half of a pair";
  EXPECT_EQ("\\xF4\\x90\\x80\\x80", Os::printable("\xF4\x90\x80\x80")) << "beyond the last one";
  EXPECT_EQ("\\xF5", Os::printable("\xF5"));
}

TEST(Text, IsOneLineHoweverManyItHas) {
  EXPECT_EQ("first second", Os::oneLine(" first\n \t second\r\n"));
  EXPECT_EQ("", Os::oneLine(" \n"));
  EXPECT_EQ("a \\x1B[1m b", Os::oneLine("a \x1B[1m\nb"));
}

} // namespace
