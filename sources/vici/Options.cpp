// Item by item, which commas part.
#include "sources/vici/Options.h"
#include "os/UnixAddress.h"
#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace Sources::Vici {

namespace {

constexpr std::string_view bindKey = "bind=";

std::invalid_argument wrong(std::string_view what) {
  return std::invalid_argument(fmt::format("source vici: {}", what));
}

/// The next item; takes it and its comma away.
std::string_view takeItem(std::string_view & text);
void takeSocket(Options & options, std::string_view path);
void takeOption(Options & options, std::string_view option);

} // namespace

Options Options::fromText(std::string_view text) {
  Options options;
  if (text.empty())
    return options;
  if (text.front() != ':' && text.front() != ',')
    throw wrong(fmt::format("\"{}\" where ':' or ',' should stand", text.front()));
  auto const isSocketPossible = text.front() == ':';
  auto rest = text.substr(1);
  for (bool isFirst = true; isFirst || rest.data() != nullptr; isFirst = false) {
    auto const item = takeItem(rest);
    if (isFirst && isSocketPossible && item.find('=') == std::string_view::npos)
      takeSocket(options, item);
    else
      takeOption(options, item);
  }
  return options;
}

namespace {

std::string_view takeItem(std::string_view & text) {
  auto const comma = text.find(',');
  auto const item = text.substr(0, comma);
  text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
  return item;
}

void takeSocket(Options & options, std::string_view path) {
  if (path.empty())
    throw wrong("the path of the socket is empty");
  if (path.size() > Os::UnixAddress::longestPath)
    throw wrong(fmt::format("the path of the socket is longer than {} characters",
                            Os::UnixAddress::longestPath));
  options.socket = path;
}

void takeOption(Options & options, std::string_view option) {
  if (!option.starts_with(bindKey))
    throw wrong(fmt::format("\"{}\" is no option; use bind=CONNECTION[/CHILD]@INTERFACE", option));
  auto const binding = Ike::explicitBindingFromText(option.substr(bindKey.size()));
  if (std::ranges::find(options.bindings, binding) != options.bindings.end())
    throw wrong(fmt::format("\"{}\" stands there twice", option));
  options.bindings.push_back(binding);
}

} // namespace

} // namespace Sources::Vici
