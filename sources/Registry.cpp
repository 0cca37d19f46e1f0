// The kinds of source by the name before the colon.
#include "sources/Registry.h"
#include "sources/json/JsonSource.h"
#include "sources/linux/LinuxSource.h"
#include "sources/vici/ViciSource.h"
#include <fmt/format.h>
#include <stdexcept>
#include <string>

namespace Sources {

std::unique_ptr<Source> makeSource(std::string_view text, Surroundings const & surroundings) {
  auto const colon = text.find(':');
  auto const kind = text.substr(0, colon);
  auto const rest = colon == std::string_view::npos ? "" : text.substr(colon + 1);
  if (kind == "json" && !rest.empty() && rest.back() != '/')
    return makeJsonSource(std::string(rest), surroundings);
  if (kind == "linux")
    return makeLinuxSource(rest, surroundings);
  if (kind == "vici" || text.starts_with("vici,"))
    return makeViciSource(text.substr(std::string_view("vici").size()), surroundings);
  throw std::invalid_argument(fmt::format("\"{}\" is no source; use json:FILE, linux, "
                                          "linux:kinds=..., linux:ipsec=states, vici, or "
                                          "vici:SOCKET, like "
                                          "json:/etc/tunnels.json",
                                          text));
}

} // namespace Sources
