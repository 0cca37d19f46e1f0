// Tables and lists for people: aligned, no wider than a page, and with no character that a terminal
// would obey.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Ctl {

/// What a text is about, which a terminal may show by its colour.
enum class Tone : std::uint8_t { plain, good, bad, notable, heading };

struct Cell {
  std::string text = {};
  Tone tone = Tone::plain;
  bool isNumber = false; ///< a column of numbers stands to the right
};

struct Table {
  std::vector<std::string> headings = {};
  std::vector<std::vector<Cell>> rows =
      {}; ///< each with as many cells as there are headings, or fewer
};

/// The widest line, in columns of a terminal.
inline constexpr std::size_t pageWidth = 100;

/// The table with its headings: empty for a table without rows. A line has pageWidth columns at
/// most; where cells had to be cut, which is marked by "...", a line below says in which columns. A
/// control character shows as its number.
std::string layOut(Table const & table, bool hasColours = false);

/// Lines of a name and a value, without a cut; names and numbers are aligned.
std::string layOutPairs(std::vector<std::pair<std::string, Cell>> const & pairs);

/// The text, or as much of its beginning as leaves room for a mark; in columns of a terminal.
std::string cutTo(std::size_t width, std::string text);

/// The name of a member as people read it: "hopLimit" is "hop limit".
std::string words(std::string_view name);
/// The same as a heading, with some words as engineers have them: "localAddr" is "LOCAL ADDRESS".
std::string heading(std::string_view name);

/// The text in the colour of its tone, where a terminal shows colours.
std::string coloured(std::string text, Tone tone, bool hasColours);

} // namespace Ctl
