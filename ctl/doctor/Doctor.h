// "tunnelsnmpctl doctor": why does my manager show nothing?
//
// Look.h gathers facts, Checks.h makes findings of them, and here they are told.
#pragma once

#include "ctl/Commands.h"
#include "ctl/doctor/Finding.h"
#include <nlohmann/json_fwd.hpp>

namespace Ctl {

/// Prints the findings. Raises Refused when there is something to do, and Undecided when it cannot
/// be told whether there is.
void doctor(Arguments const & arguments);

namespace Doctor {

/// For people: a line for each, wrapped to the page, with what to do below it.
std::string findingsText(Findings const & findings, bool hasColours = false);
/// For programs: {verdict, findings: [{check, verdict, what, advice}]}.
nlohmann::ordered_json findingsJson(Findings const & findings);
/// todo where there is anything to do, else unknown where anything is.
Verdict verdictOf(Findings const & findings);

} // namespace Doctor
} // namespace Ctl
