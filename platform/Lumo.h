// Lumo, what a running system says of itself: traces, counters of rare events, fatal assertions.
//
// A trace handler has a name and ten levels that are switched on and off one by one. A message is
// formatted only when its level is on; the check is one load and a mask. Where the lines go is one
// process-wide sink. All on the main thread, except that handlers may be obtained from any.
#pragma once

#include <atomic>
#include <cstdint>
#include <fmt/format.h>
#include <functional>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

namespace Lumo {

inline constexpr int levels = 10; ///< 0 to 9

/// A named trace handler. Shared: every holder of a name sees the same levels.
class DebugHandler {
public:
  explicit DebugHandler(std::string_view name) : name_(name) {}

  std::string const & name() const { return name_; }
  bool enabled(int level) const {
    return (levels_.load(std::memory_order_relaxed) >> level & 1) != 0;
  }
  /// Bit n is level n.
  std::uint32_t levelMask() const { return levels_.load(std::memory_order_relaxed); }
  void levelMaskIs(std::uint32_t mask) { levels_.store(mask, std::memory_order_relaxed); }

private:
  std::string const name_;
  std::atomic<std::uint32_t> levels_{0};
};

namespace Platform {
/// Finds or makes the handler of that name. A new one starts with the levels that traceLevelsIs()
/// was last given for the name, else with all (`enabled`) or none. The handler lives until the end
/// of the process, so that a message can be traced while libraries are unloaded.
std::shared_ptr<DebugHandler> getDebugHandler(std::string_view name, bool enabled);
} // namespace Platform

/// Sets the levels of a name, whether or not its handler exists yet.
void traceLevelsIs(std::string_view name, std::uint32_t mask);
/// The existing handlers by name.
std::vector<std::shared_ptr<DebugHandler>> debugHandlers();

/// A level list as people write it: "6-9", "2", "0,2,7-9", "none", "all". Raises
/// std::invalid_argument naming what is wrong.
std::uint32_t parseLevels(std::string_view text);
/// The shortest such list for a mask.
std::string levelsText(std::uint32_t mask);

/// A handler, and the name of the object that traces to it where several do so from the same lines
/// of code: a machine's children, say. Made where it is used; the name outlives it.
class Tracer {
public:
  Tracer(DebugHandler const & handler, std::string_view object = {})
      : handler_(&handler),
        object_(object) {}

  DebugHandler const & handler() const { return *handler_; }
  /// Empty where the place in the code says enough.
  std::string_view object() const { return object_; }
  bool enabled(int level) const { return handler_->enabled(level); }

private:
  DebugHandler const * handler_;
  std::string_view object_;
};

/// Lives as long as the call of the sink.
struct TraceMessage {
  DebugHandler const & handler;
  int level;
  std::source_location place;
  std::string_view object; ///< as Tracer has it
  std::string_view function;
  std::string_view text;

  /// The name of the source file, without its folders: "CollectionSm.h".
  std::string_view file() const;
};

/// Where messages go from now on; an empty function drops them. Returns what it was before.
using TraceSink = std::function<void(TraceMessage const &)>;
TraceSink traceSinkIs(TraceSink sink);
/// One line: "HANDLE/LEVEL FILE:LINE FUNCTION: TEXT"; FUNCTION is "OBJECT::FUNCTION" where there is
/// an object.
std::string traceLine(TraceMessage const & message);

/// A message for which there is no memory is lost and counted ("lumo-messages-lost"): what traces
/// goes on.
void vfmtrace(Tracer const & tracer, int level, std::source_location place, char const * function,
              fmt::string_view format, fmt::format_args arguments);

/// Formats and hands on one message. Callers use LUMO_TRACE, which checks the level first. Cold:
/// what a message takes stays out of the way of the code that does without.
template <class... Args>
[[gnu::cold, gnu::noinline]] void
fmtrace(Tracer const & tracer, int level, std::source_location place, char const * function,
        fmt::format_string<Args...> format, Args &&... arguments) {
  vfmtrace(tracer, level, place, function, format, fmt::make_format_args(arguments...));
}

/// A count of one rare event, known by its name while it lives (a static object). Stays on in every
/// build.
class Counter {
public:
  explicit Counter(char const * name);
  Counter(Counter const &) = delete;
  Counter & operator=(Counter const &) = delete;
  ~Counter();

  void inc() { ++count_; }
  std::uint64_t count() const { return count_; }
  char const * name() const { return name_; }

private:
  char const * name_;
  std::uint64_t count_ = 0;
};

/// The living counters, ordered by name.
std::vector<Counter const *> counters();
/// The count of that name, 0 when nothing of that name lives.
std::uint64_t counter(std::string_view name);

/// Writes "fatal: CONDITION: MESSAGE (FILE:LINE)" to the standard error stream and aborts.
[[noreturn]] void fatal(char const * condition, std::string_view message, char const * file,
                        int line);

} // namespace Lumo

/// Skein's handle on a fast trace ring of the host. Carried, never looked into.
namespace Skein {
struct TraceHandle {
  std::uint64_t ring = 0;
  bool operator==(TraceHandle const &) const = default;
};
} // namespace Skein

/// Traces if `level` of `tracer`, a DebugHandler or a Tracer, is on; the arguments, a {fmt} format
/// and its values, are evaluated only then.
#define LUMO_TRACE(tracer, level, ...)                                                             \
  do {                                                                                             \
    if ((tracer).enabled(level)) [[unlikely]]                                                      \
      ::Lumo::fmtrace(tracer, level, std::source_location::current(), __func__, __VA_ARGS__);      \
  } while (false)

/// A broken precondition of our own: ends the process with `message`, a {fmt} format and arguments.
#define LUMO_ASSERT(condition, ...)                                                                \
  do {                                                                                             \
    if (!(condition)) [[unlikely]]                                                                 \
      ::Lumo::fatal(#condition, ::fmt::format(__VA_ARGS__), __FILE__, __LINE__);                   \
  } while (false)
