// Keeps TunnelMib.tunnelIfTable equal to the join of the tunnel statuses and the ifIndex map: one
// row for each interface that has both, under its ifIndex, with a pointer to its status record.
//
// An interface whose ifIndex changes leaves its row under the old one behind until that ifIndex is
// deleted or taken over by an event, or the next start reconciles the table.
#pragma once

#include "TunnelIntfSnmp/StatusRowSm.h"
#include <vector>

namespace TunnelIntfSnmp {

class TunnelIfTableSm;

namespace FlowaCode::TunnelIfTableSm {

using IfIndexByIntfIdSm1 = IfIndexByIntfIdSm<::TunnelIntfSnmp::TunnelIfTableSm>;

/// Turns each change of intfStatus into the machine's eventToTisStream(intfId, tisOpt).
class IntfStatusSm0 final : public IntfStatusCollectionSm {
public:
  IntfStatusSm0(::TunnelIntfSnmp::TunnelIfTableSm & root, std::size_t input,
                StatusDirPtr tunnelIntfStatusDir);

private:
  void handleKey(Plexa::IntfId const & intfId) override;
  void handleGone(Plexa::IntfId const & intfId) override;

  ::TunnelIntfSnmp::TunnelIfTableSm & root_; // not used once the child is stopped
};

} // namespace FlowaCode::TunnelIfTableSm

using MibTunnelIfTableOutputKeyType =
    OutputKeyType<std::uint32_t, "TunnelIntfSnmp::TunnelIfTableSm::MibTunnelIfTableOutputKeyType">;

/// Works from its construction to its destruction, which leaves the rows in place.
class TunnelIfTableSm final
    : public StatusRowSm<TunnelIfTableSm, TunnelMib::TunnelIfTable, MibTunnelIfTableOutputKeyType> {
public:
  using IntfStatusSm0 = FlowaCode::TunnelIfTableSm::IntfStatusSm0;
  static constexpr std::string_view unitName = "TunnelIfTableSm";
  static constexpr std::string_view outsideTypes[] = {
      "TunnelIntfSnmp::TunnelMib", "Interface::TunnelIntfStatusDir", "IntfSnmp::IfMib",
      "Flowa::SmControl", "Kiln::Task"};
  static Zel::Type const & typeDescription();
  static std::vector<Zel::Type const *> nestedTypes();

  using MibTunnelIfTableOutputKeyType = TunnelIntfSnmp::MibTunnelIfTableOutputKeyType;

  /// Requires: no pointer is null; a null one is fatal.
  TunnelIfTableSm(Zel::Ptr<TunnelMib> mib, StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                  Flowa::SmControl const & control);
  ~TunnelIfTableSm() override;
  static Zel::Ptr<TunnelIfTableSm> TunnelIfTableSmIs(Zel::Ptr<TunnelMib> const & mib,
                                                     StatusDirPtr const & tunnelIntfStatusDir,
                                                     IfMibPtr const & ifMib,
                                                     Flowa::SmControl const & control);

  Zel::Ptr<FlowaCode::TunnelIfTableSm::IfIndexByIntfIdSm1> ifIndexByIntfIdSm1() const {
    return ifIndexSm();
  }

  /// The status of the interface came, changed or, without a value, went.
  void eventToTisStream(Plexa::IntfId intfId, Zel::Optional<StatusPtr> const & tisOpt);
  /// The ifIndex of the interface came, changed or, without a value, went. Raises
  /// Zel::BadOptionalAccess when it went while the interface still has a status; nothing changes
  /// then.
  void eventToIfMibStream(Plexa::IntfId intfId, Zel::Optional<std::uint32_t> const & ifIndexOpt);

private:
  friend StatusRowSm;
  TunnelMib::TunnelIfTable const & output() const override { return mib()->tunnelIfTable(); }
  void insertOutputRow(std::uint32_t k1, Plexa::IntfId intfId, StatusPtr const & status);
  void insertRow(std::uint32_t k1, StatusPtr const & status) { mib()->tunnelIfTableIs(k1, status); }
  void deleteRow(std::uint32_t k1) { mib()->tunnelIfTableDel(k1); }
  static bool isWanted(Interface::TunnelIntfStatus const &) { return true; }
  void traceDeletion(std::uint32_t k1) const;
};
Zel::Ptr<TunnelIfTableSm> tunnelIfTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                                                 StatusDirPtr const & tunnelIntfStatusDir,
                                                 IfMibPtr const & ifMib,
                                                 Flowa::SmControl const & control);

} // namespace TunnelIntfSnmp
