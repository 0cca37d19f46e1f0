// The inputs, the output and the scheduler of a machine under test.
#pragma once

#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Flowa.h"
#include "platform/Interface.h"
#include "platform/IntfSnmp.h"
#include "tests/support/TestScheduler.h"
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace TunnelIntfSnmp {

struct World {
  explicit World(RunMode const & runMode = runModes[0], std::uint32_t seed = 1)
      : scheduler(Zel::makePtr<TestScheduler>(runMode.yield, seed)) {
    control.taskScheduler = scheduler;
    control.taskPriority = 3;
    control.synchronousMode = runMode.synchronous ? 1 : 2;
  }

  /// Puts a new status record there and returns it.
  Zel::Ptr<Interface::TunnelIntfStatus> addStatus(std::uint64_t id) {
    auto status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(id));
    dir->intfStatusIs(Plexa::IntfId(id), status);
    return status;
  }
  void addIfIndex(std::uint64_t id, std::uint32_t ifIndex) {
    ifMib->ifIndexByIntfIdIs(Plexa::IntfId(id), ifIndex);
  }
  void addTunnel(std::uint64_t id, std::uint32_t ifIndex) {
    addIfIndex(id, ifIndex);
    addStatus(id);
  }
  void settle() { scheduler->runUntilQuiet(); }

  /// ifIndex -> the id of the status that the row refers to.
  std::map<std::uint32_t, std::uint64_t> tunnelIfRows() const {
    std::map<std::uint32_t, std::uint64_t> rows;
    for (auto const & [ifIndex, row] : mib->tunnelIfTable())
      rows.emplace(ifIndex, row->tunnelIntfStatus()->intfId().value());
    return rows;
  }

  Zel::Ptr<TestScheduler> scheduler;
  Flowa::SmControl control;
  Zel::Ptr<TunnelMib> mib = Zel::makePtr<TunnelMib>("tunnelMib");
  Zel::Ptr<Interface::TunnelIntfStatusDir> dir =
      Zel::makePtr<Interface::TunnelIntfStatusDir>("tunnelIntfStatusDir");
  Zel::Ptr<IntfSnmp::IfMib> ifMib = Zel::makePtr<IntfSnmp::IfMib>("ifMib");
  Zel::Ptr<Ipsec::Ike::Status> ikeStatus = Zel::makePtr<Ipsec::Ike::Status>("ikeStatus");
};

/// Calls back for every change of an object.
class OnChange : public Zel::Notifiee {
public:
  OnChange(Zel::PtrInterface const & object, std::function<void(Zel::Notification const &)> call)
      : call_(std::move(call)) {
    notifierIs(&object);
  }
  void onNotification(Zel::Notification const & notification) override { call_(notification); }

private:
  std::function<void(Zel::Notification const &)> call_;
};

using Rows = std::map<std::uint32_t, std::uint64_t>;

} // namespace TunnelIntfSnmp
