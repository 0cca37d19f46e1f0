// The few names stand here: MIB modules would have to be installed for any other.
#include "ctl/doctor/Oid.h"
#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>

namespace Ctl::Doctor {

namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 12> upperNodes{
    {{"iso", "1"},
     {"org", "1.3"},
     {"dod", "1.3.6"},
     {"internet", "1.3.6.1"},
     {"mgmt", "1.3.6.1.2"},
     {"mib-2", "1.3.6.1.2.1"},
     {"system", "1.3.6.1.2.1.1"},
     {"interfaces", "1.3.6.1.2.1.2"},
     {"transmission", "1.3.6.1.2.1.10"},
     {"private", "1.3.6.1.4"},
     {"enterprises", "1.3.6.1.4.1"},
     {"snmpV2", "1.3.6.1.6"}}};

} // namespace

std::optional<Oid> oidFromText(std::string_view text) {
  if (text.starts_with('.'))
    text.remove_prefix(1);
  if (text.ends_with('.'))
    return std::nullopt;
  Oid oid;
  auto const first = text.substr(0, text.find('.'));
  auto const * const named =
      std::ranges::find(upperNodes, first, [](auto const & node) { return node.first; });
  if (named != upperNodes.end()) {
    oid = *oidFromText(named->second);
    text.remove_prefix(std::min(text.size(), first.size() + 1));
  }
  while (!text.empty()) {
    unsigned long number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    auto const read = static_cast<std::size_t>(end - text.data());
    if (error != std::errc() || number > UINT32_MAX || (read != text.size() && text[read] != '.'))
      return std::nullopt;
    oid.push_back(number);
    text.remove_prefix(std::min(text.size(), read + 1));
  }
  return oid.empty() ? std::nullopt : std::optional(oid);
}

std::string oidText(Oid const & oid) {
  return fmt::format(".{}", fmt::join(oid, "."));
}

bool isWithin(Oid const & oid, Oid const & root) {
  return oid.size() >= root.size() && std::equal(root.begin(), root.end(), oid.begin());
}

} // namespace Ctl::Doctor
