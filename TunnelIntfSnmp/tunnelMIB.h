// The MIB module tunnelMIB (RFC 4087) for the agent that loads the library: its C entry points. The
// library enrols the module when it is loaded; these are what the agent calls from then on.
#pragma once

#include "platform/Snmp.h"
#include "platform/Zel.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace TunnelIntfSnmp {
struct MibModule;
/// The module's registrations, to be looked at only.
MibModule const & tunnelMIBModule();
} // namespace TunnelIntfSnmp

extern "C" {

/// Registers the module's tables in the context and announces the module for it. Only the default
/// context (empty) gets tables. A second call for the same context ends the process.
[[gnu::visibility("default")]] void init_tunnelMIB(Zel::String context);
/// Takes back what init_tunnelMIB made for the context. Requires: no request is being served.
[[gnu::visibility("default")]] void unregister_tunnelMIB(Zel::String context);

// Each registers one table. `config` is not consulted.
[[gnu::visibility("default")]] void initialize_table_tunnelIfTable(Snmp::Config::PtrConst config,
                                                                   Zel::String context);
[[gnu::visibility("default")]] void
initialize_table_tunnelInetConfigTable(Snmp::Config::PtrConst config, Zel::String context);

// Each answers the requests for one table: GETs from the row that the iterator found, every SET
// with notWritable. Returns an SNMP error status.
[[gnu::visibility("default")]] Netsnmp_Node_Handler tunnelIfTable_handler;
[[gnu::visibility("default")]] Netsnmp_Node_Handler tunnelInetConfigTable_handler;
}
