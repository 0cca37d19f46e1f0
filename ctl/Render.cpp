// Tables are made from what the daemon sends, without knowing its members: a column that a later
// daemon adds shows without a change here.
#include "ctl/Render.h"
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>

namespace Ctl {

using Json = nlohmann::ordered_json;

namespace {

/// "'c0000201'", as octets are sent, as "192.0.2.1"; any other text as it is.
std::string addressText(std::string const & octets);

/// A value as people read it.
Json readable(Json const & value, Json const & column) {
  if (value.is_number_unsigned()) {
    auto const names = column.value("enumerators", Json::object());
    return names.contains(value.dump()) ? Json(words(names.at(value.dump()).get<std::string>()))
                                        : value;
  }
  if (value.is_string() && column.value("type", "") == "Snmp::Bytes")
    return addressText(value.get<std::string>());
  return value;
}

Json readableRow(Json const & row, std::map<std::string, Json> const & columns) {
  auto out = Json::object();
  for (auto const & [name, value] : row.items())
    if (name != "key")
      out[name] = readable(value, columns.contains(name) ? columns.at(name) : Json::object());
  return out;
}

Json readableRows(Json const & rows, Json const & columns) {
  std::map<std::string, Json> byName;
  for (auto const & column : columns)
    byName.emplace(column.value("name", ""), column);
  auto out = Json::array();
  for (auto const & row : rows)
    out.push_back(readableRow(row, byName));
  return out;
}

} // namespace

Table tableOf(Json const & rows) {
  std::vector<std::string> names;
  for (auto const & row : rows)
    for (auto const & [name, value] : row.items())
      if (std::ranges::find(names, name) == names.end())
        names.push_back(name);
  Table table;
  for (auto const & name : names)
    table.headings.push_back(heading(name));
  for (auto const & row : rows) {
    auto & cells = table.rows.emplace_back();
    for (auto const & name : names)
      cells.push_back(row.contains(name) ? cellOf(row.at(name)) : Cell());
  }
  return table;
}

std::string tableText(Json const & rows, bool hasColours) {
  return layOut(tableOf(rows), hasColours);
}

std::string pairsText(Json const & object) {
  std::vector<std::pair<std::string, Cell>> pairs;
  for (auto const & [name, value] : object.items())
    pairs.emplace_back(name, cellOf(value));
  return layOutPairs(pairs);
}

Cell cellOf(Json const & value) {
  if (value.is_boolean())
    return {value.get<bool>() ? "yes" : "no"};
  if (value.is_string())
    return {value.get<std::string>()};
  if (value.is_null())
    return {};
  return {.text = value.dump(), .isNumber = value.is_number()};
}

std::string tablesText(Json const & tables, Json const & columns, bool hasColours) {
  std::string out;
  for (auto const & [name, rows] : tables.items())
    out +=
        fmt::format("{}{}: {} row{}\n{}", out.empty() ? "" : "\n", name, rows.size(),
                    rows.size() == 1 ? "" : "s",
                    tableText(readableRows(rows, columns.value(name, Json::array())), hasColours));
  return out;
}

std::string connectionsText(Json const & connections, bool hasColours) {
  if (connections.empty())
    return "no source tells of IPsec connections; \"tunnelsnmpctl status\" shows the sources, "
           "\"tunnelsnmpd --help\" which there can be\n";
  Table table{.headings = {"CONNECTION", "CHILD", "STATE", "INTERFACE", "RULE OR REASON"}};
  for (auto const & one : connections) {
    auto const state = one.value("state", "");
    table.rows.push_back({{one.value("connection", "")},
                          {one.value("child", "")},
                          {words(state), toneOf(state)},
                          {one.value("interface", "")},
                          {one.value("reason", "")}});
  }
  return layOut(table, hasColours);
}

Tone toneOf(std::string_view connState) {
  if (connState == "up" || connState == "rekeying")
    return Tone::good;
  return connState == "down" || connState == "closing" ? Tone::bad : Tone::notable;
}

namespace {

std::string addressText(std::string const & octets) {
  auto const digits = octets.size() < 2 ? "" : octets.substr(1, octets.size() - 2);
  auto const isHex =
      std::ranges::all_of(digits, [](unsigned char digit) { return isxdigit(digit); });
  if (!isHex || (digits.size() != 8 && digits.size() != 32))
    return digits.empty() ? digits : octets;
  std::array<unsigned char, 16> address{};
  for (std::size_t i = 0; i != digits.size() / 2; ++i)
    address[i] = static_cast<unsigned char>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(digits.size() == 8 ? AF_INET : AF_INET6, address.data(), text.data(), text.size());
  return text.data();
}

} // namespace
} // namespace Ctl
