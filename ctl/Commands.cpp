// One exchange each, but wait-ready and watch, which ask again and again.
#include "ctl/Commands.h"
#include "ctl/Client.h"
#include "ctl/Render.h"
#include "ctl/Status.h"
#include "ctl/Terminal.h"
#include "ctl/Tunnels.h"
#include "ctl/Watch.h"
#include "os/Descriptor.h"
#include "os/StandardStreams.h"
#include "json/Input.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <thread>
#include <unistd.h>

namespace Ctl {

using Json = nlohmann::ordered_json;

namespace {

/// More than the daemon takes in one request.
constexpr std::size_t longestPatch = std::size_t{16} << 20;

template <class AnyJson>
void printResult(Arguments const & arguments, AnyJson const & result, std::string const & text) {
  print(arguments.json ? result.dump() + '\n' : text);
}

template <class AnyJson = Json>
AnyJson ask(Arguments const & arguments, std::string const & command,
            std::string const & with = "{}", Limits const & limits = {}) {
  return Client(arguments.control, limits).request<AnyJson>(command, with);
}

/// Whatever is read from standard input when the file is "-".
std::string readAll(std::string const & file);
/// A JSON text, in one line.
std::string checkedJson(std::string const & file);

std::chrono::milliseconds toMilliseconds(double seconds) {
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

} // namespace

void status(Arguments const & arguments) {
  auto const result = ask(arguments, "status");
  printResult(arguments, result,
              statusText(result, std::chrono::system_clock::now(), showsColours()));
}

void showTables(Arguments const & arguments) {
  auto const result = ask(arguments, "tables/show");
  if (arguments.json)
    return printResult(arguments, result, "");
  print(tablesText(result, ask(arguments, "tables/columns"), showsColours()));
}

namespace {

Json tunnelsNow(Arguments const & arguments) {
  auto tunnels = ask(arguments, "tunnels/show");
  return withRemarks(std::move(tunnels), ask(arguments, "tables/show"));
}

} // namespace

void showTunnels(Arguments const & arguments) {
  auto const tunnels = tunnelsNow(arguments);
  printResult(arguments, tunnels, tunnelsText(tunnels, showsColours()));
}

void showState(Arguments const & arguments) {
  auto const result = ask<nlohmann::json>(arguments, "statedb/show",
                                          nlohmann::json{{"pointer", arguments.pointer}}.dump());
  printResult(arguments, result, result.dump(2) + '\n');
}

void showIke(Arguments const & arguments) {
  auto const result = ask(arguments, "ike/show");
  printResult(arguments, result, connectionsText(result, showsColours()));
}

void showTasks(Arguments const & arguments) {
  auto const result = ask(arguments, "tasks/show");
  printResult(arguments, result, result.empty() ? "no tasks\n" : tableText(result, showsColours()));
}

void showCounters(Arguments const & arguments) {
  auto const result = ask(arguments, "coverage/show");
  printResult(arguments, result, pairsText(result));
}

void patch(Arguments const & arguments) {
  auto const patch = checkedJson(arguments.patchFile);
  printResult(arguments, ask(arguments, "patch", fmt::format(R"({{"patch":{}}})", patch)), "");
}

void listTraces(Arguments const & arguments) {
  auto const result = ask(arguments, "trace/list");
  printResult(arguments, result, pairsText(result));
}

void setTrace(Arguments const & arguments) {
  auto const equals = arguments.trace.find('=');
  if (equals == 0 || equals == std::string::npos)
    throw UsageError("give HANDLE=LEVELS, for example TunnelIfTableSm=6-9");
  nlohmann::json const with{{"unit", arguments.trace.substr(0, equals)},
                            {"levels", arguments.trace.substr(equals + 1)}};
  printResult(arguments, ask(arguments, "trace/set", with.dump()), "");
}

void reread(Arguments const & arguments) {
  printResult(arguments, ask(arguments, "reread"), "");
}

void restartMachines(Arguments const & arguments) {
  printResult(arguments, ask(arguments, "restart-machines"), "");
}

// A daemon that is not there yet may still be starting: only the end of the time decides. An
// exchange has the time that is left, and a second where that is less.
void waitReady(Arguments const & arguments) {
  using Clock = std::chrono::steady_clock;
  auto const end = Clock::now() + toMilliseconds(arguments.timeoutSeconds);
  for (;;) {
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    auto const patience = std::max(left, std::chrono::milliseconds(1000));
    auto const isLast = left.count() <= 0;
    try {
      auto const result = ask(arguments, "status", "{}", {.silence = patience, .whole = patience});
      if (result.value("ready", false))
        return printResult(arguments, result, "");
      if (isLast)
        throw Refused(fmt::format("not ready after {:g} s; see tunnelsnmpctl status",
                                  arguments.timeoutSeconds));
    } catch (Late const & late) {
      throw Refused(fmt::format("not ready: {}", late.what()));
    } catch (Unreachable const &) {
      if (isLast)
        throw;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

namespace {

std::string timeNow(char const * format, bool isUtc) {
  auto const now = std::time(nullptr);
  std::tm parts{};
  (isUtc ? gmtime_r : localtime_r)(&now, &parts);
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

void printChanges(Arguments const & arguments, Json const & changes) {
  for (auto const & change : changes) {
    Json line{{"time", timeNow("%Y-%m-%dT%H:%M:%SZ", true)}};
    line.update(change);
    printResult(arguments, line, changeText(timeNow("%H:%M:%S", false), change, showsColours()));
  }
}

/// One line beside the changes; a program reads it as {time, daemon}.
void printNews(Arguments const & arguments, std::string const & news) {
  Json const line{{"time", timeNow("%Y-%m-%dT%H:%M:%SZ", true)}, {"daemon", news}};
  printResult(arguments, line, fmt::format("{}  {}\n", timeNow("%H:%M:%S", false), news));
}

} // namespace

void watch(Arguments const & arguments) {
  auto known = tunnelsNow(arguments);
  printResult(arguments, Json{{"tunnels", known}}, tunnelsText(known, showsColours()));
  for (auto isThere = true;;) {
    std::this_thread::sleep_for(toMilliseconds(arguments.intervalSeconds));
    try {
      auto now = tunnelsNow(arguments);
      if (!std::exchange(isThere, true))
        printNews(arguments, "the daemon is back");
      printChanges(arguments, changesBetween(known, now));
      known = std::move(now);
    } catch (Unreachable const & error) {
      if (std::exchange(isThere, false))
        printNews(arguments, error.what());
    }
  }
}

void showVersion(Arguments const & arguments) {
  auto const result = ask(arguments, "version");
  printResult(arguments, result,
              fmt::format("tunnelsnmpctl {}\ntunnelsnmpd {}\n", TUNNELSNMPCTL_VERSION,
                          result.value("version", "")));
}

void print(std::string const & text) {
  if (!Os::writeOut(stdout, text))
    throw Unwritten(fmt::format("cannot write to the standard output: {}", std::strerror(errno)));
}

namespace {

std::string readAll(std::string const & file) {
  auto const cannotRead = [&] {
    return UsageError(fmt::format("cannot read {}: {}", file, std::strerror(errno)));
  };
  auto const isStandardInput = file == "-";
  Os::Descriptor const opened(isStandardInput ? -1 : open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!isStandardInput && !opened)
    throw cannotRead();
  std::string text;
  std::array<char, 65536> part;
  while (auto const size =
             read(isStandardInput ? STDIN_FILENO : opened.get(), part.data(), part.size())) {
    if (size == -1)
      throw cannotRead();
    text.append(part.data(), static_cast<std::size_t>(size));
    if (text.size() > longestPatch)
      throw UsageError(fmt::format("{} is longer than {} bytes, the most that the daemon takes",
                                   file, longestPatch));
  }
  return text;
}

// The text goes to the daemon as it is: nothing is made of it here. A line end in it is a blank
// between two tokens, because in a JSON string none can stand.
std::string checkedJson(std::string const & file) {
  auto text = readAll(file);
  try {
    (void)JsonInput::parse<nlohmann::json>(text);
  } catch (JsonInput::Wrong const & wrong) {
    throw UsageError(fmt::format("{} is no JSON: {}", file, wrong.what()));
  }
  std::ranges::replace(text, '\n', ' ');
  return text;
}

} // namespace
} // namespace Ctl
