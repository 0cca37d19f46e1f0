// The list of kinds has commas within: an item with '=' begins an option, one without continues it.
#include "sources/linux/LinuxOptions.h"
#include <fmt/format.h>
#include <set>
#include <stdexcept>

namespace Sources::Linux {
namespace {

constexpr std::string_view ipsecOption = "ipsec=";

/// Where the first option ends: at a comma before an item that begins another one, or with all.
std::size_t endOfFirst(std::string_view text) {
  for (auto comma = text.find(','); comma != std::string_view::npos;
       comma = text.find(',', comma + 1)) {
    auto const item = text.substr(comma + 1);
    if (item.substr(0, item.find(',')).find('=') != std::string_view::npos)
      return comma;
  }
  return text.size();
}

/// What an option is about: its beginning, up to the '='.
std::string_view nameOf(std::string_view option) {
  return option.substr(0, option.find('='));
}

void apply(LinuxOptions & options, std::string_view option) {
  if (!option.starts_with(ipsecOption)) {
    options.kinds = TunnelKindSet::fromOptions(option);
    return;
  }
  if (option.substr(ipsecOption.size()) != "states")
    throw std::invalid_argument(
        fmt::format("source linux: unknown option \"{}\": write ipsec=states", option));
  options.hasStates = true;
}

} // namespace

LinuxOptions linuxOptionsFromText(std::string_view text) {
  LinuxOptions options;
  std::set<std::string_view> names;
  while (!text.empty()) {
    auto const end = endOfFirst(text);
    auto const option = text.substr(0, end);
    apply(options, option);
    if (!names.insert(nameOf(option)).second)
      throw std::invalid_argument(
          fmt::format("source linux: \"{}\" is given twice: write it once", nameOf(option)));
    text.remove_prefix(end == text.size() ? end : end + 1);
  }
  return options;
}

} // namespace Sources::Linux
