// What the tests of tunnelInetConfigTable's machine need besides World: tunnels with endpoints, and
// how rows and store are compared with what they should be.
#pragma once

#include "TunnelIntfSnmp/TunnelInetConfigTableSm.h"
#include "tests/machines/World.h"
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>

namespace TunnelIntfSnmp {

inline Plexa::IpGenAddr address(std::string_view text) {
  return Plexa::IpGenAddr::fromString(text).value();
}

/// The key that such a tunnel's row has.
inline TunnelInetConfigTableKey inetConfigKey(std::string_view source, std::string_view destination,
                                              std::uint32_t encapsMethod) {
  return {Snmp::InetAddress::fromIpGenAddrOrUnknown(address(source)),
          Snmp::InetAddress::fromIpGenAddrOrUnknown(address(destination)).address(), encapsMethod,
          1};
}

/// Key -> ifIndex.
using InetConfigRows = std::map<TunnelInetConfigTableKey, std::uint32_t>;

struct InetConfigWorld : World {
  using World::World;

  /// The machine over this world's inputs, with its notification on.
  Zel::Ptr<TunnelInetConfigTableSm> machine() const {
    auto made = tunnelInetConfigTableSmFactory(mib, dir, ifMib, control);
    made->hasNotificationActiveIs(true);
    return made;
  }
  /// A status record that is in no collection yet.
  static Zel::Ptr<Interface::TunnelIntfStatus>
  status(std::uint64_t id, std::string_view source, std::string_view destination,
         Plexa::TunnelIntfMode mode = Plexa::TunnelIntfMode::gre) {
    auto made = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(id));
    made->srcAddrIs(address(source));
    made->dstAddrIs(address(destination));
    made->modeIs(mode);
    return made;
  }
  Zel::Ptr<Interface::TunnelIntfStatus>
  addEndpoints(std::uint64_t id, std::string_view source, std::string_view destination,
               Plexa::TunnelIntfMode mode = Plexa::TunnelIntfMode::gre) {
    auto made = status(id, source, destination, mode);
    dir->intfStatusIs(Plexa::IntfId(id), made);
    return made;
  }
  InetConfigRows inetConfigRows() const {
    InetConfigRows rows;
    for (auto const & [key, row] : mib->tunnelInetConfigTable())
      rows.emplace(key, row->ifIndex());
    return rows;
  }
};

/// Every slot holds the very entry that stands in the table, under the slot's own ifIndex.
inline void expectEverySlotHasItsRow(TunnelInetConfigTableSm const & machine) {
  auto const & table = machine.mib()->tunnelInetConfigTable();
  for (auto const & [ifIndex, slot] : machine.localAttrStore()->tunnelInetConfigByIfIndex()) {
    EXPECT_EQ(slot->ifIndex(), ifIndex);
    ASSERT_TRUE(slot->value()) << ifIndex;
    auto const & entry = slot->value()->mibEntry();
    EXPECT_EQ(entry->ifIndex(), ifIndex);
    EXPECT_EQ(table[entry->key()], entry) << ifIndex;
  }
}

/// There is a slot for an ifIndex if and only if there is a row of it.
inline void expectStoreAndTableAgree(TunnelInetConfigTableSm const & machine) {
  expectEverySlotHasItsRow(machine);
  auto const & store = machine.localAttrStore()->tunnelInetConfigByIfIndex();
  auto const & table = machine.mib()->tunnelInetConfigTable();
  EXPECT_EQ(store.size(), table.size());
  for (auto const & [key, row] : table)
    EXPECT_NE(store.find(row->ifIndex()), nullptr) << row->ifIndex();
}

} // namespace TunnelIntfSnmp
