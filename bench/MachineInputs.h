// The machines at work on N tunnels, without SNMP: inputs as the daemon's document would give them,
// the three machines, and the scheduler with the real clock.
#pragma once

#include "TunnelIntfSnmp/TunnelIntfSnmpAgent.h"
#include "platform/Kiln.h"
#include <cstdint>
#include <vector>

namespace Bench {

using Status = Interface::TunnelIntfStatus;

Plexa::IntfId intfIdOf(std::uint32_t ifIndex);
Plexa::IpGenAddr ip4(std::uint32_t address);

/// The inputs of N tunnels, each with a row in all three tables.
struct Inputs {
  explicit Inputs(std::uint32_t tunnels);

  /// Without any tunnel. Each of the others adds one part of them; together they are what the
  /// first constructor does.
  Inputs() = default;
  void addStatuses(std::uint32_t tunnels);
  void addIfIndexes(std::uint32_t tunnels) const;
  void addIkeRecords(std::uint32_t tunnels) const;

  /// The record of the tunnel with that ifIndex: even, from 2.
  Zel::Ptr<Status> const & status(std::uint32_t ifIndex) const { return statuses[ifIndex / 2 - 1]; }

  Zel::Ptr<Interface::TunnelIntfStatusDir> dir =
      Zel::makePtr<Interface::TunnelIntfStatusDir>("tunnelIntfStatusDir");
  Zel::Ptr<IntfSnmp::IfMib> ifMib = Zel::makePtr<IntfSnmp::IfMib>("ifMib");
  Zel::Ptr<Ipsec::Ike::Status> ikeStatus = Zel::makePtr<Ipsec::Ike::Status>("ikeStatus");
  std::vector<Zel::Ptr<Status>> statuses;
};

/// The key of the status's row, if it had one.
TunnelIntfSnmp::TunnelInetConfigTableKey inetKeyOf(Status const & status);

/// A new default scheduler, and all its tasks run.
class Tasks {
public:
  Tasks() { Kiln::TaskSchedulerRoot::schedulerIs(scheduler_); }
  Tasks(Tasks const &) = delete;
  Tasks & operator=(Tasks const &) = delete;
  ~Tasks() { Kiln::TaskSchedulerRoot::schedulerIs(nullptr); }

  void run() const {
    while (scheduler_->runOne()) {
    }
  }

private:
  Zel::Ptr<Kiln::TaskScheduler> const scheduler_ = Zel::makePtr<Kiln::TaskScheduler>();
};

/// True if and only if all three machines are ready and every table has that many rows.
bool isComplete(TunnelIntfSnmp::TunnelIntfSnmpAgent const & agent, std::uint32_t tunnels);

} // namespace Bench
