// One line for each thing that is said, at once, so that an operator's last line is about the last
// event. Where there is no memory for a text, a line says so in its place.
#include "agent/Report.h"
#include "agent/LineWriter.h"
#include "os/Text.h"
#include <new>

namespace Agent {

namespace {

Voice voice{"tunnelsnmpd", [](std::string_view text) noexcept { errorStream().line(text); }};
std::string noMemory = "tunnelsnmpd: out of memory"; // there is none to make it of, then

/// In words for an operator, whoever raised it.
char const * wordsFor(std::exception const & what) {
  return dynamic_cast<std::bad_alloc const *>(&what) != nullptr ? "out of memory" : what.what();
}

std::string & keptFailure() {
  static std::string text;
  return text;
}

} // namespace

void voiceIs(Voice of) {
  noMemory = fmt::format("{}: out of memory", of.name);
  voice = of;
}

void say(std::string_view line) noexcept {
  voice.line(line);
}

void report(std::string_view text) noexcept {
  try {
    say(fmt::format("{}: {}", voice.name, Os::oneLine(text)));
  } catch (std::bad_alloc const &) {
    say(noMemory);
  }
}

void reportEnd(std::exception const & what) noexcept {
  report(wordsFor(what));
}

void reportFailure(Lumo::Counter & counter, std::string_view where,
                   std::exception const & what) noexcept {
  counter.inc();
  try {
    keptFailure() = Os::oneLine(fmt::format("{}: {}", where, wordsFor(what)));
    report(keptFailure());
  } catch (std::bad_alloc const &) {
    say(noMemory);
  }
}

std::string const & lastFailure() {
  return keptFailure();
}

} // namespace Agent
