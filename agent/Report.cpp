// Writes at once and unbuffered, so that an operator's last line is about the last event.
#include "agent/Report.h"
#include <cstdio>

namespace Agent {

namespace {
std::string & keptFailure() {
  static std::string text;
  return text;
}

std::string oneLine(std::string_view text) {
  std::string line;
  for (auto const character : text) {
    auto const blank = character == '\n' || character == '\r' || character == ' ';
    if (!blank)
      line += character;
    else if (!line.empty() && line.back() != ' ')
      line += ' ';
  }
  while (!line.empty() && line.back() == ' ')
    line.pop_back();
  return line;
}
} // namespace

void report(std::string_view text) {
  fmt::print(stderr, "tunnelsnmpd: {}\n", oneLine(text));
  std::fflush(stderr);
}

void reportFailure(Lumo::Counter & counter, std::string_view where, std::exception const & what) {
  counter.inc();
  keptFailure() = oneLine(fmt::format("{}: {}", where, what.what()));
  report(keptFailure());
}

std::string const & lastFailure() {
  return keptFailure();
}

} // namespace Agent
