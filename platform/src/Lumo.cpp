// Traces, counters and fatal assertions.
#include "platform/Lumo.h"
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <poll.h>
#include <stdexcept>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace Lumo {

namespace {

struct Handlers {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<DebugHandler>, std::less<>> byName;
  std::map<std::string, std::uint32_t, std::less<>> masks;
};
// Never destroyed: libraries trace while they are unloaded, after static destruction has begun.
Handlers & handlers() {
  static auto & handlers = *new Handlers;
  return handlers;
}
TraceSink & sink() {
  static auto & sink = *new TraceSink;
  return sink;
}
std::vector<Counter const *> & counterList() {
  static auto & list = *new std::vector<Counter const *>;
  return list;
}

Counter messagesLost("lumo-messages-lost");

constexpr std::uint32_t allLevels = (1u << levels) - 1;

int parseLevel(std::string_view text, std::string_view whole) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '9')
    throw std::invalid_argument(fmt::format(
        "\"{}\" in \"{}\" is no level; levels are 0 to 9, for example 6-9 or 0,2", text, whole));
  return text[0] - '0';
}

} // namespace

namespace Platform {
std::shared_ptr<DebugHandler> getDebugHandler(std::string_view name, bool enabled) {
  auto & all = handlers();
  std::lock_guard const lock(all.mutex);
  if (auto const found = all.byName.find(name); found != all.byName.end())
    return found->second;
  auto const mask = all.masks.find(name);
  auto handler = std::make_shared<DebugHandler>(name);
  handler->levelMaskIs(mask != all.masks.end() ? mask->second : enabled ? allLevels : 0);
  return all.byName.emplace(name, handler).first->second;
}
} // namespace Platform

void traceLevelsIs(std::string_view name, std::uint32_t mask) {
  auto & all = handlers();
  std::lock_guard const lock(all.mutex);
  all.masks.insert_or_assign(std::string(name), mask);
  if (auto const found = all.byName.find(name); found != all.byName.end())
    found->second->levelMaskIs(mask);
}

std::vector<std::shared_ptr<DebugHandler>> debugHandlers() {
  auto & all = handlers();
  std::lock_guard const lock(all.mutex);
  std::vector<std::shared_ptr<DebugHandler>> list;
  for (auto const & [name, handler] : all.byName)
    list.push_back(handler);
  return list;
}

std::uint32_t parseLevels(std::string_view text) {
  if (text == "none")
    return 0;
  if (text == "all")
    return allLevels;
  std::uint32_t mask = 0;
  for (auto rest = text;;) {
    auto const comma = rest.find(',');
    auto const item = rest.substr(0, comma);
    auto const dash = item.find('-');
    auto const first = parseLevel(item.substr(0, dash), text);
    auto const last =
        dash == std::string_view::npos ? first : parseLevel(item.substr(dash + 1), text);
    if (last < first)
      throw std::invalid_argument(fmt::format("\"{}\" in \"{}\" runs backwards", item, text));
    for (int level = first; level <= last; ++level)
      mask |= 1u << level;
    if (comma == std::string_view::npos)
      return mask;
    rest.remove_prefix(comma + 1);
  }
}

std::string levelsText(std::uint32_t mask) {
  if ((mask & allLevels) == 0)
    return "none";
  if ((mask & allLevels) == allLevels)
    return "all";
  std::string text;
  for (int level = 0; level < levels; ++level) {
    if ((mask >> level & 1) == 0)
      continue;
    auto const first = level;
    while (level + 1 < levels && (mask >> (level + 1) & 1) != 0)
      ++level;
    text += text.empty() ? "" : ",";
    text += first == level ? fmt::format("{}", first) : fmt::format("{}-{}", first, level);
  }
  return text;
}

TraceSink traceSinkIs(TraceSink newSink) {
  return std::exchange(sink(), std::move(newSink));
}

std::string_view TraceMessage::file() const {
  std::string_view const path = place.file_name();
  return path.substr(path.rfind('/') + 1); // all of it when there is no "/"
}

std::string traceLine(TraceMessage const & message) {
  return fmt::format("{}/{} {}:{} {}{}{}: {}", message.handler.name(), message.level,
                     message.file(), message.place.line(), message.object,
                     message.object.empty() ? "" : "::", message.function, message.text);
}

void vfmtrace(Tracer const & tracer, int level, std::source_location place, char const * function,
              fmt::string_view format, fmt::format_args arguments) {
  if (!sink())
    return;
  try {
    auto const text = fmt::vformat(format, arguments);
    sink()({tracer.handler(), level, place, tracer.object(), function, text});
  } catch (std::bad_alloc const &) {
    messagesLost.inc();
  }
}

Counter::Counter(char const * name) : name_(name) {
  counterList().push_back(this);
}
Counter::~Counter() {
  std::erase(counterList(), this);
}

std::vector<Counter const *> counters() {
  auto list = counterList();
  std::sort(list.begin(), list.end(), [](auto * a, auto * b) {
    return std::string_view(a->name()) < std::string_view(b->name());
  });
  return list;
}

std::uint64_t counter(std::string_view name) {
  std::uint64_t sum = 0;
  for (auto const * one : counterList())
    if (one->name() == name)
      sum += one->count();
  return sum;
}

void fatal(char const * condition, std::string_view message, char const * file, int line) {
  // The end must come even where the line cannot be written, and without waiting for a reader.
  std::array<char, 1024> text{};
  auto const size = fmt::format_to_n(text.begin(), text.size(), "fatal: {}: {} ({}:{})\n",
                                     condition, message, file, line)
                        .size;
  pollfd stream{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  if (poll(&stream, 1, 0) == 1)
    std::ignore = write(STDERR_FILENO, text.data(), std::min(size, text.size()));
  std::abort();
}

} // namespace Lumo
