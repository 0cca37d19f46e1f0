#include "bench/MachineInputs.h"
#include "bench/Tunnels.h"

namespace Bench {

using TunnelIntfSnmp::TunnelInetConfigTableKey;

namespace {

constexpr std::uint64_t firstIntfId = 50331648;
constexpr char const * profileName = "branches";

template <class Call>
void forEachIfIndex(std::uint32_t tunnels, Call call) {
  for (std::uint32_t ifIndex = 2; ifIndex <= 2 * tunnels; ifIndex += 2)
    call(ifIndex);
}

} // namespace

Plexa::IntfId intfIdOf(std::uint32_t ifIndex) {
  return Plexa::IntfId(firstIntfId + ifIndex);
}

Plexa::IpGenAddr ip4(std::uint32_t address) {
  return Plexa::IpGenAddr(Plexa::Ip4Addr{octetsOf(address)});
}

Inputs::Inputs(std::uint32_t tunnels) {
  addStatuses(tunnels);
  addIfIndexes(tunnels);
  addIkeRecords(tunnels);
}

void Inputs::addStatuses(std::uint32_t tunnels) {
  statuses.reserve(tunnels);
  forEachIfIndex(tunnels, [&](std::uint32_t ifIndex) {
    auto const status = Zel::makePtr<Status>(intfIdOf(ifIndex));
    status->srcAddrIs(ip4(localOf(ifIndex)));
    status->dstAddrIs(ip4(remoteOf(ifIndex)));
    status->modeIs(Plexa::TunnelIntfMode::gre);
    status->hopLimitIs(64);
    status->tosIs(48);
    status->ipsecIs(true);
    dir->intfStatusIs(intfIdOf(ifIndex), status);
    statuses.push_back(status);
  });
}

void Inputs::addIfIndexes(std::uint32_t tunnels) const {
  forEachIfIndex(tunnels, [&](std::uint32_t ifIndex) {
    ifMib->ifIndexByIntfIdIs(intfIdOf(ifIndex), ifIndex);
  });
}

void Inputs::addIkeRecords(std::uint32_t tunnels) const {
  auto const connections = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
  forEachIfIndex(tunnels, [&](std::uint32_t ifIndex) {
    auto const info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
    info->profileNameIs(profileName);
    ikeStatus->ipsecTunnelInfoIs(intfIdOf(ifIndex), info);
    auto const connection = Zel::makePtr<Ipsec::Ike::IpsecTunnelProfileInfo>();
    connection->connStateIs(Ipsec::Ike::ConnState::up);
    connections->appliedIntfIdIs(intfIdOf(ifIndex), connection);
  });
  ikeStatus->appliedProfilesIs(profileName, connections);
}

TunnelInetConfigTableKey inetKeyOf(Status const & status) {
  return {Snmp::InetAddress::fromIpGenAddrOrUnknown(status.srcAddr()),
          Snmp::InetAddress::fromIpGenAddrOrUnknown(status.dstAddr()).address(),
          TunnelIntfSnmp::modeToEncap(status.mode()), 1};
}

bool isComplete(TunnelIntfSnmp::TunnelIntfSnmpAgent const & agent, std::uint32_t tunnels) {
  auto const & mib = *agent.tunnelMib();
  return agent.tunnelIfTableSm()->ready() && agent.tunnelInetConfigTableSm()->ready() &&
         agent.ipsecTunnelIfTableSm()->ready() && mib.tunnelIfTable().size() == tunnels &&
         mib.tunnelInetConfigTable().size() == tunnels &&
         mib.ipsecTunnelIfTable().size() == tunnels;
}

} // namespace Bench
