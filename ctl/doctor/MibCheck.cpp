// Can a manager on this machine show names?
#include "ctl/doctor/Checks.h"
#include <fmt/format.h>

namespace Ctl::Doctor {

Findings checkMib(Facts const & facts) {
  auto const & mib = facts.mib;
  if (!mib.file.empty())
    return {{.check = "MIB",
             .what = fmt::format("{} is {}; snmpwalk -m +{} shows its names", mib.module, mib.file,
                                 mib.module)}};
  return {{"MIB", Verdict::todo,
           fmt::format("{} is in none of the folders where net-snmp looks: {}", mib.module,
                       fmt::join(mib.folders, ", ")),
           fmt::format("copy mibs/{}.txt into one of them; without it managers here show numbers",
                       mib.module)}};
}

Findings checkAll(Facts const & facts) {
  Findings all;
  for (auto const check : {checkDaemon, checkSources, checkRows, checkMaster, checkSession,
                           checkRegistrations, checkAccess, checkAnswers, checkMib}) {
    auto found = check(facts);
    std::move(found.begin(), found.end(), std::back_inserter(all));
  }
  return all;
}

} // namespace Ctl::Doctor
