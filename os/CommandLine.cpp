// Looking through the arguments as they were written: what CLI11 has made of them no longer tells
// an empty value from none.
#include "os/CommandLine.h"
#include <algorithm>
#include <fmt/format.h>

namespace Os {

namespace {

bool isGivenEmpty(std::string const & flag, std::vector<std::string> const & arguments) {
  auto const isEmptyValue = [&](std::string const & one, std::string const & next) {
    return one == flag && next.empty();
  };
  return std::ranges::find(arguments, flag + "=") != arguments.end() ||
         std::ranges::adjacent_find(arguments, isEmptyValue) != arguments.end();
}

std::string advice(CLI::Option const & option, std::string const & flag) {
  auto const standard = option.get_default_str();
  return fmt::format("the value is empty; write {} {}, or leave the option out{}", flag,
                     option.get_type_name(), standard.empty() ? "" : " for " + standard);
}

void requireValue(CLI::Option const & option, std::vector<std::string> const & arguments) {
  for (auto const & name : option.get_lnames())
    if (auto const flag = "--" + name; isGivenEmpty(flag, arguments))
      throw CLI::ValidationError(flag, advice(option, flag));
}

} // namespace

void requireValues(CLI::App const & app, std::vector<std::string> const & arguments) {
  for (auto const * option : app.get_options())
    if (option->get_items_expected_max() > 0)
      requireValue(*option, arguments);
  for (auto const * command : app.get_subcommands([](CLI::App const *) { return true; }))
    requireValues(*command, arguments);
}

} // namespace Os
