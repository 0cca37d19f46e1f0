// The machine of ipsecTunnelIfTable. What it shares with the other machines is in TableSmRuntime.h,
// CollectionSm.h and StatusChildSm.h; here is what its events mean.
#include "TunnelIntfSnmp/IpsecTunnelIfTableSm.h"
#include <array>

namespace TunnelIntfSnmp {

namespace {

constexpr char const * unitName = "IpsecTunnelIfTableSm";
auto const debugHandler = Lumo::Platform::getDebugHandler(unitName, false);

OutputNames const outputs[] = {
    {"mibIpsecTunnelIfTableOutput", {"mibIpsecTunnelIfTableOutputReady", "bool"}}};
TableSmNames const smNames{.machine = unitName,
                           .tisStream = "tisIpsecStream",
                           .tisStreamScan = {"tisIpsecStreamScan", "bool"},
                           .outputs = outputs};

} // namespace

// Construction and children

IpsecTunnelIfTableSm::IpsecTunnelIfTableSm(Zel::Ptr<TunnelMib> mib,
                                           StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                                           IkeStatusPtr ikeStatus, Flowa::SmControl const & control)
    : TableSm(smNames, *debugHandler, control),
      mib_(std::move(mib)),
      tunnelIntfStatusDir_(std::move(tunnelIntfStatusDir)),
      ifMib_(std::move(ifMib)),
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
  LUMO_ASSERT(mib(), nullSmArgument);
  LUMO_ASSERT(tunnelIntfStatusDir(), nullSmArgument);
  LUMO_ASSERT(ifMib(), nullSmArgument);
  LUMO_ASSERT(ikeStatus(), nullSmArgument);
}

Zel::Ptr<InputSm> IpsecTunnelIfTableSm::createIfIndexSm() {
  return Zel::makePtr<FlowaCode::IpsecTunnelIfTableSm::IfIndexByIntfIdSm2>(*this, ifMib_,
                                                                           "IfIndexByIntfIdSm2");
}

Zel::Ptr<InputSm> IpsecTunnelIfTableSm::createIntfStatusSm() {
  return Zel::makePtr<FlowaCode::IpsecTunnelIfTableSm::IntfStatusSm0>(*this, tunnelIntfStatusDir_);
}

Zel::Ptr<FlowaCode::IpsecTunnelIfTableSm::IntfStatusSm0>
IpsecTunnelIfTableSm::intfStatusSm0() const {
  return intfStatusSm<FlowaCode::IpsecTunnelIfTableSm::IntfStatusSm0>();
}

Zel::Ptr<FlowaCode::IpsecTunnelIfTableSm::IfIndexByIntfIdSm2>
IpsecTunnelIfTableSm::ifIndexByIntfIdSm2() const {
  return ifIndexSm<FlowaCode::IpsecTunnelIfTableSm::IfIndexByIntfIdSm2>();
}

// Reactors

namespace FlowaCode::IpsecTunnelIfTableSm {

bool IpsecSm1::follows(Zel::Attribute const & attribute) {
  return &attribute == &Interface::TunnelIntfStatus::ipsecAttribute();
}

IpsecSm1::IpsecSm1(::TunnelIntfSnmp::IpsecTunnelIfTableSm & root, Plexa::IntfId intfId,
                   StatusPtr status)
    : StatusChildSm(root, intfId, std::move(status)),
      root_(root) {}

void IpsecSm1::emit(Plexa::IntfId intfId, StatusPtr const & status) {
  root_.eventToTisIpsecStream(intfId, status ? Zel::Optional<bool>(status->ipsec()) : std::nullopt);
}

} // namespace FlowaCode::IpsecTunnelIfTableSm

// Pipeline

