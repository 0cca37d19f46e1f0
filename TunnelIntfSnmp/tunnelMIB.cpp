// The MIB module tunnelMIB: which tables it has, and what is particular to each. What tables do
// alike is in MibTable.h.
#include "TunnelIntfSnmp/tunnelMIB.h"
#include "TunnelIntfSnmp/MibTable.h"
#include <array>

namespace TunnelIntfSnmp {

namespace {

// tunnelIfTable, RFC 4087: one row for each tunnel interface, indexed by ifIndex
struct TunnelIfTable {
  using Row = TunnelIfTableEntry;
  static constexpr char const * name = "tunnelIfTable";
  static constexpr char const * keyType = "U32";

  static TunnelMib::TunnelIfTable const & rows(TunnelMib const & mib) {
    return mib.tunnelIfTable();
  }
  static std::uint32_t key(TunnelIfTableEntry const & row) { return row.ifIndex(); }
  static std::optional<std::uint32_t> hintKey(Hint hint) { return ifIndexOfHint(name, hint); }
  static void setIndexes(TunnelIfTableEntry const & row, netsnmp_variable_list * index) {
    IndexWriter(name, index).unsigned32("ifIndex", row.ifIndex());
  }
  static void const * record(TunnelIfTableEntry const & row) {
    return row.tunnelIntfStatus().get();
  }
};

using TunnelIfTableWalk = TableWalk<TunnelIfTable>;
constexpr auto * tunnelIfTable_get_first_data_point = TunnelIfTableWalk::getFirst;
constexpr auto * tunnelIfTable_get_next_data_point = TunnelIfTableWalk::getNext;
constexpr auto * tunnelIfTable_make_data_context = TunnelIfTableWalk::makeDataContext;
constexpr auto * tunnelIfTable_free_data_context = TunnelIfTableWalk::freeDataContext;
constexpr auto * tunnelIfTable_free_loop_context_at_end = TunnelIfTableWalk::freeLoopContextAtEnd;

constexpr std::array<oid, 11> tunnelIfTableOid{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1};
constexpr std::array<MibIndex, 1> tunnelIfTableIndexes{{{"ifIndex", ASN_INTEGER}}};

MibTableRegistration const tunnelIfTableRegistration{
    .table = TunnelIfTable::name,
    .rootOid = tunnelIfTableOid,
    .indexes = tunnelIfTableIndexes,
    .columns = columnNumbers<TunnelIfTable::Row>(),
    .handler = tunnelIfTable_handler,
    .getFirstDataPoint = tunnelIfTable_get_first_data_point,
    .getNextDataPoint = tunnelIfTable_get_next_data_point,
    .makeDataContext = tunnelIfTable_make_data_context,
    .freeDataContext = tunnelIfTable_free_data_context,
    .freeLoopContextAtEnd = tunnelIfTable_free_loop_context_at_end};

// tunnelInetConfigTable, RFC 4087: one row for each pair of endpoints, indexed by type, local
// address, remote address, encapsulation and id
struct TunnelInetConfigTable {
  using Row = TunnelInetConfigTableEntry;
  static constexpr char const * name = "tunnelInetConfigTable";
  static constexpr char const * keyType = "TunnelIntfSnmp::TunnelInetConfigTableKey";

  static TunnelMib::TunnelInetConfigTable const & rows(TunnelMib const & mib) {
    return mib.tunnelInetConfigTable();
  }
  static TunnelInetConfigTableKey const & key(TunnelInetConfigTableEntry const & row) {
    return row.key();
  }
  static std::optional<TunnelInetConfigTableKey> hintKey(Hint hint);
  static void setIndexes(TunnelInetConfigTableEntry const & row, netsnmp_variable_list * index) {
    IndexWriter(name, index)
        .unsigned32("addrType", row.addrType())
        .octets("localAddr", row.localAddr())
        .octets("remoteAddr", row.remoteAddr())
        .unsigned32("encapsMethod", row.encapsMethod())
        .unsigned32("configId", row.configId());
  }
  static void const * record(TunnelInetConfigTableEntry const &) { return nullptr; }
};

std::uint32_t keyNumber(std::int32_t part) {
  if (part < 0)
    throw Zel::RangeException(fmt::format("{} is negative", part));
  return static_cast<std::uint32_t>(part);
}

std::optional<TunnelInetConfigTableKey> TunnelInetConfigTable::hintKey(Hint hint) {
  constexpr std::size_t components = 5;
  HintReader parts(name, hint != nullptr && hint->number_indexes == components ? hint : nullptr);
  auto const addressType = parts.integer("tunnelInetConfigAddressType");
  auto const local = parts.octets("tunnelInetConfigLocalAddress");
  auto const remote = parts.octets("tunnelInetConfigRemoteAddress");
  auto const encapsMethod = parts.integer("tunnelInetConfigEncapsMethod");
  auto const configId = parts.integer("tunnelInetConfigID");
  if (parts.found() < components) {
    LUMO_TRACE(snmpTrace(), 2, "{}_get_first_data_point - needed {} components, found only {}",
               name, components, parts.found());
    return std::nullopt;
  }
  return TunnelInetConfigTableKey(Snmp::InetAddress(keyNumber(*addressType), *local), *remote,
                                  keyNumber(*encapsMethod), keyNumber(*configId));
}

using InetConfigWalk = TableWalk<TunnelInetConfigTable>;
constexpr auto * tunnelInetConfigTable_get_first_data_point = InetConfigWalk::getFirst;
constexpr auto * tunnelInetConfigTable_get_next_data_point = InetConfigWalk::getNext;
constexpr auto * tunnelInetConfigTable_make_data_context = InetConfigWalk::makeDataContext;
constexpr auto * tunnelInetConfigTable_free_data_context = InetConfigWalk::freeDataContext;
constexpr auto * tunnelInetConfigTable_free_loop_context_at_end =
    InetConfigWalk::freeLoopContextAtEnd;

constexpr std::array<oid, 11> tunnelInetConfigTableOid{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 3};
constexpr std::array<MibIndex, 5> tunnelInetConfigTableIndexes{
    {{"tunnelInetConfigAddressType", ASN_INTEGER},
     {"tunnelInetConfigLocalAddress", ASN_OCTET_STR},
     {"tunnelInetConfigRemoteAddress", ASN_OCTET_STR},
     {"tunnelInetConfigEncapsMethod", ASN_INTEGER},
     {"tunnelInetConfigID", ASN_INTEGER}}};

MibTableRegistration const tunnelInetConfigTableRegistration{
    .table = TunnelInetConfigTable::name,
    .rootOid = tunnelInetConfigTableOid,
    .indexes = tunnelInetConfigTableIndexes,
    .columns = columnNumbers<TunnelInetConfigTable::Row>(),
    .handler = tunnelInetConfigTable_handler,
    .getFirstDataPoint = tunnelInetConfigTable_get_first_data_point,
    .getNextDataPoint = tunnelInetConfigTable_get_next_data_point,
    .makeDataContext = tunnelInetConfigTable_make_data_context,
    .freeDataContext = tunnelInetConfigTable_free_data_context,
    .freeLoopContextAtEnd = tunnelInetConfigTable_free_loop_context_at_end};

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
  initializeTable(tunnelMIB, tunnelIfTableRegistration, context);
}

void initialize_table_tunnelInetConfigTable(Snmp::Config::PtrConst, Zel::String context) {
  initializeTable(tunnelMIB, tunnelInetConfigTableRegistration, context);
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
