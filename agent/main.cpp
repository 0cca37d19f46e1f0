// tunnelsnmpd: the SNMP agent daemon. Options in, signals out; Agent.h says what happens between.
#include "agent/Agent.h"
#include "agent/Report.h"
#include "os/StandardStreams.h"
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>

namespace {

constexpr int failed = 1;
constexpr int wronglyConfigured = 2;

/// ../lib/libTunnelIntfSnmp.so beside the folder of this program.
std::string defaultPlugin() {
  std::error_code error;
  auto const program = std::filesystem::read_symlink("/proc/self/exe", error);
  return (program.parent_path().parent_path() / "lib" / "libTunnelIntfSnmp.so").string();
}

void serve(Agent::Options options) {
  Agent::EventLoop loop;
  // From the first moment: a signal during the start takes effect when the loop begins.
  auto const onTerm = loop.signal(SIGTERM, [&] { loop.stop(); });
  auto const onInt = loop.signal(SIGINT, [&] { loop.stop(); });
  Agent::Agent * running = nullptr;
  auto const onHup = loop.signal(SIGHUP, [&] { running->reread(); });

  Agent::Agent agent(std::move(options), loop);
  running = &agent;
  // For scripts; a daemon whose output was closed serves as well.
  (void)Os::writeOut(stdout, fmt::format("tunnelsnmpd: listening on {}\n", agent.listen()));
  loop.run([&] { return agent.work(); });
}

} // namespace

int main(int argc, char ** argv) {
  Os::secureStandardStreams();
  auto parsed = Agent::parseOptions({argv + 1, argv + argc}, defaultPlugin());
  if (!parsed.options) {
    auto const isWritten = Os::writeOut(parsed.exitStatus == 0 ? stdout : stderr, parsed.text);
    return isWritten ? parsed.exitStatus : std::max(parsed.exitStatus, failed);
  }
  try {
    serve(*std::move(parsed.options));
    return 0;
  } catch (Agent::ConfigurationError const & error) {
    Agent::report(error.what());
    return wronglyConfigured;
  } catch (std::exception const & error) {
    Agent::report(error.what());
    return failed;
  }
}
