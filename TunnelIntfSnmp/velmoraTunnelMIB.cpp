// The vendor MIB module velmoraTunnelMIB: its one table, and what is particular to it. What tables
// do alike is in MibTable.h.
#include "TunnelIntfSnmp/velmoraTunnelMIB.h"
#include "TunnelIntfSnmp/MibTable.h"
#include <array>

namespace TunnelIntfSnmp {

namespace {

// One row for each tunnel interface that IPsec protects, indexed by ifIndex
struct VelmoraIpsecTunnelIfTable {
  using Row = IpsecTunnelIfTableEntry;
  static constexpr char const * name = "velmoraIpsecTunnelIfTable";
  static constexpr char const * keyType = "U32";

  static TunnelMib::IpsecTunnelIfTable const & rows(TunnelMib const & mib) {
    return mib.ipsecTunnelIfTable();
  }
  static std::uint32_t key(IpsecTunnelIfTableEntry const & row) { return row.ifIndex(); }
  static std::optional<std::uint32_t> hintKey(Hint hint) { return ifIndexOfHint(name, hint); }
  static void setIndexes(IpsecTunnelIfTableEntry const & row, netsnmp_variable_list * index) {
    IndexWriter(name, index).unsigned32("ifIndex", row.ifIndex());
  }
  static void const * record(IpsecTunnelIfTableEntry const & row) { return row.connStateSource(); }
};

using IpsecWalk = TableWalk<VelmoraIpsecTunnelIfTable>;
constexpr auto * velmoraIpsecTunnelIfTable_get_first_data_point = IpsecWalk::getFirst;
constexpr auto * velmoraIpsecTunnelIfTable_get_next_data_point = IpsecWalk::getNext;
constexpr auto * velmoraIpsecTunnelIfTable_make_data_context = IpsecWalk::makeDataContext;
constexpr auto * velmoraIpsecTunnelIfTable_free_data_context = IpsecWalk::freeDataContext;
constexpr auto * velmoraIpsecTunnelIfTable_free_loop_context_at_end =
    IpsecWalk::freeLoopContextAtEnd;

constexpr std::array<oid, 11> velmoraIpsecTunnelIfTableOid{
    1, 3, 6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 3, 34, 1, 1};
constexpr std::array<MibIndex, 1> velmoraIpsecTunnelIfTableIndexes{{{"ifIndex", ASN_INTEGER}}};

MibTableRegistration const velmoraIpsecTunnelIfTableRegistration{
    .table = VelmoraIpsecTunnelIfTable::name,
    .rootOid = velmoraIpsecTunnelIfTableOid,
    .indexes = velmoraIpsecTunnelIfTableIndexes,
    .columns = columnNumbers<VelmoraIpsecTunnelIfTable::Row>(),
    .handler = velmoraIpsecTunnelIfTable_handler,
    .getFirstDataPoint = velmoraIpsecTunnelIfTable_get_first_data_point,
    .getNextDataPoint = velmoraIpsecTunnelIfTable_get_next_data_point,
    .makeDataContext = velmoraIpsecTunnelIfTable_make_data_context,
    .freeDataContext = velmoraIpsecTunnelIfTable_free_data_context,
    .freeLoopContextAtEnd = velmoraIpsecTunnelIfTable_free_loop_context_at_end};

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
  initializeTable(velmoraTunnelMIB, velmoraIpsecTunnelIfTableRegistration, context);
}

int velmoraIpsecTunnelIfTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                                      netsnmp_agent_request_info * agentInfo,
                                      netsnmp_request_info * requests) {
  return answerRequests<VelmoraIpsecTunnelIfTable>(*agentInfo, requests);
}
