// The MIB module tunnelMIB: which tables it has, and what is particular to each. What tables do
// alike is in MibTable.h.
#include "TunnelIntfSnmp/tunnelMIB.h"
#include "TunnelIntfSnmp/MibTable.h"
#include <iterator>

namespace TunnelIntfSnmp {

namespace {

// tunnelIfTable, RFC 4087: one row for each tunnel interface, indexed by ifIndex
struct TunnelIfTable : IfIndexTable<TunnelIfTable, TunnelIfTableEntry> {
  static constexpr char const * name = "tunnelIfTable";
  static constexpr oid rootOid[] = {1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1};

  static TunnelMib::TunnelIfTable const & rows(TunnelMib const & mib) {
    return mib.tunnelIfTable();
  }
  static void const * record(Row const & row) { return row.tunnelIntfStatus().get(); }
};

// tunnelInetConfigTable, RFC 4087: one row for each pair of endpoints, indexed by type, local
// address, remote address, encapsulation and id
struct TunnelInetConfigTable {
  using Row = TunnelInetConfigTableEntry;
  static constexpr char const * name = "tunnelInetConfigTable";
  static constexpr char const * keyType = "TunnelIntfSnmp::TunnelInetConfigTableKey";
  static constexpr oid rootOid[] = {1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 3};
  static constexpr MibIndex indexes[] = {{"tunnelInetConfigAddressType", ASN_INTEGER},
                                         {"tunnelInetConfigLocalAddress", ASN_OCTET_STR},
                                         {"tunnelInetConfigRemoteAddress", ASN_OCTET_STR},
                                         {"tunnelInetConfigEncapsMethod", ASN_INTEGER},
                                         {"tunnelInetConfigID", ASN_INTEGER}};

  static TunnelMib::TunnelInetConfigTable const & rows(TunnelMib const & mib) {
    return mib.tunnelInetConfigTable();
  }
  static TunnelInetConfigTableKey const & key(Row const & row) { return row.key(); }
  static std::optional<TunnelInetConfigTableKey> hintKey(Hint hint);
  static void setIndexes(Row const & row, netsnmp_variable_list * index) {
    IndexWriter(name, index)
        .unsigned32("addrType", row.addrType())
        .octets("localAddr", row.localAddr())
        .octets("remoteAddr", row.remoteAddr())
        .unsigned32("encapsMethod", row.encapsMethod())
        .unsigned32("configId", row.configId());
  }
  static void const * record(Row const &) { return nullptr; }
};

std::uint32_t keyNumber(std::int32_t part) {
  if (part < 0)
    throw Zel::RangeException(fmt::format("{} is negative", part));
  return static_cast<std::uint32_t>(part);
}

std::optional<TunnelInetConfigTableKey> TunnelInetConfigTable::hintKey(Hint hint) {
  constexpr auto components = std::size(indexes);
  auto const isComplete = hint != nullptr && hint->number_indexes == components;
  HintReader parts(name, indexes, isComplete ? hint : nullptr);
  auto const addressType = parts.integer();
  auto const local = parts.octets();
  auto const remote = parts.octets();
  auto const encapsMethod = parts.integer();
  auto const configId = parts.integer();
  if (parts.found() < components) {
    LUMO_TRACE(snmpTrace(), 2, "{}_get_first_data_point - needed {} components, found only {}",
               name, components, parts.found());
    return std::nullopt;
  }
  return TunnelInetConfigTableKey(Snmp::InetAddress(keyNumber(*addressType), *local), *remote,
                                  keyNumber(*encapsMethod), keyNumber(*configId));
}

// The module, and how the agent learns of it when the library is loaded

MibModule tunnelMIB{.name = "tunnelMIB"};

class tunnelMIB_HandlerRegistration final : public Snmp::HandlerRegistration {
public:
  void initHandler(Zel::String context) override { init_tunnelMIB(std::move(context)); }
};

tunnelMIB_HandlerRegistration handlerRegistration;
Snmp::AutoRegistree const autoRegistree(&handlerRegistration);

} // namespace

MibModule const & tunnelMIBModule() {
  return tunnelMIB;
}

} // namespace TunnelIntfSnmp

using namespace TunnelIntfSnmp;

void init_tunnelMIB(Zel::String context) {
  auto const config = SnmpUtil::getSnmpConfig();
  DEBUGMSGTL(("tunnelMIB", "Initializing in context \"%s\"\n", context.c_str()));
  initialize_table_tunnelIfTable(config, context);
  initialize_table_tunnelInetConfigTable(config, context);
  Snmp::registerMibContext(tunnelMIB.name, context);
}

void unregister_tunnelMIB(Zel::String context) {
  unregisterModule(tunnelMIB, context);
}

void initialize_table_tunnelIfTable(Snmp::Config::PtrConst, Zel::String context) {
  initializeTable(tunnelMIB, registrationOf<TunnelIfTable>(tunnelIfTable_handler), context);
}

void initialize_table_tunnelInetConfigTable(Snmp::Config::PtrConst, Zel::String context) {
  initializeTable(tunnelMIB, registrationOf<TunnelInetConfigTable>(tunnelInetConfigTable_handler),
                  context);
}

int tunnelIfTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                          netsnmp_agent_request_info * agentInfo, netsnmp_request_info * requests) {
  return answerRequests<TunnelIfTable>(*agentInfo, requests);
}

int tunnelInetConfigTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                                  netsnmp_agent_request_info * agentInfo,
                                  netsnmp_request_info * requests) {
  return answerRequests<TunnelInetConfigTable>(*agentInfo, requests);
}