void IpsecTunnelIfTableSm::eventToTisIpsecStream(Plexa::IntfId intfId,
                                                 Zel::Optional<bool> const &) {
  LUMO_TRACE(trace(), 7, unit(),
             "tisIpsecStream = from( tunnelIntfStatusDir.intfStatus[].ipsec ): intfId={}", intfId);
  auto const * ifIndex = ifMib_->ifIndexByIntfId().find(intfId);
  if (ifIndex == nullptr) {
    LUMO_TRACE(trace(), 6, unit(), "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  eventToUpdateStream(*ifIndex, statusOptOf(intfId));
}

void IpsecTunnelIfTableSm::eventToIfMibStream(Plexa::IntfId intfId,
                                              Zel::Optional<std::uint32_t> const & ifIndexOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(),
             "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId={} ifIndexOpt={}", intfId,
             printed(ifIndexOpt));
  if (!ifIndexOpt) {
    LUMO_TRACE(trace(), 6, unit(), "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  auto const status = statusOptOf(intfId);
  if (!status) {
    LUMO_TRACE(trace(), 6, unit(), "filter( intfStatusOpt ) failed, terminating pipeline");
    return;
  }
  eventToUpdateStream(*ifIndexOpt, status);
}

void IpsecTunnelIfTableSm::eventToUpdateStream(std::uint32_t ifIndex,
                                               Zel::Optional<StatusPtr> const & intfStatusOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(),
             "updateStream = merge( tisIpsecStream, ifMibStream ): ifIndex={} intfStatusOpt={}",
             ifIndex, printed(intfStatusOpt));
  outputKeySeen(ifIndex);
  if (intfStatusOpt && (*intfStatusOpt)->ipsec())
    insertOutputRow(ifIndex, *intfStatusOpt);
  else
    deleteOutputRow(ifIndex);
}

// The status as the pipeline's optional.
Zel::Optional<StatusPtr> IpsecTunnelIfTableSm::statusOptOf(Plexa::IntfId intfId) const {
  auto status = statusOf(*tunnelIntfStatusDir_, intfId);
  return status ? Zel::Optional<StatusPtr>(std::move(status)) : std::nullopt;
}

// Writes to the output table

void IpsecTunnelIfTableSm::insertOutputRow(std::uint32_t k1, StatusPtr const & status) {
  Zel::FirstException exception; // of whoever hears of the deletion: the new row must not miss it
  if (auto const row = mib_->ipsecTunnelIfTable(k1)) {
    if (row->tunnelIntfStatus() == status)
      return;
    if (!makeRoom(*tunnelIntfStatusDir_, status, exception,
                  [&] { mib_->ipsecTunnelIfTableDel(k1); }))
      return exception.rethrow();
  }
  exception.run([&] { mib_->ipsecTunnelIfTableIs(k1, status, ikeStatus_); });
  LUMO_TRACE(
      trace(), 7, unit(),
      "into( mib.ipsecTunnelIfTable[ ifIndex ] ): inserting k1={}, value=Tuple( {}, {}, {} )", k1,
      k1, printed(status), printed(ikeStatus_));
  exception.rethrow();
}

void IpsecTunnelIfTableSm::deleteOutputRow(std::uint32_t const & k1) {
  LUMO_TRACE(trace(), 7, unit(), "into( mib.ipsecTunnelIfTable[ ifIndex ] ): deleting k1={}", k1);
  mib_->ipsecTunnelIfTableDel(k1);
}

// Destruction

IpsecTunnelIfTableSm::~IpsecTunnelIfTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

Zel::Type const & IpsecTunnelIfTableSm::type() const {
  return typeDescription();
}

Zel::Type const & IpsecTunnelIfTableSm::typeDescription() {
  using Sm = IpsecTunnelIfTableSm;
  static Zel::Attribute const own[] = {
      {"mib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Sm::mib>},
      {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
       Zel::getBy<&Sm::tunnelIntfStatusDir>},
      {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Sm::ifMib>},
      {"ikeStatus", "Ipsec::Ike::Status", Zel::getBy<&Sm::ikeStatus>},
      {"ifIndexByIntfIdSm2", "InputSm", Zel::getBy<&Sm::ifIndexByIntfIdSm2>},
      {"intfStatusSm0", "InputSm", Zel::getBy<&Sm::intfStatusSm0>},
      {"mibIpsecTunnelIfTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>}};
  static auto const attributes = attributesOf(own);
  static Zel::Type const type{"TunnelIntfSnmp::IpsecTunnelIfTableSm", attributes};
  return type;
}

namespace {

std::array<Zel::Type const *, 1> const types{&IpsecTunnelIfTableSm::typeDescription()};
constexpr std::array<std::string_view, 4> outsideTypes{"TunnelIntfSnmp::TunnelMib",
                                                       "Interface::TunnelIntfStatusDir",
                                                       "IntfSnmp::IfMib", "Ipsec::Ike::Status"};
Zel::Module const moduleRecord{unitName, "ns-", types, outsideTypes};
Zel::zelModuleIs const _IpsecTunnelIfTableSm_f6b9bf12_zelModule(moduleRecord);

} // namespace

} // namespace TunnelIntfSnmp
