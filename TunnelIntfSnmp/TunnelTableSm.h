// What the three machines of TunnelMib have in common beyond the pattern: the entity that they
// write, the two inputs that they all join, and the two children over those.
#pragma once

#include "TunnelIntfSnmp/CollectionSm.h"
#include "TunnelIntfSnmp/TableSmRuntime.h"
#include <cstddef>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace TunnelIntfSnmp {

/// `Machine` derives from it and says:
///
///   IntfStatusSm0     the type of its child over the statuses, made from (machine, input number,
///                     directory)
///   unitName          the name of its source unit
///   outsideTypes      the types that it refers to
///   typeDescription() its type
///   nestedTypes()     its type and those of its parts
///
/// The first two of its inputs are the ifIndex map and the statuses. A machine with a third input
/// overrides createInputSm() for it.
template <class Machine, class Table, class KeyType>
class TunnelTableSm : public TableSm<Table, KeyType> {
public:
  static constexpr std::size_t ifMibInput = 0;
  static constexpr std::size_t intfStatusInput = 1;

  Zel::Ptr<TunnelMib> const & mib() const { return mib_; }
  StatusDirPtr const & tunnelIntfStatusDir() const { return tunnelIntfStatusDir_; }
  IfMibPtr const & ifMib() const { return ifMib_; }
  auto intfStatusSm0() const {
    return this->template inputSm<typename Machine::IntfStatusSm0>(intfStatusInput);
  }
  Zel::Type const & type() const final { return Machine::typeDescription(); }

  /// The status of the interface now, or nothing. A null status counts as none.
  Zel::Optional<StatusPtr> statusOf(Plexa::IntfId intfId) const {
    auto const * status = tunnelIntfStatusDir_->intfStatus().find(intfId);
    return status != nullptr && *status ? Zel::Optional<StatusPtr>(*status) : std::nullopt;
  }

protected:
  TunnelTableSm(TableSmNames const & names, Lumo::DebugHandler const & defaultTrace,
                Flowa::SmControl const & control, Zel::Ptr<TunnelMib> mib,
                StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib)
      : TableSm<Table, KeyType>(names, defaultTrace, control),
        mib_(std::move(mib)),
        tunnelIntfStatusDir_(std::move(tunnelIntfStatusDir)),
        ifMib_(std::move(ifMib)) {}

  auto ifIndexSm() const { return this->template inputSm<IfIndexByIntfIdSm<Machine>>(ifMibInput); }
  void checkInputs() const override {
    LUMO_ASSERT(mib(), nullSmArgument);
    LUMO_ASSERT(tunnelIntfStatusDir(), nullSmArgument);
    LUMO_ASSERT(ifMib(), nullSmArgument);
  }
  Zel::Ptr<InputSm> createInputSm(std::size_t input) override {
    auto & machine = static_cast<Machine &>(*this);
    if (input == ifMibInput)
      return Zel::makePtr<IfIndexByIntfIdSm<Machine>>(machine, input, ifMib_);
    return Zel::makePtr<typename Machine::IntfStatusSm0>(machine, input, tunnelIntfStatusDir_);
  }

  /// Calls `deleteRow`, and tells whether the interface still has the status that it had: a
  /// listener of a deletion may change the inputs, and the event of that change has done the rest
  /// then.
  template <class Delete>
  bool statusOutlives(Plexa::IntfId intfId, Delete deleteRow) const {
    auto const before = statusOf(intfId);
    deleteRow();
    return statusOf(intfId) == before;
  }

private:
  Zel::Ptr<TunnelMib> const mib_;
  StatusDirPtr const tunnelIntfStatusDir_;
  IfMibPtr const ifMib_;
};

/// What the framework is told of a machine's unit when the library is loaded.
template <class Machine>
Zel::Module const & moduleOf() {
  static auto const types = Machine::nestedTypes();
  static Zel::Module const module{Machine::unitName, "ns-", types, Machine::outsideTypes};
  return module;
}

/// The type of a reconciliation task under the name of its machine's.
inline Zel::Type reconciliationTaskType(std::string_view name) {
  return {name, TableSmBase::ReconciliationTask::attributesOfTask()};
}

/// The control record of a machine by its text form, for a host whose record has one.
template <class Machine>
Zel::Value flowaControlByName(Zel::PtrInterface const & machine) {
  auto const & control = static_cast<Machine const &>(machine).flowaControl();
  if constexpr (Zel::FieldedValue<std::remove_cvref_t<decltype(control)>>)
    return Zel::toValue(control);
  else
    return {};
}

} // namespace TunnelIntfSnmp
