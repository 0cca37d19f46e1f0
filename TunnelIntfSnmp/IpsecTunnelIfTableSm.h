// Keeps TunnelMib.ipsecTunnelIfTable equal to the set of tunnel interfaces that have an ifIndex and
// a status with the IPsec flag set. A row holds the status record and the IKE status; the
// connection state is looked up there whenever it is read.
#pragma once

#include "TunnelIntfSnmp/StatusChildSm.h"
#include "TunnelIntfSnmp/StatusRowSm.h"
#include <span>
#include <vector>

namespace TunnelIntfSnmp {

class IpsecTunnelIfTableSm;

namespace FlowaCode::IpsecTunnelIfTableSm {

/// Follows the IPsec flag.
class IpsecSm1 final : public StatusChildSm<IpsecSm1> {
public:
  static constexpr std::string_view name = "IpsecSm1";
  static constexpr bool lossNeedsTheStamp = false; // the children are what was heard of
  static std::span<Zel::Attribute const * const> followed();

  IpsecSm1(::TunnelIntfSnmp::IpsecTunnelIfTableSm & root, Plexa::IntfId intfId, StatusPtr status);
  static void emit(TableSmBase & machine, Plexa::IntfId intfId, StatusPtr const & status);
  static Zel::Type const & typeDescription();
  Zel::Type const & type() const override { return typeDescription(); }
};

using IntfStatusSm0 = StatusParentSm<::TunnelIntfSnmp::IpsecTunnelIfTableSm, IpsecSm1>;
using IfIndexByIntfIdSm2 = IfIndexByIntfIdSm<::TunnelIntfSnmp::IpsecTunnelIfTableSm>;

} // namespace FlowaCode::IpsecTunnelIfTableSm

using MibIpsecTunnelIfTableOutputKeyType =
    OutputKeyType<std::uint32_t,
                  "TunnelIntfSnmp::IpsecTunnelIfTableSm::MibIpsecTunnelIfTableOutputKeyType">;

/// Works from its construction to its destruction, which leaves the rows in place.
class IpsecTunnelIfTableSm final
    : public StatusRowSm<IpsecTunnelIfTableSm, TunnelMib::IpsecTunnelIfTable,
                         MibIpsecTunnelIfTableOutputKeyType> {
public:
  using IntfStatusSm0 = FlowaCode::IpsecTunnelIfTableSm::IntfStatusSm0;
  static constexpr std::string_view unitName = "IpsecTunnelIfTableSm";
  static constexpr std::string_view outsideTypes[] = {"TunnelIntfSnmp::TunnelMib",
                                                      "Interface::TunnelIntfStatusDir",
                                                      "Interface::TunnelIntfStatus",
                                                      "IntfSnmp::IfMib",
                                                      "Ipsec::Ike::Status",
                                                      "Flowa::SmControl",
                                                      "Kiln::Task",
                                                      "Plexa::IntfId"};
  static Zel::Type const & typeDescription();
  static std::vector<Zel::Type const *> nestedTypes();

  using MibIpsecTunnelIfTableOutputKeyType = TunnelIntfSnmp::MibIpsecTunnelIfTableOutputKeyType;

  /// Requires: no pointer is null; a null one is fatal.
  IpsecTunnelIfTableSm(Zel::Ptr<TunnelMib> mib, StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                       IkeStatusPtr ikeStatus, Flowa::SmControl const & control);
  ~IpsecTunnelIfTableSm() override;
  static Zel::Ptr<IpsecTunnelIfTableSm>
  IpsecTunnelIfTableSmIs(Zel::Ptr<TunnelMib> const & mib, StatusDirPtr const & tunnelIntfStatusDir,
                         IfMibPtr const & ifMib, IkeStatusPtr const & ikeStatus,
                         Flowa::SmControl const & control);

  IkeStatusPtr const & ikeStatus() const { return ikeStatus_; }
  Zel::Ptr<FlowaCode::IpsecTunnelIfTableSm::IfIndexByIntfIdSm2> ifIndexByIntfIdSm2() const {
    return ifIndexSm();
  }

  /// The IPsec flag of the interface came, changed or, without a value, went with its status. The
  /// status is looked up again: what is there now decides.
  void eventToTisIpsecStream(Plexa::IntfId intfId, Zel::Optional<bool> const & ipsecOpt);
  /// The ifIndex came, changed or, without a value, went; what went changes nothing.
  void eventToIfMibStream(Plexa::IntfId intfId, Zel::Optional<std::uint32_t> const & ifIndexOpt);
  /// Both streams merged: writes or deletes the row. Dropped during the first pass. `intfId` says
  /// whose event it is; the record may say otherwise.
  void eventToUpdateStream(std::uint32_t ifIndex, Zel::Optional<StatusPtr> const & intfStatusOpt,
                           Plexa::IntfId intfId);

private:
  friend StatusRowSm;
  void checkInputs() const override;
  TunnelMib::IpsecTunnelIfTable const & output() const override {
    return mib()->ipsecTunnelIfTable();
  }
  void insertOutputRow(std::uint32_t k1, Plexa::IntfId intfId, StatusPtr const & status);
  void insertRow(std::uint32_t k1, StatusPtr const & status);
  void deleteRow(std::uint32_t k1) { mib()->ipsecTunnelIfTableDel(k1); }
  static bool isWanted(Interface::TunnelIntfStatus const & status) { return status.ipsec(); }
  void traceDeletion(std::uint32_t k1) const;

  IkeStatusPtr const ikeStatus_;
};
Zel::Ptr<IpsecTunnelIfTableSm> ipsecTunnelIfTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                                                           StatusDirPtr const & tunnelIntfStatusDir,
                                                           IfMibPtr const & ifMib,
                                                           IkeStatusPtr const & ikeStatus,
                                                           Flowa::SmControl const & control);

} // namespace TunnelIntfSnmp
