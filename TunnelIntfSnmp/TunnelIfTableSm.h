// Keeps TunnelMib.tunnelIfTable equal to the join of the tunnel statuses and the ifIndex map: one
// row for each interface that has both, under its ifIndex, with a pointer to its status record.
//
// An interface whose ifIndex changes leaves its row under the old one behind until that ifIndex is
// deleted or taken over by an event, or the next start reconciles the table.
#pragma once

#include "TunnelIntfSnmp/CollectionSm.h"
#include "TunnelIntfSnmp/TableSmRuntime.h"

namespace TunnelIntfSnmp {

class TunnelIfTableSm;

namespace FlowaCode::TunnelIfTableSm {

using IfIndexByIntfIdSm1 = IfIndexByIntfIdSm<::TunnelIntfSnmp::TunnelIfTableSm>;

/// Turns each change of intfStatus into the machine's eventToTisStream(intfId, tisOpt).
class IntfStatusSm0 final : public IntfStatusCollectionSm {
public:
  IntfStatusSm0(::TunnelIntfSnmp::TunnelIfTableSm & root, StatusDirPtr tunnelIntfStatusDir);

private:
  void handleKey(Plexa::IntfId const & intfId) override;
  void handleGone(Plexa::IntfId const & intfId) override;

  ::TunnelIntfSnmp::TunnelIfTableSm & root_;
};

} // namespace FlowaCode::TunnelIfTableSm

using MibTunnelIfTableOutputKeyType =
    OutputKeyType<std::uint32_t, "TunnelIntfSnmp::TunnelIfTableSm::MibTunnelIfTableOutputKeyType">;

/// Works from its construction to its destruction, which leaves the rows in place.
class TunnelIfTableSm final
    : public TableSm<TunnelMib::TunnelIfTable, MibTunnelIfTableOutputKeyType> {
public:
  using MibTunnelIfTableOutputKeyType = TunnelIntfSnmp::MibTunnelIfTableOutputKeyType;

  /// Requires: no pointer is null; a null one is fatal.
  TunnelIfTableSm(Zel::Ptr<TunnelMib> mib, StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                  Flowa::SmControl const & control);
  ~TunnelIfTableSm() override;
  static Zel::Ptr<TunnelIfTableSm> TunnelIfTableSmIs(Zel::Ptr<TunnelMib> const & mib,
                                                     StatusDirPtr const & tunnelIntfStatusDir,
                                                     IfMibPtr const & ifMib,
                                                     Flowa::SmControl const & control);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();

  Zel::Ptr<TunnelMib> const & mib() const { return mib_; }
  StatusDirPtr const & tunnelIntfStatusDir() const { return tunnelIntfStatusDir_; }
  IfMibPtr const & ifMib() const { return ifMib_; }
  Zel::Ptr<FlowaCode::TunnelIfTableSm::IntfStatusSm0> intfStatusSm0() const;
  Zel::Ptr<FlowaCode::TunnelIfTableSm::IfIndexByIntfIdSm1> ifIndexByIntfIdSm1() const;

  /// The status of the interface came, changed or, without a value, went.
  void eventToTisStream(Plexa::IntfId intfId, Zel::Optional<StatusPtr> const & tisOpt);
  /// The ifIndex of the interface came, changed or, without a value, went. Raises
  /// Zel::BadOptionalAccess when it went while the interface still has a status; nothing changes
  /// then.
  void eventToIfMibStream(Plexa::IntfId intfId, Zel::Optional<std::uint32_t> const & ifIndexOpt);

private:
  void checkInputs() const override;
  Zel::Ptr<InputSm> createIfIndexSm() override;
  Zel::Ptr<InputSm> createIntfStatusSm() override;
  TunnelMib::TunnelIfTable const & output() const override { return mib_->tunnelIfTable(); }
  void deleteOutputRow(std::uint32_t const & k1) override;
  void insertOutputRow(std::uint32_t k1, StatusPtr const & status);

  Zel::Ptr<TunnelMib> const mib_;
  StatusDirPtr const tunnelIntfStatusDir_;
  IfMibPtr const ifMib_;
};
Zel::Ptr<TunnelIfTableSm> tunnelIfTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                                                 StatusDirPtr const & tunnelIntfStatusDir,
                                                 IfMibPtr const & ifMib,
                                                 Flowa::SmControl const & control);

} // namespace TunnelIntfSnmp
