// Rows of tunnelInetConfigTable put directly into the model and served by the in-process agent.
#pragma once

#include "TunnelIntfSnmp/MibTable.h"
#include "TunnelIntfSnmp/tunnelMIB.h"
#include "tests/handlers/TableFixture.h"
#include <utility>
#include <vector>

namespace TunnelIntfSnmp {

class InetConfigFixture : public TableFixture {
protected:
  using Octets = std::vector<std::uint8_t>;
  static constexpr Netsnmp_Node_Handler * handler = tunnelInetConfigTable_handler;
  inline static Oid const tableOid{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 3};

  InetConfigFixture() : TableFixture(init_tunnelMIB, unregister_tunnelMIB) {}
  static netsnmp_handler_registration * registration() {
    return tunnelMIBModule().handlerRegistrations.at("").back();
  }

  static Oid instance(oid column, Oid const & index) {
    auto name = tableOid;
    name.insert(name.end(), {1, column});
    name.insert(name.end(), index.begin(), index.end());
    return name;
  }
  static Octets octetsOf(char const * text) {
    auto const address = Plexa::IpGenAddr::fromString(text).value();
    return {address.octets().begin(), address.octets().end()};
  }

  /// Puts a row there and remembers what its index is as an OID: the type, each address behind its
  /// length, the two numbers.
  void put(std::uint32_t ifIndex, std::uint32_t type, Octets const & local, Octets const & remote,
           std::uint32_t encapsMethod, std::uint32_t configId) {
    mib_->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(
        {Snmp::InetAddress(type, Snmp::Bytes(local)), Snmp::Bytes(remote), encapsMethod, configId},
        ifIndex));
    Oid index{type, local.size()};
    index.insert(index.end(), local.begin(), local.end());
    index.push_back(remote.size());
    index.insert(index.end(), remote.begin(), remote.end());
    index.insert(index.end(), {encapsMethod, configId});
    indexes_.emplace_back(index, ifIndex);
  }
  /// Such a tunnel's row.
  void add(std::uint32_t ifIndex, char const * local, char const * remote,
           std::uint32_t encapsMethod = 3, std::uint32_t configId = 1) {
    auto const octets = octetsOf(local);
    put(ifIndex, octets.size() == 4 ? 1 : 2, octets, octetsOf(remote), encapsMethod, configId);
  }

  std::vector<std::pair<Oid, std::uint32_t>> indexes_; ///< of the rows, with their ifIndex
};

} // namespace TunnelIntfSnmp
