// The index of a table's row as the end of a name, and as the varbinds that a module's callbacks
// fill and read (RFC 2578 section 7.7).
//
// net-snmp has both directions as well, build_oid_noalloc() and parse_oid_indexes(). They stay in
// use for types that are rare in indexes; for numbers and octet strings, which nearly every index
// consists of, what stands here does the same without a search and without a copy.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <memory>
#include <span>

namespace Agent::TableIterator {

using SubIds = std::span<oid const>;

/// Index varbinds of the types that a table has, to be filled again and again.
class IndexVarbinds {
public:
  /// Makes varbinds like those, which need live no longer.
  explicit IndexVarbinds(netsnmp_variable_list * like) : list_(snmp_clone_varbind(like)) {}

  netsnmp_variable_list * get() const { return list_.get(); }
  /// Without the values of the last time: an old length would be taken for a fixed one.
  netsnmp_variable_list * emptied() const;

private:
  struct Free {
    void operator()(netsnmp_variable_list * list) const { snmp_free_varbind(list); }
  };
  std::unique_ptr<netsnmp_variable_list, Free> const list_;
};

/// Writes the varbinds of an index as the end of a name. Returns the number of sub-identifiers, or
/// 0 when there is no room for them.
std::size_t encode(netsnmp_variable_list * indexes, std::span<oid> to);

/// The reverse. False for an index that has a part too few or too many, or an octet above 255:
/// net-snmp's handlers then decide what it means. Requires: the varbinds are emptied.
bool decode(std::span<oid> index, netsnmp_variable_list * to);

} // namespace Agent::TableIterator
