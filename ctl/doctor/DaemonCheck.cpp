// Is there a daemon?
#include "ctl/doctor/Checks.h"
#include <fmt/format.h>

namespace Ctl::Doctor {

namespace {

std::string adviceFor(ControlFacts const & control) {
  switch (control.result) {
  case ControlFacts::Result::noSocket:
    return "start it: systemctl start tunnelsnmpd; where its socket is elsewhere, name that with "
           "--control";
  case ControlFacts::Result::nobodyListens:
    return "the socket is left from a daemon that is gone; start it: systemctl start tunnelsnmpd";
  case ControlFacts::Result::notPermitted:
    return "run this as root or as the user that runs the daemon: sudo tunnelsnmpctl doctor";
  case ControlFacts::Result::silent:
    return "it is stopped or stuck; see its messages (journalctl -u tunnelsnmpd), then systemctl "
           "restart tunnelsnmpd";
  default:
    return "what listens there is no tunnelsnmpd of this version; name its socket with --control";
  }
}

} // namespace

Findings checkDaemon(Facts const & facts) {
  auto const & control = facts.control;
  if (control.result == ControlFacts::Result::answers)
    return {{.check = "daemon",
             .what = fmt::format("tunnelsnmpd {} answers at {}", facts.status.value("version", ""),
                                 control.path)}};
  auto const isOurs = control.result == ControlFacts::Result::notPermitted;
  return {{"daemon", isOurs ? Verdict::unknown : Verdict::todo, control.error, adviceFor(control)}};
}

} // namespace Ctl::Doctor
