// What tunnelsnmpctl can be told to do: one function for each command.
//
// Each asks the daemon, prints what came back to the standard output, and returns when it is there.
// It raises UsageError, Undecided, Unwritten, Refused and Unreachable (Client.h), and nlohmann's
// exceptions where the answer is not what this version understands. "doctor" is in ctl/doctor/.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace Ctl {

struct Arguments {
  std::string control = "/run/tunnelsnmpd/tunnelsnmpd.sock";
  bool json = false;
  std::string pointer;
  std::string patchFile;
  std::string trace;
  double timeoutSeconds = 30;
  double intervalSeconds = 2;
  std::string snmpdConfig = "/etc/snmp/snmpd.conf";
  std::string address; ///< where a manager asks; empty: as the configuration says
  std::vector<std::string> snmpArguments; ///< what snmpget takes before the host
};

/// The command line asks for what cannot be done.
class UsageError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};
/// It cannot be told from here.
class Undecided : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};
/// The answer is there, but the standard output does not take it.
class Unwritten : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// The longest that may be waited for: more would not fit into the system's times.
constexpr double longestTimeoutSeconds = 1'000'000;
/// The shortest time between two looks: each is work for the daemon.
constexpr double shortestIntervalSeconds = 0.1;

void status(Arguments const & arguments);
void showTables(Arguments const & arguments);
void showTunnels(Arguments const & arguments);
void showState(Arguments const & arguments);
void showIke(Arguments const & arguments);
void showTasks(Arguments const & arguments);
void showCounters(Arguments const & arguments);
void patch(Arguments const & arguments);
void listTraces(Arguments const & arguments);
void setTrace(Arguments const & arguments);
void reread(Arguments const & arguments);
void restartMachines(Arguments const & arguments);
/// Returns when the daemon is ready; else raises, a second after the timeout at the latest.
void waitReady(Arguments const & arguments);
/// Shows the tunnels, and then each change that it sees, for ever. While the daemon is away it says
/// so once and waits for it.
void watch(Arguments const & arguments);
void showVersion(Arguments const & arguments);

/// Prints to the standard output. Raises Unwritten.
void print(std::string const & text);

} // namespace Ctl
