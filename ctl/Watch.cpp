// Compares tunnels by their numbers, and then member by member.
#include "ctl/Watch.h"
#include "ctl/Render.h"
#include "ctl/Tunnels.h"
#include "os/Text.h"
#include <cstdint>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>

namespace Ctl {

using Json = nlohmann::ordered_json;

namespace {

using Tunnels = std::map<std::uint64_t, Json const *>;

Tunnels byNumber(Json const & tunnels) {
  Tunnels out;
  for (auto const & tunnel : tunnels)
    out.emplace(tunnel.at("intfId").get<std::uint64_t>(), &tunnel);
  return out;
}

/// {member: its value before} of those that differ; null where it was not there.
Json differences(Json const & before, Json const & after) {
  auto out = Json::object();
  for (auto const & [name, value] : after.items())
    if (!before.contains(name) || before.at(name) != value)
      out[name] = before.contains(name) ? before.at(name) : Json();
  for (auto const & [name, value] : before.items())
    if (!after.contains(name))
      out[name] = value;
  return out;
}

Json changeOf(char const * what, Json const & tunnel) {
  return {{"change", what}, {"name", tunnelName(tunnel)}, {"tunnel", tunnel}};
}

std::string valueText(Json const & value) {
  if (!value.is_array())
    return value.is_null() || value == "" ? "none" : words(cellOf(value).text);
  std::string out;
  for (auto const & one : value)
    out += (out.empty() ? "" : "; ") + cellOf(one).text;
  return out.empty() ? "none" : out;
}

/// What the tunnel is, or what became of it.
std::string detailsOf(Json const & change) {
  auto const & tunnel = change.at("tunnel");
  std::string out;
  if (!change.contains("before"))
    return fmt::format("{} from {} to {}", tunnel.value("kind", tunnel.value("mode", "")),
                       valueText(tunnel.value("local", Json())),
                       valueText(tunnel.value("remote", Json())));
  for (auto const & [name, before] : change.at("before").items())
    if (name != "missing") // the remarks say it
      out += fmt::format("{}{} {} -> {}", out.empty() ? "" : ", ",
                         name == "connState" ? "IPsec" : words(name), valueText(before),
                         valueText(tunnel.value(name, Json())));
  return out;
}

Tone toneOfChange(std::string_view what) {
  if (what == "changed")
    return Tone::notable;
  return what == "added" ? Tone::good : Tone::bad;
}

} // namespace

Json changesBetween(Json const & before, Json const & after) {
  auto const old = byNumber(before);
  auto const now = byNumber(after);
  auto changes = Json::array();
  for (auto const & [number, tunnel] : old)
    if (!now.contains(number))
      changes.push_back(changeOf("removed", *tunnel));
  for (auto const & [number, tunnel] : now) {
    auto const known = old.find(number);
    if (known == old.end())
      changes.push_back(changeOf("added", *tunnel));
    else if (auto differing = differences(*known->second, *tunnel); !differing.empty()) {
      changes.push_back(changeOf("changed", *tunnel));
      changes.back()["before"] = std::move(differing);
    }
  }
  return changes;
}

std::string changeText(std::string const & time, Json const & change, bool hasColours) {
  auto const what = change.at("change").get<std::string>();
  auto const before = fmt::format("{}  {:<7}  ", time, what);
  auto const rest = fmt::format("{}: {}", change.at("name").get<std::string>(), detailsOf(change));
  return fmt::format("{}  {}  {}\n", time,
                     coloured(fmt::format("{:<7}", what), toneOfChange(what), hasColours),
                     cutTo(pageWidth - before.size(), Os::printable(rest)));
}

} // namespace Ctl
