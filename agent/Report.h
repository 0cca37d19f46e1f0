// What the daemon says to its operator: one line each on the standard error stream, and a memory of
// what went wrong since the start for the status. Counts of the rare events are Lumo's counters.
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

/// Writes "tunnelsnmpd: TEXT" and a newline. Line breaks inside the text become blanks.
void report(std::string_view text);

/// A failure that the agent survives: counted, reported as "WHERE: WHAT", kept as the last one.
void reportFailure(Lumo::Counter & counter, std::string_view where, std::exception const & what);
/// The text of the last reportFailure(), empty when there was none.
std::string const & lastFailure();

} // namespace Agent
