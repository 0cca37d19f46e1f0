// The rules by which a tunnel has a row are the machines' (docs/overview.md). Here they are told
// the other way round: a row that is not there, and which of its conditions does not hold.
#include "ctl/Tunnels.h"
#include "ctl/Render.h"
#include "os/Text.h"
#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <tuple>

namespace Ctl {

using Json = nlohmann::ordered_json;

namespace {

constexpr auto interfaces = "tunnelIfTable";
constexpr auto endpoints = "tunnelInetConfigTable";
constexpr auto connections = "ipsecTunnelIfTable";

/// What decides which of several tunnels has the row: their addresses and encapsulation.
using Key = std::tuple<std::string, std::string, std::uint64_t>;

std::optional<std::uint64_t> ifIndexOf(Json const & object) {
  auto const found = object.find("ifIndex");
  return found == object.end() ? std::nullopt : std::optional(found->get<std::uint64_t>());
}

/// Who has which rows.
class Rows {
public:
  explicit Rows(Json const & tables) : tables_(tables) {
    for (auto const & [name, rows] : tables.items())
      for (auto const & row : rows)
        if (auto const ifIndex = ifIndexOf(row))
          has_[name].insert(*ifIndex);
    for (auto const & row : tables.value(interfaces, Json::array()))
      if (auto const ifIndex = ifIndexOf(row)) {
        Key const key{row.value("localAddr", ""), row.value("remoteAddr", ""),
                      row.value("encapsMethod", std::uint64_t{0})};
        keys_[*ifIndex] = key;
        if (has(endpoints, *ifIndex))
          owners_[key] = *ifIndex;
      }
  }

