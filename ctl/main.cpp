// tunnelsnmpctl: asks a running tunnelsnmpd through its control socket.
#include "ctl/Client.h"
#include "ctl/CommandLine.h"
#include "os/StandardStreams.h"
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace {

// An error stream that takes nothing is no reason to end otherwise.
int complain(int exitStatus, std::string_view what) {
  (void)Os::writeOut(stderr, fmt::format("tunnelsnmpctl: {}\n", what));
  return exitStatus;
}

/// Does what was asked for; returns the exit status.
int run(Ctl::ParsedLine const & line) {
  if (line.action != nullptr)
    line.action(line.arguments);
  else if (line.exitStatus == 0)
    Ctl::print(line.text);
  else
    (void)Os::writeOut(stderr, line.text);
  return line.exitStatus;
}

} // namespace

int main(int argc, char ** argv) {
  Os::secureStandardStreams();
  try {
    return run(Ctl::parseCommandLine({argv + 1, argv + argc}));
  } catch (Ctl::UsageError const & error) {
    return complain(Ctl::unusable, error.what());
  } catch (Ctl::Undecided const & error) {
    return complain(Ctl::unusable, error.what());
  } catch (Ctl::Unreachable const & error) {
    return complain(Ctl::unusable, error.what());
  } catch (Ctl::Refused const & error) {
    return complain(Ctl::refused, error.what());
  } catch (Ctl::Unwritten const & error) {
    return complain(Ctl::unwritten, error.what());
  } catch (nlohmann::json::exception const &) {
    return complain(Ctl::unusable, "the daemon's answer is not understood; are both of the same "
                                   "version?");
  } catch (std::exception const & error) { // no memory, for one
    return complain(Ctl::unusable, error.what());
  }
}
