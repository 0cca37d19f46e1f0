#include "bench/Tunnels.h"
#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace Bench {

namespace {

constexpr unsigned int ifColumns[] = {3, 4, 5, 6, 8, 9, 10};
constexpr unsigned int inetColumns[] = {6, 7, 8};
constexpr unsigned int ipsecColumns[] = {1};

constexpr u_char ifIndexTypes[] = {ASN_INTEGER};
constexpr u_char inetTypes[] = {ASN_INTEGER, ASN_OCTET_STR, ASN_OCTET_STR, ASN_INTEGER,
                                ASN_INTEGER};

constexpr Table tables[] = {
    {"if", {1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1, 1}, ifColumns, 1, ifIndexTypes},
    {"inet", {1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 3, 1}, inetColumns, longestIndex, inetTypes},
    {"ipsec",
     {1, 3, 6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 3, 34, 1, 1, 1},
     ipsecColumns,
     1,
     ifIndexTypes},
};

/// An address as a part of an index: its length, its octets.
oid * writeAddress(std::uint32_t address, oid * to) {
  *to++ = 4;
  return std::ranges::copy(octetsOf(address), to).out;
}

} // namespace

void Table::index(std::uint32_t ifIndex, oid * to) const {
  if (indexLength == 1) {
    *to = ifIndex;
    return;
  }
  *to++ = 1; // ipv4
  to = writeAddress(localOf(ifIndex), to);
  to = writeAddress(remoteOf(ifIndex), to);
  *to++ = 3; // gre
  *to = 1;
}

namespace {

void setInteger(netsnmp_variable_list * varbind, long value) {
  snmp_set_var_typed_integer(varbind, ASN_INTEGER, value);
}

void setAddress(netsnmp_variable_list * varbind, std::uint32_t address) {
  auto const octets = octetsOf(address);
  snmp_set_var_typed_value(varbind, ASN_OCTET_STR, octets.data(), octets.size());
}

void setIfValue(unsigned int column, std::uint32_t ifIndex, netsnmp_variable_list * varbind) {
  switch (column) {
  case 3:
    return setInteger(varbind, 3); // gre
  case 4:
    return setInteger(varbind, 64);
  case 5:
    return setInteger(varbind, 2); // ipsec
  case 6:
    return setInteger(varbind, 48);
  case 8:
    return setInteger(varbind, 1); // ipv4
  case 9:
    return setAddress(varbind, localOf(ifIndex));
  case 10:
    return setAddress(varbind, remoteOf(ifIndex));
  }
}

void setInetValue(unsigned int column, std::uint32_t ifIndex, netsnmp_variable_list * varbind) {
  switch (column) {
  case 6:
    return setInteger(varbind, ifIndex);
  case 7:
    return setInteger(varbind, 1); // active
  case 8:
    return setInteger(varbind, 5); // readOnly
  }
}

} // namespace

void setValue(Table const & table, unsigned int column, std::uint32_t ifIndex,
              netsnmp_variable_list * varbind) {
  if (table.name == "if")
    setIfValue(column, ifIndex, varbind);
  else if (table.name == "inet")
    setInetValue(column, ifIndex, varbind);
  else
    setInteger(varbind, 4); // up
}

Table const & table(std::string_view name) {
  for (auto const & table : tables)
    if (table.name == name)
      return table;
  throw std::invalid_argument(fmt::format("no table \"{}\"; there are if, inet, ipsec", name));
}

} // namespace Bench
