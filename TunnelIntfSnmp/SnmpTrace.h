// The trace facility of the MIB handlers, "Snmp": 0 faults, 1 registered OIDs, 2 every step of a
// request, 8 tables initialised.
#pragma once

#include "platform/Lumo.h"

namespace TunnelIntfSnmp {

inline auto const snmpDebugHandler = Lumo::Platform::getDebugHandler("Snmp", false);
inline Lumo::DebugHandler const & snmpTrace() {
  return *snmpDebugHandler;
}

/// Where the entity that all tables are served from stands in the state database.
inline constexpr char const * mibPath = "snmp/tunnelIntf/tunnelMib";

} // namespace TunnelIntfSnmp
