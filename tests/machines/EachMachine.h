// What tests of the pattern share that hold for each of the three machines: one world with tunnels
// that have a row in each table, and a machine of any kind over it.
#pragma once

#include "TunnelIntfSnmp/IpsecTunnelIfTableSm.h"
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include "tests/machines/InetConfigWorld.h"

namespace TunnelIntfSnmp {

inline constexpr std::uint32_t gre = 3; // IANAtunnelType
inline RunMode const & synchronous = runModes[0];
inline RunMode const & alwaysYield = runModes[2];

// Each of the three machines over one world.
template <class Machine>
Zel::Ptr<Machine> make(World const & world) {
  Zel::Ptr<Machine> made;
  if constexpr (std::is_same_v<Machine, IpsecTunnelIfTableSm>)
    made = Zel::makePtr<Machine>(world.mib, world.dir, world.ifMib, world.ikeStatus, world.control);
  else
    made = Zel::makePtr<Machine>(world.mib, world.dir, world.ifMib, world.control);
  made->hasNotificationActiveIs(true);
  return made;
}

// A tunnel that has a row in each of the three tables.
inline Zel::Ptr<Interface::TunnelIntfStatus> addEverywhere(World & world, std::uint32_t id) {
  auto status = InetConfigWorld::status(id, "10.0.0.1", fmt::format("10.0.1.{}", id));
  status->ipsecIs(true);
  world.addIfIndex(id, id);
  world.dir->intfStatusIs(Plexa::IntfId(id), status);
  return status;
}

// Rows from before, in each of the three tables.
inline void addRowsFromBefore(World & world, std::uint32_t first, std::uint32_t last) {
  for (auto i = first; i <= last; ++i) {
    world.mib->tunnelIfTableIs(i, nullptr);
    world.mib->ipsecTunnelIfTableIs(i, nullptr, nullptr);
    world.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(
        inetConfigKey("10.0.0.1", fmt::format("10.0.1.{}", i), gre), i));
  }
}

template <class Machine>
std::size_t rowsOf(World const & world) {
  if constexpr (std::is_same_v<Machine, TunnelIfTableSm>)
    return world.mib->tunnelIfTable().size();
  else if constexpr (std::is_same_v<Machine, TunnelInetConfigTableSm>)
    return world.mib->tunnelInetConfigTable().size();
  else
    return world.mib->ipsecTunnelIfTable().size();
}

template <class Machine>
std::string outputName() {
  if constexpr (std::is_same_v<Machine, TunnelIfTableSm>)
    return "mibTunnelIfTableOutput";
  else if constexpr (std::is_same_v<Machine, TunnelInetConfigTableSm>)
    return "mibTunnelInetConfigTableOutput";
  else
    return "mibIpsecTunnelIfTableOutput";
}

template <class Machine>
class EachMachine : public ::testing::Test {
protected:
  Zel::Ptr<InputSm> ifIndexChild(Machine const & machine) {
    if constexpr (std::is_same_v<Machine, TunnelIfTableSm>)
      return machine.ifIndexByIntfIdSm1();
    else
      return machine.ifIndexByIntfIdSm2();
  }
};
using Machines = ::testing::Types<TunnelIfTableSm, TunnelInetConfigTableSm, IpsecTunnelIfTableSm>;

} // namespace TunnelIntfSnmp
