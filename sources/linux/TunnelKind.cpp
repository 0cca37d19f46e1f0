// The names of the tunnel kinds, and the option that chooses among them.
#include "sources/linux/TunnelKind.h"
#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <stdexcept>

namespace Sources::Linux {
namespace {

// In the order of the enumerators.
constexpr std::array<std::string_view, tunnelKinds> names{
    "gre",    "ip6gre",    "ipip",   "sit",       "ip6tnl", "vti",    "vti6",      "xfrm",
    "gretap", "ip6gretap", "erspan", "ip6erspan", "vxlan",  "geneve", "wireguard",
};
constexpr auto lastDefault = TunnelKind::xfrm;
constexpr std::string_view kindsOption = "kinds=";

/// "+vxlan" puts the kind into the set, "-vxlan" takes it out.
void applyChoice(TunnelKindSet & kinds, std::string_view choice) {
  auto const sign = choice.substr(0, 1);
  auto const kind = choice.empty() ? std::nullopt : tunnelKindFromName(choice.substr(1));
  if ((sign != "+" && sign != "-") || !kind)
    throw std::invalid_argument(fmt::format(
        "source linux: \"{}\" is no choice of a tunnel kind: write +KIND or -KIND, with "
        "KIND one of {}",
        choice, fmt::join(names, " ")));
  kinds.hasIs(*kind, sign == "+");
}

} // namespace

std::string_view kindName(TunnelKind kind) {
  return names.at(static_cast<std::size_t>(kind));
}

std::optional<TunnelKind> tunnelKindFromName(std::string_view name) {
  auto const found = std::find(names.begin(), names.end(), name);
  if (found == names.end())
    return std::nullopt;
  return static_cast<TunnelKind>(found - names.begin());
}

TunnelKindSet TunnelKindSet::defaults() {
  TunnelKindSet kinds;
  for (std::size_t i = 0; i <= static_cast<std::size_t>(lastDefault); ++i)
    kinds.kinds_.set(i);
  return kinds;
}

TunnelKindSet TunnelKindSet::fromOptions(std::string_view options) {
  auto kinds = defaults();
  if (options.empty())
    return kinds;
  if (!options.starts_with(kindsOption))
    throw std::invalid_argument(fmt::format("source linux: unknown option \"{}\": write "
                                            "ipsec=states, or kinds=+KIND,-KIND,... with KIND "
                                            "one of {}",
                                            options, fmt::join(names, " ")));
  auto choices = options.substr(kindsOption.size());
  for (;;) {
    auto const comma = choices.find(',');
    applyChoice(kinds, choices.substr(0, comma));
    if (comma == std::string_view::npos)
      return kinds;
    choices.remove_prefix(comma + 1);
  }
}

} // namespace Sources::Linux
