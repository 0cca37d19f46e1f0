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

std::vector<Column> columnsOf(Json const & rows) {
  std::vector<Column> columns;
  for (auto const & row : rows)
    for (auto const & [name, cell] : row.items()) {
      auto column = std::ranges::find(columns, name, &Column::name);
      if (column == columns.end())
        column = columns.insert(columns.end(), {name, name.size()});
      column->width = std::max(column->width, cellText(cell).size());
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
  auto const top = Json{{"ready", status.value("ready", false)},
                        {"version", status.value("version", "")},
                        {"served at", status.value("servedAt", "")},
                        {"enterprise", status.value("enterprise", 0)}};
  auto const master = status.value("agentx", Json::object());
  return pairsText(top) + section("AgentX master", pairsText(without(master, "registrations"))) +
         section("Registrations", tableText(master.value("registrations", Json::array()))) +
         section("Machines", tableText(machineRows(machines))) +
         section("Inputs", tableText(inputRows(machines))) +
         section("Sources", tableText(status.value("sources", Json::array()))) +
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

} // namespace Ctl
