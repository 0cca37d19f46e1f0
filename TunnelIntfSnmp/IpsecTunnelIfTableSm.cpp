// The machine of ipsecTunnelIfTable. What it shares with the other machines is in TableSmRuntime.h,
// CollectionSm.h and StatusChildSm.h; here is what its events mean.
#include "TunnelIntfSnmp/IpsecTunnelIfTableSm.h"

namespace TunnelIntfSnmp {

namespace {

auto const debugHandler = Lumo::Platform::getDebugHandler(IpsecTunnelIfTableSm::unitName, false);

OutputNames const outputs[] = {
    {"mibIpsecTunnelIfTableOutput", {"mibIpsecTunnelIfTableOutputReady", "bool"}}};
TableSmNames const smNames{.machine = IpsecTunnelIfTableSm::unitName,
                           .tisStream = "tisIpsecStream",
                           .tisStreamScan = {"tisIpsecStreamScan", "bool"},
                           .outputs = outputs};

} // namespace

// Construction and children

IpsecTunnelIfTableSm::IpsecTunnelIfTableSm(Zel::Ptr<TunnelMib> mib,
                                           StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                                           IkeStatusPtr ikeStatus, Flowa::SmControl const & control)
    : TunnelTableSm(smNames, *debugHandler, control, std::move(mib), std::move(tunnelIntfStatusDir),
                    std::move(ifMib)),
      ikeStatus_(std::move(ikeStatus)) {
  handleInitialized();
}

Zel::Ptr<IpsecTunnelIfTableSm> IpsecTunnelIfTableSm::IpsecTunnelIfTableSmIs(
    Zel::Ptr<TunnelMib> const & mib, StatusDirPtr const & tunnelIntfStatusDir,
    IfMibPtr const & ifMib, IkeStatusPtr const & ikeStatus, Flowa::SmControl const & control) {
  return Zel::makePtr<IpsecTunnelIfTableSm>(mib, tunnelIntfStatusDir, ifMib, ikeStatus, control);
}

Zel::Ptr<IpsecTunnelIfTableSm> ipsecTunnelIfTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                                                           StatusDirPtr const & tunnelIntfStatusDir,
                                                           IfMibPtr const & ifMib,
                                                           IkeStatusPtr const & ikeStatus,
                                                           Flowa::SmControl const & control) {
  return IpsecTunnelIfTableSm::IpsecTunnelIfTableSmIs(mib, tunnelIntfStatusDir, ifMib, ikeStatus,
                                                      control);
}

void IpsecTunnelIfTableSm::checkInputs() const {
  TunnelTableSm::checkInputs();
  LUMO_ASSERT(ikeStatus(), nullSmArgument);
}

// Reactors

namespace FlowaCode::IpsecTunnelIfTableSm {

std::span<Zel::Attribute const * const> IpsecSm1::followed() {
  static std::array const attributes{&Interface::TunnelIntfStatus::ipsecAttribute()};
  return attributes;
}

IpsecSm1::IpsecSm1(::TunnelIntfSnmp::IpsecTunnelIfTableSm & root, Plexa::IntfId intfId,
                   StatusPtr status)
    : StatusChildSm(root, intfId, std::move(status)) {}

void IpsecSm1::emit(Plexa::IntfId intfId, StatusPtr const & status) {
  auto & root = static_cast<::TunnelIntfSnmp::IpsecTunnelIfTableSm &>(machine());
  root.eventToTisIpsecStream(intfId, status ? Zel::Optional<bool>(status->ipsec()) : std::nullopt);
}

} // namespace FlowaCode::IpsecTunnelIfTableSm

// Pipeline

void IpsecTunnelIfTableSm::eventToTisIpsecStream(Plexa::IntfId intfId,
                                                 Zel::Optional<bool> const &) {
  LUMO_TRACE(trace(), 7,
             "tisIpsecStream = from( tunnelIntfStatusDir.intfStatus[].ipsec ): intfId={}", intfId);
  auto const * ifIndex = ifMib()->ifIndexByIntfId().find(intfId);
  if (ifIndex == nullptr) {
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  eventToUpdateStream(*ifIndex, statusOf(intfId));
}

void IpsecTunnelIfTableSm::eventToIfMibStream(Plexa::IntfId intfId,
                                              Zel::Optional<std::uint32_t> const & ifIndexOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId={} ifIndexOpt={}",
             intfId, printed(ifIndexOpt));
  if (!ifIndexOpt) {
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  auto const status = statusOf(intfId);
  if (!status) {
    LUMO_TRACE(trace(), 6, "filter( intfStatusOpt ) failed, terminating pipeline");
    return;
  }
  eventToUpdateStream(*ifIndexOpt, status);
}

void IpsecTunnelIfTableSm::eventToUpdateStream(std::uint32_t ifIndex,
                                               Zel::Optional<StatusPtr> const & intfStatusOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7,
             "updateStream = merge( tisIpsecStream, ifMibStream ): ifIndex={} intfStatusOpt={}",
             ifIndex, printed(intfStatusOpt));
  outputKeySeen(ifIndex);
  if (intfStatusOpt && (*intfStatusOpt)->ipsec())
    insertOutputRow(ifIndex, *intfStatusOpt);
  else
    deleteOutputRow(ifIndex);
}

// Writes to the output table

void IpsecTunnelIfTableSm::insertOutputRow(std::uint32_t k1, StatusPtr const & status) {
  Zel::FirstException exception; // of whoever hears of the deletion: the new row must not miss it
  if (auto const row = mib()->ipsecTunnelIfTable(k1)) {
    if (row->tunnelIntfStatus() == status)
      return;
    auto const intfId = status->intfId();
    if (!statusOutlives(intfId, exception, [&] { mib()->ipsecTunnelIfTableDel(k1); }) ||
        !status->ipsec())
      return exception.rethrow();
  }
  exception.run([&] { mib()->ipsecTunnelIfTableIs(k1, status, ikeStatus_); });
  LUMO_TRACE(
      trace(), 7,
      "into( mib.ipsecTunnelIfTable[ ifIndex ] ): inserting k1={}, value=Tuple( {}, {}, {} )", k1,
      k1, printed(status), printed(ikeStatus_));
  exception.rethrow();
}

void IpsecTunnelIfTableSm::deleteOutputRow(std::uint32_t const & k1) {
  LUMO_TRACE(trace(), 7, "into( mib.ipsecTunnelIfTable[ ifIndex ] ): deleting k1={}", k1);
  mib()->ipsecTunnelIfTableDel(k1);
}

// Destruction

IpsecTunnelIfTableSm::~IpsecTunnelIfTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

std::span<Zel::Attribute const> IpsecTunnelIfTableSm::ownAttributes() {
  using Sm = IpsecTunnelIfTableSm;
  static Zel::Attribute const own[] = {
      {"ikeStatus", "Ipsec::Ike::Status", Zel::getBy<&Sm::ikeStatus>},
      {"ifIndexByIntfIdSm2", "InputSm", Zel::getBy<&Sm::ifIndexByIntfIdSm2>},
      {"intfStatusSm0", "InputSm", Zel::getBy<&Sm::intfStatusSm0>},
      {"mibIpsecTunnelIfTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>}};
  return own;
}

namespace {

Zel::zelModuleIs const _IpsecTunnelIfTableSm_f6b9bf12_zelModule(moduleOf<IpsecTunnelIfTableSm>());
} // namespace

} // namespace TunnelIntfSnmp
