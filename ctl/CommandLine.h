// The command line of tunnelsnmpctl: which command it names, and with which arguments.
#pragma once

#include "ctl/Commands.h"
#include <string>
#include <vector>

namespace Ctl {

// Exit statuses, as the help tells them.
constexpr int refused = 1;
constexpr int unusable = 2;
constexpr int unwritten = 3;

/// Either what to do, or the end of the program before it began: what to print and the exit status
/// (0 for --help, `unusable` for a wrong command line, whose text is one line).
struct ParsedLine {
  void (*action)(Arguments const &) = nullptr;
  Arguments arguments{};
  std::string text{};
  int exitStatus = 0;
};

/// `arguments` without the program's name.
ParsedLine parseCommandLine(std::vector<std::string> arguments);

} // namespace Ctl
