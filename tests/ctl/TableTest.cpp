// How tables are laid out on a page of a hundred columns.
#include "ctl/Table.h"
#include <gmock/gmock.h>
#include <sstream>

namespace {

using testing::HasSubstr;

std::vector<std::string> linesOf(std::string const & text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

TEST(Table, WithoutRowsIsEmpty) {
  EXPECT_EQ("", Ctl::layOut({.headings = {"A"}, .rows = {}}));
}

TEST(Table, AlignsNumbersToTheRightEvenWhereSomeAreMissing) {
  EXPECT_EQ("  A  B\n"
            " 10  x\n"
            "     y\n"
            "200\n",
            Ctl::layOut({{"A", "B"},
                         {{{.text = "10", .isNumber = true}, {"x"}},
                          {{}, {"y"}},
                          {{.text = "200", .isNumber = true}}}}));
}

TEST(Table, CutsTheWidestColumnsToThePageAndSaysWhich) {
  std::string const longest(80, 'x');
  auto const lines =
      linesOf(Ctl::layOut({{"NAME", "ONE", "OTHER"}, {{{"short"}, {longest}, {longest}}}}));
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ(100u, lines[1].size());
  EXPECT_THAT(lines[1], testing::StartsWith("short  xxx"));
  EXPECT_THAT(lines[1], testing::EndsWith("x..."));
  EXPECT_EQ("(cut to 100 columns: ONE, OTHER; --json shows all)", lines[2]);
}

TEST(Table, CutsWhatIsShortOnlyWhereTheRestIsShortAlready) {
  std::string const longest(80, 'x');
  std::string const address = "198.51.100.255";
  Ctl::Table table{{"A", "B", "C", "D"}, {{{address}, {address}, {address}, {longest}}}};
  EXPECT_THAT(linesOf(Ctl::layOut(table)).back(), HasSubstr("100 columns: D;"));
  table.headings.insert(table.headings.end(), {"E", "F", "G"});
  table.rows[0].insert(table.rows[0].end(), {{address}, {address}, {address}});
  EXPECT_THAT(linesOf(Ctl::layOut(table)).back(), HasSubstr("100 columns: A, B, C, D, E, F, G;"));
}

TEST(Table, SaysNothingWhereNothingIsCut) {
  std::string const fitting(96, 'x');
  EXPECT_EQ("A   B\n"
            "aa  " +
                fitting + "\n",
            Ctl::layOut({{"A", "B"}, {{{"aa"}, {fitting}}}}));
}

TEST(Table, LeavesOutColumnsThatFindNoRoomAndSaysWhich) {
  Ctl::Table table;
  auto & row = table.rows.emplace_back();
  for (int i = 0; i != 20; ++i) {
    table.headings.push_back("COLUMN " + std::to_string(10 + i));
    row.push_back({.text = "1", .isNumber = true});
  }
  auto const lines = linesOf(Ctl::layOut(table));
  EXPECT_LE(lines[0].size(), 100u);
  EXPECT_LE(lines[1].size(), 100u);
  EXPECT_THAT(lines[0], testing::EndsWith("COLUMN 18"));
  EXPECT_THAT(lines[2], testing::StartsWith("(cut to 100 columns: COLUMN 19, COLUMN 20"));
}

TEST(Table, ACutLeavesCharactersWhole) {
  EXPECT_EQ("Zweigstelle 12345...", Ctl::cutTo(20, "Zweigstelle 12345\u00fc678"));
  EXPECT_EQ("\u00e4", Ctl::cutTo(20, "\u00e4"));
}

TEST(Table, ShowsNoControlCharacterAsItIs) {
  EXPECT_EQ("A\n"
            "x\\x1B[2J\\x0Ay\n",
            Ctl::layOut({{"A"}, {{{"x\x1b[2J\ny"}}}}));
  EXPECT_EQ("x\\x0A  \\x1B\n", Ctl::layOutPairs({{"x\n", {"\x1b"}}}));
}

TEST(Table, HasColoursOnlyWhereTheyAreWanted) {
  Ctl::Table const table{{"A", "B"}, {{{"up", Ctl::Tone::good}, {"plain"}}}};
  EXPECT_EQ(std::string::npos, Ctl::layOut(table).find('\x1b'));
  EXPECT_THAT(Ctl::layOut(table, true), HasSubstr("\x1b[32mup\x1b[0m  plain\n"));
}

TEST(Table, ColoursTakeNoRoom) {
  std::string const longest(150, 'x');
  auto const lines = linesOf(Ctl::layOut({{"A"}, {{{longest, Ctl::Tone::bad}}}}, true));
  EXPECT_EQ("\x1b[31m" + std::string(97, 'x') + "...\x1b[0m", lines[1]);
}

TEST(Heading, IsWhatPeopleCallTheColumn) {
  EXPECT_EQ("IFINDEX", Ctl::heading("ifIndex"));
  EXPECT_EQ("HOP LIMIT", Ctl::heading("hopLimit"));
  EXPECT_EQ("LOCAL ADDRESS", Ctl::heading("localAddr"));
  EXPECT_EQ("FAMILY", Ctl::heading("addrType"));
  EXPECT_EQ("ENCAP", Ctl::heading("encapsMethod"));
  EXPECT_EQ("SOMETHING NEW", Ctl::heading("somethingNew"));
}

} // namespace
