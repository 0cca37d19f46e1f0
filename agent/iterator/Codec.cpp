// Indexes out of names and into them. A number is one sub-identifier; an octet string is its length
// and then each octet. Other types, strings without a length among them, are left to net-snmp.
#include "agent/iterator/Codec.h"
#include <algorithm>
#include <array>
#include <climits>

namespace Agent::TableIterator {

netsnmp_variable_list * IndexVarbinds::emptied() const {
  for (auto * one = list_.get(); one != nullptr; one = one->next_variable) {
    if (one->val.string != nullptr && one->val.string != one->buf)
      snmp_set_var_value(one, nullptr, 0);
    one->val_len = 0;
  }
  return list_.get();
}

namespace {

bool isNumber(netsnmp_variable_list const & varbind) {
  return varbind.type == ASN_INTEGER || varbind.type == ASN_UNSIGNED;
}
bool isOctets(netsnmp_variable_list const & varbind) {
  return varbind.type == ASN_OCTET_STR;
}

std::size_t encodeAny(netsnmp_variable_list * indexes, std::span<oid> to) {
  std::size_t length = 0;
  auto const status = build_oid_noalloc(to.data(), to.size(), &length, nullptr, 0, indexes);
  return status == SNMPERR_SUCCESS ? length : 0;
}

bool decodeAny(std::span<oid> index, netsnmp_variable_list * to) {
  return parse_oid_indexes(index.data(), index.size(), to) == SNMPERR_SUCCESS;
}

// Reads the length and so many octets. Returns how many sub-identifiers that were; 0 if some are
// missing or are no octets.
std::size_t decodeOctets(SubIds from, netsnmp_variable_list * to) {
  auto const length = from.front();
  auto const isOctet = [](oid subId) { return subId <= UCHAR_MAX; };
  if (length >= from.size() || !std::ranges::all_of(from.subspan(1, length), isOctet))
    return 0;
  std::array<u_char, MAX_OID_LEN> octets;
  std::ranges::copy(from.subspan(1, length), octets.data());
  snmp_set_var_value(to, octets.data(), length);
  return 1 + length;
}

} // namespace

std::size_t encode(netsnmp_variable_list * indexes, std::span<oid> to) {
  std::size_t length = 0;
  for (auto const * one = indexes; one != nullptr; one = one->next_variable) {
    if (!isOctets(*one) && !isNumber(*one))
      return encodeAny(indexes, to);
    if (length + 1 + (isOctets(*one) ? one->val_len : 0) > to.size())
      return 0;
    to[length++] = isOctets(*one) ? one->val_len : static_cast<oid>(*one->val.integer);
    if (isOctets(*one))
      length = std::copy_n(one->val.string, one->val_len, to.data() + length) - to.data();
  }
  return length;
}

bool decode(std::span<oid> index, netsnmp_variable_list * to) {
  for (auto const * one = to; one != nullptr; one = one->next_variable)
    if (!isOctets(*one) && !isNumber(*one))
      return decodeAny(index, to);
  SubIds rest = index;
  for (auto * one = to; one != nullptr; one = one->next_variable) {
    if (rest.empty())
      return false;
    if (isNumber(*one))
      snmp_set_var_value(one, &rest.front(), sizeof rest.front());
    auto const taken = isNumber(*one) ? 1 : decodeOctets(rest, one);
    if (taken == 0)
      return false;
    rest = rest.subspan(taken);
  }
  return rest.empty();
}

} // namespace Agent::TableIterator
