// The vendor MIB module velmoraTunnelMIB for the agent that loads the library: its C entry points,
// as those of tunnelMIB.
#pragma once

#include "platform/Snmp.h"
#include "platform/Zel.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace TunnelIntfSnmp {
struct MibModule;
/// The module's registrations, to be looked at only.
MibModule const & velmoraTunnelMIBModule();
} // namespace TunnelIntfSnmp

extern "C" {

/// Registers the module's table in the context and announces the module for it. Only the default
/// context (empty) gets a table. A second call for the same context ends the process.
[[gnu::visibility("default")]] void init_velmoraTunnelMIB(Zel::String context);
/// Takes back what init_velmoraTunnelMIB made for the context. Requires: no request is being
/// served.
[[gnu::visibility("default")]] void unregister_velmoraTunnelMIB(Zel::String context);

/// Registers the table. `config` is not consulted.
[[gnu::visibility("default")]] void
initialize_table_velmoraIpsecTunnelIfTable(Snmp::Config::PtrConst config, Zel::String context);

/// Answers the requests for the table: GETs from the row that the iterator found, every SET with
/// notWritable. Returns an SNMP error status.
[[gnu::visibility("default")]] Netsnmp_Node_Handler velmoraIpsecTunnelIfTable_handler;
}
