// The widths of the columns first, then the lines.
#include "ctl/Table.h"
#include "os/Text.h"
#include <algorithm>
#include <array>
#include <cctype>
#include <fmt/format.h>
#include <numeric>

namespace Ctl {

namespace {

constexpr std::string_view mark = "...";
constexpr std::string_view gap = "  ";
/// No column is made narrower than this, or than its heading, as long as others have more: so much
/// takes an IPv4 address. Where that is not enough, than the second.
constexpr std::array<std::size_t, 2> narrowest{15, 8};

struct Column {
  std::string heading;
  std::size_t width;
  bool isNumbers; // every cell is a number, or empty
  bool isCut = false;
};

/// How many columns of a terminal the text takes, which is UTF-8.
std::size_t widthOf(std::string_view text) {
  auto const continues = [](char octet) { return (octet & 0xC0) == 0x80; };
  return text.size() - static_cast<std::size_t>(std::ranges::count_if(text, continues));
}

std::vector<Column> columnsOf(Table const & table) {
  std::vector<Column> columns;
  columns.reserve(table.headings.size());
  for (auto const & name : table.headings)
    columns.push_back({.heading = name, .width = widthOf(name), .isNumbers = true});
  for (auto const & row : table.rows)
    for (std::size_t i = 0; i != row.size(); ++i) {
      columns[i].width = std::max(columns[i].width, widthOf(Os::printable(row[i].text)));
      columns[i].isNumbers = columns[i].isNumbers && (row[i].isNumber || row[i].text.empty());
    }
  return columns;
}

std::size_t totalWidth(std::vector<Column> const & columns) {
  auto const gaps = (columns.size() - 1) * gap.size();
  return std::accumulate(columns.begin(), columns.end(), gaps,
                         [](std::size_t sum, Column const & one) { return sum + one.width; });
}

/// Takes from the widest columns until all fit, or none can give any more.
void fit(std::vector<Column> & columns, std::size_t least) {
  auto const room = [least](Column const & one) {
    auto const canBeCut = !one.isNumbers && one.width > std::max(least, widthOf(one.heading));
    return canBeCut ? one.width : 0;
  };
  for (auto left = totalWidth(columns); left > pageWidth; --left) {
    auto const widest = std::ranges::max_element(columns, {}, room);
    if (room(*widest) == 0)
      return;
    --widest->width;
    widest->isCut = true;
  }
}

std::string padded(std::string const & text, Column const & column) {
  std::string const blanks(column.width - std::min(column.width, widthOf(text)), ' ');
  return column.isNumbers ? blanks + text : text + blanks;
}

/// A line; its cells are cut to their columns, and all of it to the page.
std::string lineOf(std::vector<Cell> const & cells, std::vector<Column> const & columns,
                   bool hasColours) {
  std::string line;
  std::size_t width = 0;
  std::size_t last = cells.size();
  while (last != 0 && cells[last - 1].text.empty())
    --last;
  for (std::size_t i = 0; i != last; ++i) {
    auto text = padded(cutTo(columns[i].width, Os::printable(cells[i].text)), columns[i]);
    auto const before = i == 0 ? std::string_view() : gap;
    if (width + before.size() + widthOf(text) > pageWidth)
      break; // whatIsCut() tells
    width += before.size() + widthOf(text);
    line += before;
    line += coloured(std::move(text), cells[i].tone, hasColours);
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line + '\n';
}

/// Which columns are cut or missing, in words; empty when none is.
std::string whatIsCut(std::vector<Column> const & columns) {
  std::vector<std::string> cut;
  std::size_t end = 0;
  for (auto const & column : columns) {
    end += column.width + (end == 0 ? 0 : gap.size());
    if (column.isCut || end > pageWidth)
      cut.push_back(column.heading);
  }
  return cut.empty() ? ""
                     : fmt::format("(cut to {} columns: {}; --json shows all)\n", pageWidth,
                                   fmt::join(cut, ", "));
}

} // namespace

std::string layOut(Table const & table, bool hasColours) {
  if (table.rows.empty() || table.headings.empty())
    return "";
  auto columns = columnsOf(table);
  for (auto const least : narrowest)
    fit(columns, least);
  std::vector<Cell> headings;
  headings.reserve(table.headings.size());
  for (auto const & name : table.headings)
    headings.push_back({name, Tone::heading});
  auto out = lineOf(headings, columns, hasColours);
  for (auto const & row : table.rows)
    out += lineOf(row, columns, hasColours);
  return out + whatIsCut(columns);
}

std::string layOutPairs(std::vector<std::pair<std::string, Cell>> const & pairs) {
  std::size_t nameWidth = 0;
  std::size_t numberWidth = 0;
  for (auto const & [name, value] : pairs) {
    nameWidth = std::max(nameWidth, widthOf(name));
    if (value.isNumber)
      numberWidth = std::max(numberWidth, widthOf(value.text));
  }
  std::string out;
  for (auto const & [name, value] : pairs) {
    auto line = fmt::format("{:<{}}  {:>{}}", Os::printable(name), nameWidth,
                            Os::printable(value.text), value.isNumber ? numberWidth : 0);
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
  }
  return out;
}

std::string cutTo(std::size_t width, std::string text) {
  if (widthOf(text) <= width)
    return text;
  while (!text.empty() && widthOf(text) + mark.size() > width)
    text.pop_back();
  return text.append(mark);
}

std::string words(std::string_view name) {
  std::string out;
  for (std::size_t i = 0; i != name.size(); ++i) {
    auto const letter = static_cast<unsigned char>(name[i]);
    auto const begins = i != 0 && std::isupper(letter) != 0 &&
                        std::islower(static_cast<unsigned char>(name[i - 1])) != 0;
    out += begins ? " " : "";
    out += begins ? static_cast<char>(std::tolower(letter)) : name[i];
  }
  return out;
}

std::string heading(std::string_view name) {
  using Pair = std::pair<std::string_view, std::string_view>;
  static constexpr std::array<Pair, 7> known{
      Pair{"if index", "ifindex"}, {"encaps method", "encap"}, {"addr", "address"},
      {"addr type", "family"},     {"conn state", "IPsec"},    {"row status", "status"},
      {"storage type", "storage"}};
  auto text = words(name);
  for (auto const & [ending, better] : known)
    if (auto const place = text.find(ending);
        place != std::string::npos && place + ending.size() == text.size())
      text.replace(place, ending.size(), better);
  std::ranges::transform(text, text.begin(), [](unsigned char letter) {
    return static_cast<char>(std::toupper(letter));
  });
  return text;
}

std::string coloured(std::string text, Tone tone, bool hasColours) {
  auto const end = text.find_last_not_of(' ') + 1;
  if (!hasColours || tone == Tone::plain || end == 0)
    return text;
  static constexpr std::array<int, 5> codes{0, 32, 31, 33, 1}; // ECMA-48, by Tone
  return fmt::format("\x1b[{}m{}\x1b[0m{}", codes[static_cast<std::size_t>(tone)],
                     text.substr(0, end), text.substr(end));
}

} // namespace Ctl
