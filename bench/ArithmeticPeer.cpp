// The floor: nothing is looked up, the row behind an OID is computed from its numbers.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "bench/Peers.h"
#include <algorithm>
#include <optional>
#include <stdexcept>

namespace Bench {

namespace {

Table const * served = nullptr;
std::uint32_t lastIfIndex = 0;

int handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
            netsnmp_agent_request_info * agent, netsnmp_request_info * requests);

} // namespace

void serveByArithmetic(Table const & table, std::uint32_t rows, bool wholeBulk) {
  served = &table;
  lastIfIndex = 2 * rows;
  auto const modes = HANDLER_CAN_RONLY | (wholeBulk ? HANDLER_CAN_GETBULK : 0);
  auto * const registration = netsnmp_create_handler_registration(
      "arithmetic", handler, table.entry.data(), table.entry.size(), modes);
  if (netsnmp_register_handler(registration) != MIB_REGISTERED_OK)
    throw std::runtime_error("net-snmp refuses the arithmetic handler");
}

namespace {

using Oid = std::span<oid const>;

struct Instance {
  unsigned int column;
  std::uint32_t ifIndex;
};

/// What of the varbind's OID stands behind the entry; nothing of an OID before or at the entry.
Oid suffixOf(netsnmp_variable_list const & varbind) {
  auto const & entry = served->entry;
  Oid const name(varbind.name, varbind.name_length);
  if (name.size() <= entry.size() || !std::equal(entry.begin(), entry.end(), name.begin()))
    return {};
  return name.subspan(entry.size());
}

/// Four numbers of the index as an address.
std::uint32_t addressAt(Oid index, std::size_t position) {
  std::uint32_t address = 0;
  for (auto const octet : index.subspan(position, 4))
    address = address << 8 | static_cast<std::uint32_t>(octet);
  return address;
}

/// The ifIndex, of a row or of none, whose index this is; nothing if there is no such ifIndex.
std::optional<std::uint32_t> ifIndexOf(Oid index) {
  if (index.size() != served->indexLength)
    return std::nullopt;
  auto const ifIndex =
      index.size() == 1 ? static_cast<std::uint32_t>(index[0]) : addressAt(index, 7) - firstRemote;
  std::array<oid, longestIndex> same;
  served->index(ifIndex, same.data());
  return std::equal(index.begin(), index.end(), same.begin()) ? std::optional(ifIndex)
                                                              : std::nullopt;
}

bool comesBehind(std::uint32_t ifIndex, Oid index) {
  std::array<oid, longestIndex> row;
  served->index(ifIndex, row.data());
  return snmp_oid_compare(row.data(), served->indexLength, index.data(), index.size()) > 0;
}

/// The ifIndex of the first row behind the index.
std::uint32_t rowBehind(Oid index) {
  if (auto const ifIndex = ifIndexOf(index))
    return std::min(*ifIndex, lastIfIndex) / 2 * 2 + 2;
  std::uint32_t row = 2; // the beginning of a column, or nothing that a benchmark asks for
  while (row <= lastIfIndex && !comesBehind(row, index))
    row += 2;
  return row;
}

std::optional<Instance> instanceOf(Oid suffix) {
  if (suffix.empty() || std::ranges::find(served->columns, suffix[0]) == served->columns.end())
    return std::nullopt;
  auto const ifIndex = ifIndexOf(suffix.subspan(1));
  if (!ifIndex || *ifIndex % 2 != 0 || *ifIndex == 0 || *ifIndex > lastIfIndex)
    return std::nullopt;
  return Instance{static_cast<unsigned int>(suffix[0]), *ifIndex};
}

std::optional<Instance> instanceBehind(Oid suffix) {
  for (auto const column : served->columns) {
    if (!suffix.empty() && column < suffix[0])
      continue;
    auto const isSame = !suffix.empty() && column == suffix[0];
    if (auto const row = isSame ? rowBehind(suffix.subspan(1)) : 2; row <= lastIfIndex)
      return Instance{column, row};
  }
  return std::nullopt;
}

void answer(netsnmp_request_info * request) {
  auto * const varbind = request->requestvb;
  if (auto const instance = instanceOf(suffixOf(*varbind)))
    setValue(*served, instance->column, instance->ifIndex, varbind);
  else
    netsnmp_request_set_error(request, SNMP_NOSUCHINSTANCE);
}

/// Does nothing when nothing comes behind: the agent then asks the next in its tree.
bool answerNext(netsnmp_request_info * request) {
  auto * const varbind = request->requestvb;
  auto const instance = instanceBehind(suffixOf(*varbind));
  if (!instance)
    return false;
  std::array<oid, 12 + 1 + longestIndex> name;
  auto * const column = std::ranges::copy(served->entry, name.data()).out;
  *column = instance->column;
  served->index(instance->ifIndex, column + 1);
  snmp_set_var_objid(varbind, name.data(), served->entry.size() + 1 + served->indexLength);
  setValue(*served, instance->column, instance->ifIndex, varbind);
  return true;
}

bool isOpen(netsnmp_request_info const & request) {
  return request.requestvb->type == ASN_NULL || request.requestvb->type == ASN_PRIV_RETRY;
}

void answerBulk(netsnmp_request_info * requests) {
  for (auto more = true; more;) {
    more = false;
    for (auto * request = requests; request != nullptr; request = request->next)
      if (isOpen(*request))
        more |= answerNext(request);
    if (more)
      netsnmp_bulk_to_next_fix_requests(requests); // on to the next repetition
  }
}

int handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
            netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
  if (agent->mode == MODE_GETBULK) {
    answerBulk(requests);
    return SNMP_ERR_NOERROR;
  }
  for (auto * request = requests; request != nullptr; request = request->next)
    if (request->processed == 0 && agent->mode == MODE_GET)
      answer(request);
    else if (request->processed == 0)
      answerNext(request);
  return SNMP_ERR_NOERROR;
}

} // namespace

} // namespace Bench
