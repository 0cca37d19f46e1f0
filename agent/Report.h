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

/// Says "tunnelsnmpd: TEXT" in one line (Os::oneLine). What cannot be written is lost and counted
/// (agent/LineWriter.h); nothing waits for it.
void report(std::string_view text) noexcept;

/// What the process ends of.
void reportEnd(std::exception const & what) noexcept;

/// A failure that the agent survives: counted, reported as "WHERE: WHAT", kept as the last one.
void reportFailure(Lumo::Counter & counter, std::string_view where,
                   std::exception const & what) noexcept;
/// The text of the last reportFailure(), empty when there was none.
std::string const & lastFailure();

} // namespace Agent
