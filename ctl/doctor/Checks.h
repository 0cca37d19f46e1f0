// The checks, from the daemon to the manager. Each is a function from facts to findings; one that
// has nothing to look at, because something before it is missing, finds nothing.
#pragma once

#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Finding.h"

namespace Ctl::Doctor {

/// The socket is there, we may use it, and somebody answers.
Findings checkDaemon(Facts const & facts);
/// There are sources, each is in sync, and what they leave out.
Findings checkSources(Facts const & facts);
/// Tunnels have become rows.
Findings checkRows(Facts const & facts);
/// The master can be reached by the daemon.
Findings checkMaster(Facts const & facts);
/// A session with it is open.
Findings checkSession(Facts const & facts);
/// Each of our OIDs is registered with it.
Findings checkRegistrations(Facts const & facts);
/// The configuration lets somebody read our subtrees.
Findings checkAccess(Facts const & facts);
/// A manager's GETNEXT gets a row.
Findings checkAnswers(Facts const & facts);
/// The MIB module is where net-snmp looks for it.
Findings checkMib(Facts const & facts);

/// All of them, in this order.
Findings checkAll(Facts const & facts);

} // namespace Ctl::Doctor
