// tunnelsnmpd: the SNMP agent daemon. Options in, signals out; Agent.h says what happens between.
#include "agent/Agent.h"
#include "agent/EndSignals.h"
#include "agent/LineWriter.h"
#include "agent/Report.h"
#include "os/StandardStreams.h"
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <unistd.h>

namespace {

constexpr int failed = 1;
constexpr int wronglyConfigured = 2;

/// Where an installation has it, and else where the build tree would: both are beside the folder
/// of this program. Empty, and an error, where that cannot be found out.
std::string defaultPlugin(std::error_code & error) {
  constexpr char const * name = "libTunnelIntfSnmp.so";
  auto const program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error)
    return {};
  auto const prefix = program.parent_path().parent_path();
  auto const installed = prefix / PRIVATE_LIBRARIES / name;
  std::error_code missing;
  return (std::filesystem::exists(installed, missing) ? installed : prefix / "lib" / name).string();
}

void serve(Agent::Options options) {
  Agent::EventLoop loop;
  // From the first moment: a signal during the start takes effect when the loop begins.
  Agent::EndSignals const endSignals(loop);
  Agent::Agent * running = nullptr;
  auto const onHup = loop.signal(SIGHUP, [&] { running->reread(); });

  Agent::Agent agent(std::move(options), loop);
  running = &agent;
  Agent::LineWriter(STDOUT_FILENO)
      .line(fmt::format("tunnelsnmpd: listening on {}", agent.listen()));
  loop.run([&] { return agent.work(); });
}

int run(int argc, char ** argv) {
  Os::secureStandardStreams();
  std::error_code noPlugin;
  auto parsed = Agent::parseOptions({argv + 1, argv + argc}, defaultPlugin(noPlugin));
  if (!parsed.options) {
    auto const isWritten = Os::writeOut(parsed.exitStatus == 0 ? stdout : stderr, parsed.text);
    return isWritten ? parsed.exitStatus : std::max(parsed.exitStatus, failed);
  }
  if (parsed.options->pluginFile.empty())
    throw std::runtime_error(fmt::format("cannot find the plug-in: /proc/self/exe: {}; name the "
                                         "file with --plugin",
                                         noPlugin.message()));
  serve(*std::move(parsed.options));
  return 0;
}

/// An exception that nobody can catch, because it left a destructor or the code of another
/// language: one line, and for want of memory no core file.
[[noreturn]] void endWithOneLine() {
  try {
    if (std::current_exception())
      std::rethrow_exception(std::current_exception());
  } catch (std::bad_alloc const & error) {
    Agent::reportEnd(error);
    _exit(failed);
  } catch (std::exception const & error) {
    Agent::reportEnd(error);
  } catch (...) {
    Agent::report("ended by an exception without a text");
  }
  std::abort();
}

// Static objects of the libraries are made before main() begins, and before those of this program.
void beforeAll(int, char **, char **) {
  std::set_terminate(endWithOneLine);
}
[[gnu::section(".preinit_array"), gnu::used]] auto * const callsBeforeAll = &beforeAll;

} // namespace

int main(int argc, char ** argv) {
  try {
    return run(argc, argv);
  } catch (Agent::ConfigurationError const & error) {
    Agent::reportEnd(error);
    return wronglyConfigured;
  } catch (std::exception const & error) {
    Agent::reportEnd(error);
    return failed;
  }
}
