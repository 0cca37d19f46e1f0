// What every program of ours wants of its command line beyond what CLI11 checks.
//
// An empty value is what a script passes whose variable is not set. CLI11 takes it for a value, or,
// after "--option=", takes the next argument for it; what the option then does is not what anybody
// asked for.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace Os {

/// Looks for an option of `app`, or of a command below it, that is given an empty value:
/// `--option ""` or `--option=`. Raises CLI::ValidationError, which names the option and says what
/// to write. `arguments` are those of the command line, in its order, without the program's name.
void requireValues(CLI::App const & app, std::vector<std::string> const & arguments);

} // namespace Os
