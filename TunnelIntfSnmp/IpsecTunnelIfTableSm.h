// Keeps TunnelMib.ipsecTunnelIfTable equal to the set of tunnel interfaces that have an ifIndex and
// a status with the IPsec flag set. A row holds the status record and the IKE status; the
// connection state is looked up there whenever it is read.
#pragma once

#include "TunnelIntfSnmp/StatusChildSm.h"
#include "TunnelIntfSnmp/TunnelTableSm.h"
#include <span>

namespace TunnelIntfSnmp {

class IpsecTunnelIfTableSm;

namespace FlowaCode::IpsecTunnelIfTableSm {

/// Follows the IPsec flag.
class IpsecSm1 final : public StatusChildSm<IpsecSm1> {
public:
  static constexpr std::string_view name = "IpsecSm1";
  static std::span<Zel::Attribute const * const> followed();

  IpsecSm1(::TunnelIntfSnmp::IpsecTunnelIfTableSm & root, Plexa::IntfId intfId, StatusPtr status);
  void emit(Plexa::IntfId intfId, StatusPtr const & status);
};

using IntfStatusSm0 = StatusParentSm<::TunnelIntfSnmp::IpsecTunnelIfTableSm, IpsecSm1>;
using IfIndexByIntfIdSm2 = IfIndexByIntfIdSm<::TunnelIntfSnmp::IpsecTunnelIfTableSm>;

} // namespace FlowaCode::IpsecTunnelIfTableSm

using MibIpsecTunnelIfTableOutputKeyType =
    OutputKeyType<std::uint32_t,
                  "TunnelIntfSnmp::IpsecTunnelIfTableSm::MibIpsecTunnelIfTableOutputKeyType">;

/// Works from its construction to its destruction, which leaves the rows in place.
class IpsecTunnelIfTableSm final
    : public TunnelTableSm<IpsecTunnelIfTableSm, TunnelMib::IpsecTunnelIfTable,
                           MibIpsecTunnelIfTableOutputKeyType> {
public:
  using IntfStatusSm0 = FlowaCode::IpsecTunnelIfTableSm::IntfStatusSm0;
  static constexpr std::string_view ifIndexSmName = "IfIndexByIntfIdSm2";
  static constexpr std::string_view unitName = "IpsecTunnelIfTableSm";
  static constexpr std::string_view typeName = "TunnelIntfSnmp::IpsecTunnelIfTableSm";
  static constexpr std::string_view outsideTypes[] = {"TunnelIntfSnmp::TunnelMib",
                                                      "Interface::TunnelIntfStatusDir",
                                                      "IntfSnmp::IfMib", "Ipsec::Ike::Status"};
  static std::span<Zel::Attribute const> ownAttributes();

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
  auto ifIndexByIntfIdSm2() const {
    return ifIndexSm<FlowaCode::IpsecTunnelIfTableSm::IfIndexByIntfIdSm2>();
  }

  /// The IPsec flag of the interface came, changed or, without a value, went with its status. The
  /// status is looked up again: what is there now decides.
  void eventToTisIpsecStream(Plexa::IntfId intfId, Zel::Optional<bool> const & ipsecOpt);
  /// The ifIndex came, changed or, without a value, went; what went changes nothing.
  void eventToIfMibStream(Plexa::IntfId intfId, Zel::Optional<std::uint32_t> const & ifIndexOpt);
  /// Both streams merged: writes or deletes the row. Dropped during the first pass.
  void eventToUpdateStream(std::uint32_t ifIndex, Zel::Optional<StatusPtr> const & intfStatusOpt);

private:
  void checkInputs() const override;
  TunnelMib::IpsecTunnelIfTable const & output() const override {
    return mib()->ipsecTunnelIfTable();
  }
  void deleteOutputRow(std::uint32_t const & k1) override;
  void insertOutputRow(std::uint32_t k1, StatusPtr const & status);

  IkeStatusPtr const ikeStatus_;
};
Zel::Ptr<IpsecTunnelIfTableSm> ipsecTunnelIfTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                                                           StatusDirPtr const & tunnelIntfStatusDir,
                                                           IfMibPtr const & ifMib,
                                                           IkeStatusPtr const & ikeStatus,
                                                           Flowa::SmControl const & control);

} // namespace TunnelIntfSnmp
