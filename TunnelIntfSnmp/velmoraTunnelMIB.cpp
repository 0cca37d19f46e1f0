// The vendor MIB module velmoraTunnelMIB: its one table, and what is particular to it. What tables
// do alike is in MibTable.h.
#include "TunnelIntfSnmp/velmoraTunnelMIB.h"
#include "TunnelIntfSnmp/MibTable.h"

namespace TunnelIntfSnmp {

namespace {

// One row for each tunnel interface that IPsec protects, indexed by ifIndex
struct VelmoraIpsecTunnelIfTable
    : IfIndexTable<VelmoraIpsecTunnelIfTable, IpsecTunnelIfTableEntry> {
  static constexpr char const * name = "velmoraIpsecTunnelIfTable";
  static constexpr oid rootOid[] = {1, 3, 6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 3, 34, 1, 1};

  static TunnelMib::IpsecTunnelIfTable const & rows(TunnelMib const & mib) {
    return mib.ipsecTunnelIfTable();
  }
  static void const * record(Row const & row) { return row.connStateSource(); }
};

// The module, and how the agent learns of it when the library is loaded

MibModule velmoraTunnelMIB{.name = "velmoraTunnelMIB"};

class velmoraTunnelMIB_HandlerRegistration final : public Snmp::HandlerRegistration {
public:
  void initHandler(Zel::String context) override { init_velmoraTunnelMIB(std::move(context)); }
};

velmoraTunnelMIB_HandlerRegistration handlerRegistration;
Snmp::AutoRegistree const autoRegistree(&handlerRegistration);

} // namespace

MibModule const & velmoraTunnelMIBModule() {
  return velmoraTunnelMIB;
}

} // namespace TunnelIntfSnmp

using namespace TunnelIntfSnmp;

void init_velmoraTunnelMIB(Zel::String context) {
  auto const config = SnmpUtil::getSnmpConfig();
  DEBUGMSGTL(("velmoraTunnelMIB", "Initializing in context \"%s\"\n", context.c_str()));
  initialize_table_velmoraIpsecTunnelIfTable(config, context);
  Snmp::registerMibContext(velmoraTunnelMIB.name, context);
}

void unregister_velmoraTunnelMIB(Zel::String context) {
  unregisterModule(velmoraTunnelMIB, context);
}

void initialize_table_velmoraIpsecTunnelIfTable(Snmp::Config::PtrConst, Zel::String context) {
  initializeTable(velmoraTunnelMIB,
                  registrationOf<VelmoraIpsecTunnelIfTable>(velmoraIpsecTunnelIfTable_handler),
                  context);
}

int velmoraIpsecTunnelIfTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                                      netsnmp_agent_request_info * agentInfo,
                                      netsnmp_request_info * requests) {
  return answerRequests<VelmoraIpsecTunnelIfTable>(*agentInfo, requests);
}
