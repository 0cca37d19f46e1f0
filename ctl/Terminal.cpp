// Asks the system and the environment.
#include "ctl/Terminal.h"
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace Ctl {

namespace {

std::string_view variable(char const * name) {
  auto const * value = std::getenv(name);
  return value == nullptr ? "" : value;
}

} // namespace

bool showsColours() {
  return isatty(STDOUT_FILENO) == 1 && variable("NO_COLOR").empty() && variable("TERM") != "dumb" &&
         !variable("TERM").empty();
}

} // namespace Ctl
