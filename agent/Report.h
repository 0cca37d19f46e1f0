// What the agent says to its operator: one line each on the standard error stream, or in the log of
// the program that it is a part of, and a memory of what went wrong since the start for the status.
// Counts of the rare events are Lumo's counters.
#pragma once

#include "platform/Lumo.h"
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent {

/// A wrong configuration, told apart from what fails at run time by the exit status.
class ConfigurationError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// Who speaks, and where to.
struct Voice {
  std::string_view name;                        ///< lives as long as the program
  void (*line)(std::string_view text) noexcept; ///< takes a line without its end
};
/// As the program begins: "tunnelsnmpd" on the standard error stream. What cannot be written there
/// is lost and counted (agent/LineWriter.h); nothing waits for it.
void voiceIs(Voice voice);

/// Says a line as it is. Requires: no control character in it.
void say(std::string_view line) noexcept;
/// Says "NAME: TEXT" in one line (Os::oneLine).
void report(std::string_view text) noexcept;

/// What the process ends of.
void reportEnd(std::exception const & what) noexcept;

/// A failure that the agent survives: counted, reported as "WHERE: WHAT", kept as the last one.
void reportFailure(Lumo::Counter & counter, std::string_view where,
                   std::exception const & what) noexcept;
/// The text of the last reportFailure(), empty when there was none.
std::string const & lastFailure();

} // namespace Agent