  bool has(std::string const & table, std::uint64_t ifIndex) const {
    auto const found = has_.find(table);
    return found != has_.end() && found->second.contains(ifIndex);
  }
  /// True if and only if the daemon serves such a table.
  bool isServed(std::string const & table) const { return tables_.contains(table); }
  /// The ifIndex that has the row of this one's addresses; nothing when none has.
  std::optional<std::uint64_t> ownerOf(std::uint64_t ifIndex) const {
    auto const key = keys_.find(ifIndex);
    if (key == keys_.end() || !owners_.contains(key->second))
      return std::nullopt;
    return owners_.at(key->second);
  }

private:
  Json const & tables_;
  std::map<std::string, std::set<std::uint64_t>> has_;
  std::map<std::uint64_t, Key> keys_;
  std::map<Key, std::uint64_t> owners_;
};

using Names = std::map<std::uint64_t, std::string>; // by ifIndex

constexpr auto notYet = "not written yet";

bool isAddress(std::string const & text) {
  return !text.empty() && text != "0.0.0.0" && text != "::";
}

/// Why it has no row by its addresses.
std::string whyNoEndpoints(Json const & tunnel, std::uint64_t ifIndex, Rows const & rows,
                           Names const & names) {
  auto const hasLocal = isAddress(tunnel.value("local", ""));
  auto const hasRemote = isAddress(tunnel.value("remote", ""));
  if (!hasLocal || !hasRemote)
    return hasLocal ? "no remote address" : hasRemote ? "no local address" : "no addresses";
  auto const owner = rows.ownerOf(ifIndex);
  if (!owner || *owner == ifIndex)
    return notYet;
  auto const name = names.find(*owner);
  return "same addresses as " +
         (name == names.end() ? fmt::format("ifIndex {}", *owner) : name->second);
}

/// {TABLE: why it has no row there}.
Json missingRows(Json const & tunnel, Rows const & rows, Names const & names) {
  auto missing = Json::object();
  auto const ifIndex = ifIndexOf(tunnel);
  auto const miss = [&](char const * table, auto why) {
    if (rows.isServed(table) && (!ifIndex || !rows.has(table, *ifIndex)))
      missing[table] = ifIndex ? why() : "no ifIndex";
  };
  miss(interfaces, [] { return std::string(notYet); });
  miss(endpoints, [&] { return whyNoEndpoints(tunnel, *ifIndex, rows, names); });
  miss(connections, [&] {
    return std::string(tunnel.value("ipsec", false) ? notYet : "IPsec does not protect it");
  });
  return missing;
}

/// What of it is worth a remark: not that a tunnel without IPsec is not in the table of those with.
Json remarksOf(Json const & tunnel, Json const & missing) {
  auto remarks = Json::array();
  auto const isProtected = tunnel.value("ipsec", false);
  if (!ifIndexOf(tunnel))
    remarks.push_back("no ifIndex: in no table");
  else
    for (auto const & [table, why] : missing.items())
      if (table != connections || isProtected)
        remarks.push_back(fmt::format("no row in {}: {}", table, why.get<std::string>()));
  if (isProtected && !tunnel.contains("profile"))
    remarks.push_back("no IPsec profile");
  else if (isProtected && !tunnel.contains("connState"))
    remarks.push_back(
        fmt::format("profile {} knows no connection of it", tunnel.value("profile", "")));
  return remarks;
}

} // namespace

Json withRemarks(Json tunnels, Json const & tables) {
  Rows const rows(tables);
  Names names;
  for (auto const & tunnel : tunnels)
    if (auto const ifIndex = ifIndexOf(tunnel))
      names.emplace(*ifIndex, tunnelName(tunnel));
  for (auto & tunnel : tunnels) {
    auto missing = missingRows(tunnel, rows, names);
    tunnel["remarks"] = remarksOf(tunnel, missing);
    tunnel["missing"] = std::move(missing);
  }
  return tunnels;
}

namespace {

std::string kindOf(Json const & tunnel) {
  return tunnel.contains("kind") ? tunnel.value("kind", "") : words(tunnel.value("mode", ""));
}

Cell hopLimitOf(Json const & tunnel) {
  auto const hops = tunnel.value("hopLimit", 0);
  return hops == 0 ? Cell{"inherit"} : Cell{.text = std::to_string(hops), .isNumber = true};
}

/// The remarks below the table, each once, by the numbers that stand in its lines.
class Notes {
public:
  /// "1,3"; empty for none.
  std::string numbersOf(Json const & remarks) {
    std::string out;
    for (auto const & remark : remarks) {
      auto const text = remark.get<std::string>();
      auto const number = numbers_.emplace(text, numbers_.size() + 1).first->second;
      if (number > texts_.size())
        texts_.push_back(text);
      out += fmt::format("{}{}", out.empty() ? "" : ",", number);
    }
    return out;
  }
  std::string text() const {
    std::string out;
    for (std::size_t i = 0; i != texts_.size(); ++i)
      out += cutTo(pageWidth, fmt::format("{}) {}", i + 1, Os::printable(texts_[i]))) + '\n';
    return out;
  }

private:
  std::map<std::string, std::size_t> numbers_;
  std::vector<std::string> texts_;
};

std::vector<Cell> lineOf(Json const & tunnel, Notes & notes) {
  auto const ifIndex = ifIndexOf(tunnel);
  auto const state = ipsecText(tunnel);
  return {{.text = ifIndex ? std::to_string(*ifIndex) : "", .isNumber = true},
          {tunnel.value("interface", "")},
          {kindOf(tunnel)},
          {tunnel.value("local", "")},
          {tunnel.value("remote", "")},
          hopLimitOf(tunnel),
          tunnel.value("ipsec", false) ? Cell{"ipsec " + state, toneOf(state)} : Cell{"none"},
          {notes.numbersOf(tunnel.value("remarks", Json::array())), Tone::notable}};
}

/// The room is for those that have something to tell: no names where no source knows any.
Table withoutEmptyColumns(Table table) {
  for (auto column = table.headings.size(); column-- != 0;) {
    auto const isEmpty = [column](auto const & row) { return row[column].text.empty(); };
    if (!std::ranges::all_of(table.rows, isEmpty))
      continue;
    auto const place = static_cast<std::ptrdiff_t>(column);
    table.headings.erase(table.headings.begin() + place);
    for (auto & row : table.rows)
      row.erase(row.begin() + place);
  }
  return table;
}

} // namespace

std::string tunnelsText(Json const & tunnels, bool hasColours) {
  if (tunnels.empty())
    return "no tunnels: no source has published any; \"tunnelsnmpctl doctor\" looks for the "
           "reason\n";
  Table table{
      .headings = {"IFINDEX", "INTERFACE", "KIND", "LOCAL", "REMOTE", "TTL", "SECURITY", "NOTE"}};
  Notes notes;
  for (auto const & tunnel : tunnels)
    table.rows.push_back(lineOf(tunnel, notes));
  return layOut(withoutEmptyColumns(std::move(table)), hasColours) + notes.text();
}

std::string tunnelName(Json const & tunnel) {
  if (auto const name = tunnel.value("interface", ""); !name.empty())
    return name;
  auto const ifIndex = ifIndexOf(tunnel);
  return ifIndex ? fmt::format("ifIndex {}", *ifIndex)
                 : fmt::format("interface {}", tunnel.value("intfId", std::uint64_t{0}));
}

std::string ipsecText(Json const & tunnel) {
  if (tunnel.contains("connState"))
    return words(tunnel.value("connState", ""));
  return "unknown";
}

} // namespace Ctl
