// Hears of registrations through net-snmp's callbacks.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include "agent/Report.h"
#include "agent/agentx/Subagent.h"
#include <array>
#include <new>

namespace Agent::AgentX {

namespace {

Lumo::Counter regionsUnheard("agentx-regions-unheard");

constexpr std::array changes{SNMPD_CALLBACK_REGISTER_OID, SNMPD_CALLBACK_UNREGISTER_OID};

Region toRegion(register_parameters const & from) {
  Region region;
  region.context = from.contextName == nullptr ? "" : from.contextName;
  region.subtree.assign(from.name, from.name + from.namelen);
  region.priority = static_cast<std::uint8_t>(from.priority);
  region.rangeSubId = static_cast<std::uint8_t>(from.range_subid);
  region.upperBound = from.range_subid == 0 ? 0 : static_cast<std::uint32_t>(from.range_ubound);
  return region;
}

} // namespace

Subagent::Subagent(Os::Loop & loop, MasterAddress address, std::function<void()> served)
    : served_(std::move(served)),
      requests_(agent_,
                [this](Header const & header, Response response) {
                  session_.answer(header, std::move(response));
                }),
      session_(loop, std::move(address), *this) {
  for (auto const change : changes)
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, change, &Subagent::changedHere, this);
}

Subagent::~Subagent() {
  for (auto const change : changes)
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, change, &Subagent::changedHere, this, 1);
}

void Subagent::start() {
  if (hasUnheard_)
    throw std::bad_alloc();
  session_.start();
}

// What nobody was asked about leaves nothing to look after.
void Subagent::turnEnded() {
  if (agent_.wasAsked() || agent_.pending() != 0)
    served_();
}

void Subagent::changed(int what, register_parameters const & parameters) {
  if (parameters.namelen < 2)
    return;
  auto const region = toRegion(parameters);
  if (what == SNMPD_CALLBACK_REGISTER_OID)
    session_.addRegion(region);
  else
    session_.removeRegion(region);
}

// Before the start, the start tells.
void Subagent::unheard(std::exception const & reason) {
  if (status().state != SessionStatus::State::closed)
    return reportFailure(regionsUnheard, "at a change of what is registered", reason);
  regionsUnheard.inc();
  hasUnheard_ = true;
}

// Called from C: nothing may be raised.
int Subagent::changedHere(int, int what, void * parameters, void * self) {
  auto & subagent = *static_cast<Subagent *>(self);
  try {
    subagent.changed(what, *static_cast<register_parameters const *>(parameters));
  } catch (std::exception const & error) {
    subagent.unheard(error);
  }
  return SNMP_ERR_NOERROR;
}

} // namespace Agent::AgentX
