// What the three machines of TunnelMib have in common beyond the pattern: the entity that they
// write, the two inputs that they all join, and the two children over those.
#pragma once

#include "TunnelIntfSnmp/CollectionSm.h"
#include "TunnelIntfSnmp/TableSmRuntime.h"
#include <span>
#include <utility>
#include <vector>

namespace TunnelIntfSnmp {

/// `Machine` derives from it and says:
///
///   IntfStatusSm0     the type of its child over the statuses, made from (machine, directory)
///   ifIndexSmName     the name of its child over the ifIndex map
///   unitName, typeName  the names of its source unit and of its type
///   outsideTypes      the types that it refers to
///   ownAttributes()   what can be read of it by name, besides what is common
template <class Machine, class Table, class Key>
class TunnelTableSm : public TableSm<Table, Key> {
public:
  Zel::Ptr<TunnelMib> const & mib() const { return mib_; }
  StatusDirPtr const & tunnelIntfStatusDir() const { return tunnelIntfStatusDir_; }
  IfMibPtr const & ifMib() const { return ifMib_; }
  auto intfStatusSm0() const {
    return this->template intfStatusSm<typename Machine::IntfStatusSm0>();
  }

  Zel::Type const & type() const final { return typeDescription(); }
  static Zel::Type const & typeDescription() {
    static Zel::Attribute const inputs[] = {
        {"mib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Machine::mib>},
        {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
         Zel::getBy<&Machine::tunnelIntfStatusDir>},
        {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Machine::ifMib>}};
    static auto const attributes = TableSmBase::attributesOf(inputs, Machine::ownAttributes());
    static Zel::Type const type{Machine::typeName, attributes};
    return type;
  }

protected:
  TunnelTableSm(TableSmNames const & names, Lumo::DebugHandler const & defaultTrace,
                Flowa::SmControl const & control, Zel::Ptr<TunnelMib> mib,
                StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib)
      : TableSm<Table, Key>(names, defaultTrace, control),
        mib_(std::move(mib)),
        tunnelIntfStatusDir_(std::move(tunnelIntfStatusDir)),
        ifMib_(std::move(ifMib)) {}

  void checkInputs() const override {
    LUMO_ASSERT(mib(), nullSmArgument);
    LUMO_ASSERT(tunnelIntfStatusDir(), nullSmArgument);
    LUMO_ASSERT(ifMib(), nullSmArgument);
  }
  /// The status of the interface now, or nothing. A null status counts as none.
  Zel::Optional<StatusPtr> statusOf(Plexa::IntfId intfId) const {
    auto const * status = tunnelIntfStatusDir_->intfStatus().find(intfId);
    return status != nullptr && *status ? Zel::Optional<StatusPtr>(*status) : std::nullopt;
  }
  /// Calls `deleteRow`, and tells whether the interface still has the status that it had: whoever
  /// hears of a deletion may change the inputs, and the event of that change has done the rest
  /// then.
  template <class Delete>
  bool statusOutlives(Plexa::IntfId intfId, Zel::FirstException & exception, Delete deleteRow) {
    auto const before = statusOf(intfId);
    exception.run(deleteRow);
    return statusOf(intfId) == before;
  }

private:
  Machine & machine() { return static_cast<Machine &>(*this); }
  Zel::Ptr<InputSm> createIfIndexSm() final {
    return Zel::makePtr<IfIndexByIntfIdSm<Machine>>(machine(), ifMib_, Machine::ifIndexSmName);
  }
  Zel::Ptr<InputSm> createIntfStatusSm() final {
    return Zel::makePtr<typename Machine::IntfStatusSm0>(machine(), tunnelIntfStatusDir_);
  }

  Zel::Ptr<TunnelMib> const mib_;
  StatusDirPtr const tunnelIntfStatusDir_;
  IfMibPtr const ifMib_;
};

/// What the framework is told of a machine's unit when the library is loaded.
template <class Machine>
Zel::Module const & moduleOf() {
  static Zel::Type const * const types[] = {&Machine::typeDescription()};
  static Zel::Module const module{Machine::unitName, "ns-", types, Machine::outsideTypes};
  return module;
}

} // namespace TunnelIntfSnmp
