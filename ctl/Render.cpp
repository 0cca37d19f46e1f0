// Tables are made from what the daemon sends, without knowing its members: a column that a later
// daemon adds shows without a change here. Only status has an order of its own.
#include "ctl/Render.h"
#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <vector>

namespace Ctl {

using Json = nlohmann::ordered_json;

namespace {

struct Column {
  std::string name;
  std::size_t width;
  bool numbers = true; // stays so while every cell is a number
};

std::string cellText(Json const & cell) {
  if (cell.is_boolean())
    return cell.get<bool>() ? "yes" : "no";
  if (cell.is_string())
    return cell.get_ref<std::string const &>();
  return cell.is_null() ? "" : cell.dump();
}

Json const & cellOf(Json const & row, std::string const & column) {
  static Json const none;
  auto const found = row.find(column);
  return found == row.end() ? none : *found;
}

/// How many columns of a terminal the text takes, which is UTF-8.
std::size_t widthOf(std::string_view text) {
  auto const continues = [](char octet) { return (octet & 0xC0) == 0x80; };
  return text.size() - static_cast<std::size_t>(std::ranges::count_if(text, continues));
}

std::vector<Column> columnsOf(Json const & rows) {
  std::vector<Column> columns;
  for (auto const & row : rows)
    for (auto const & [name, cell] : row.items()) {
      auto column = std::ranges::find(columns, name, &Column::name);
      if (column == columns.end())
        column = columns.insert(columns.end(), {name, widthOf(name)});
      column->width = std::max(column->width, widthOf(cellText(cell)));
      column->numbers = column->numbers && cell.is_number();
    }
  return columns;
}

void putCell(std::string & line, std::string_view text, Column const & column) {
  line += line.empty() ? "" : "  ";
  line += column.numbers ? fmt::format("{:>{}}", text, column.width)
                         : fmt::format("{:<{}}", text, column.width);
}

void putLine(std::string & out, std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  out += line + '\n';
}

/// The inputs of the machines as rows of one table.
Json inputRows(Json const & machines) {
  auto rows = Json::array();
  for (auto const & machine : machines)
    for (auto const & input : machine.value("inputs", Json::array())) {
      Json row{{"machine", machine.value("name", "")}};
      row.update(input);
      rows.push_back(std::move(row));
    }
  return rows;
}

Json without(Json object, char const * member) {
  object.erase(member);
  return object;
}

Json machineRows(Json const & machines) {
  auto rows = Json::array();
  for (auto const & machine : machines)
    rows.push_back(without(machine, "inputs"));
  return rows;
}

/// What the sources say of themselves, each under its name.
std::string detailSections(Json const & sources);
Json sourceRows(Json const & sources);

std::string section(std::string_view title, std::string const & text) {
  return text.empty() ? "" : fmt::format("\n{}\n{}", title, text);
}

} // namespace

std::string tableText(Json const & rows) {
  auto const columns = columnsOf(rows);
  if (columns.empty())
    return "";
  std::string out;
  std::string header;
  for (auto const & column : columns)
    putCell(header, column.name, column);
  putLine(out, std::move(header));
  for (auto const & row : rows) {
    std::string line;
    for (auto const & column : columns)
      putCell(line, cellText(cellOf(row, column.name)), column);
    putLine(out, std::move(line));
  }
  return out;
}

std::string pairsText(Json const & object) {
  std::size_t nameWidth = 0;
  std::size_t numberWidth = 0;
  for (auto const & [name, value] : object.items()) {
    nameWidth = std::max(nameWidth, name.size());
    if (value.is_number())
      numberWidth = std::max(numberWidth, cellText(value).size());
  }
  std::string out;
  for (auto const & [name, value] : object.items())
    putLine(out, fmt::format("{:<{}}  {:>{}}", name, nameWidth, cellText(value),
                             value.is_number() ? numberWidth : 0));
  return out;
}

std::string statusText(Json const & status) {
  auto const machines = status.value("machines", Json::array());
  auto const sources = status.value("sources", Json::array());
  auto const top = Json{{"ready", status.value("ready", false)},
                        {"version", status.value("version", "")},
                        {"served at", status.value("servedAt", "")},
                        {"enterprise", status.value("enterprise", 0)}};
  auto const master = status.value("agentx", Json::object());
  return pairsText(top) + section("AgentX master", pairsText(without(master, "registrations"))) +
         section("Registrations", tableText(master.value("registrations", Json::array()))) +
         section("Machines", tableText(machineRows(machines))) +
         section("Inputs", tableText(inputRows(machines))) +
         section("Sources", tableText(sourceRows(sources))) + detailSections(sources) +
         section("Tasks", pairsText(status.value("tasks", Json::object()))) +
         section("Failures survived", pairsText(status.value("failures", Json::object())));
}

std::string tablesText(Json const & tables) {
  std::string out;
  for (auto const & [name, rows] : tables.items())
    out += fmt::format("{}{}: {} rows\n{}", out.empty() ? "" : "\n", name, rows.size(),
                       tableText(rows));
  return out;
}

namespace {

constexpr std::size_t longestLine = 100;
constexpr std::size_t longestName = 20;

/// The text, or as much of its beginning as leaves room for a mark.
std::string cutTo(std::size_t width, std::string text) {
  constexpr std::string_view mark = "...";
  if (widthOf(text) <= width)
    return text;
  while (widthOf(text) > width - mark.size())
    text.pop_back();
  return text.append(mark);
}

std::string cutName(Json const & connection, char const * member) {
  return cutTo(longestName, connection.value(member, ""));
}

} // namespace

std::string connectionsText(Json const & connections) {
  if (connections.empty())
    return "no source tells of IPsec connections; \"tunnelsnmpctl status\" shows the sources, "
           "\"tunnelsnmpd --help\" which there can be\n";
  auto rows = Json::array();
  for (auto const & one : connections)
    rows.push_back({{"connection", cutName(one, "connection")},
                    {"child", cutName(one, "child")},
                    {"state", cutName(one, "state")},
                    {"interface", cutName(one, "interface")},
                    {"rule or reason", one.value("reason", "")}});
  std::size_t before = 0;
  for (auto const & column : columnsOf(rows))
    before += column.name == "rule or reason" ? 0 : column.width + 2;
  for (auto & row : rows)
    row["rule or reason"] = cutTo(longestLine - before, row["rule or reason"]);
  return tableText(rows);
}

namespace {

std::string detailSections(Json const & sources) {
  std::string out;
  for (auto const & source : sources)
    out += section(fmt::format("Source {}", source.value("name", "")),
                   pairsText(source.value("details", Json::object())));
  return out;
}

Json sourceRows(Json const & sources) {
  auto rows = Json::array();
  for (auto const & source : sources)
    rows.push_back(without(source, "details"));
  return rows;
}

} // namespace

} // namespace Ctl
