// The machine of ipsecTunnelIfTable. What it shares with the other machines is in TableSmRuntime.h,
// CollectionSm.h and StatusChildSm.h; here is what its events mean.
#include "TunnelIntfSnmp/IpsecTunnelIfTableSm.h"

namespace TunnelIntfSnmp {

namespace {

auto const debugHandler = Lumo::Platform::getDebugHandler(IpsecTunnelIfTableSm::unitName, false);

InputNames const inputs[] = {
    {"IfIndexByIntfIdSm2",
     "ifMibStream",
     {"ifMibStreamScan", "bool", InputSmScanState::scanOf<IpsecTunnelIfTableSm::ifMibInput>},
     {"TunnelIntfSnmp::FlowaCode::IpsecTunnelIfTableSm::IfIndexByIntfIdSm2",
      InputSm::attributesOfInputSm()}},
    {"IntfStatusSm0",
     "tisIpsecStream",
     {"tisIpsecStreamScan", "bool",
      InputSmScanState::scanOf<IpsecTunnelIfTableSm::intfStatusInput>},
     {"TunnelIntfSnmp::FlowaCode::IpsecTunnelIfTableSm::IntfStatusSm0",
      InputSm::attributesOfInputSm()}}};
OutputNames const outputs[] = {
    {"mibIpsecTunnelIfTableOutput",
     {"mibIpsecTunnelIfTableOutputReady", "bool", OutputState::readyOf<0>}}};

Zel::Attribute const * const scanAttributes[] = {&inputs[0].scan, &inputs[1].scan,
                                                 &InputSmScanState::idleAttribute()};
Zel::Attribute const * const outputAttributes[] = {&outputs[0].ready,
                                                   &OutputState::readyAttribute()};
Zel::Type const scanStateType{"TunnelIntfSnmp::FlowaCode::IpsecTunnelIfTableSm::InputSmScanState",
                              scanAttributes};
Zel::Type const outputStateType{"TunnelIntfSnmp::FlowaCode::IpsecTunnelIfTableSm::OutputState",
                                outputAttributes};
auto const taskType = reconciliationTaskType("TunnelIntfSnmp::FlowaCode::IpsecTunnelIfTableSm::"
                                             "ZelMibIpsecTunnelIfTableOutputReconciliationTask");
TableSmNames const smNames{.machine = IpsecTunnelIfTableSm::unitName,
                           .inputs = inputs,
                           .outputs = outputs,
                           .scanState = scanStateType,
                           .outputState = outputStateType,
                           .reconciliationTask = taskType};

} // namespace

// Construction and children

IpsecTunnelIfTableSm::IpsecTunnelIfTableSm(Zel::Ptr<TunnelMib> mib,
                                           StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                                           IkeStatusPtr ikeStatus, Flowa::SmControl const & control)
    : StatusRowSm(smNames, *debugHandler, control, std::move(mib), std::move(tunnelIntfStatusDir),
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
  StatusRowSm::checkInputs();
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

void IpsecSm1::emit(TableSmBase & machine, Plexa::IntfId intfId, StatusPtr const & status) {
  auto & root = static_cast<::TunnelIntfSnmp::IpsecTunnelIfTableSm &>(machine);
  root.eventToTisIpsecStream(intfId, status ? Zel::Optional<bool>(status->ipsec()) : std::nullopt);
}

Zel::Type const & IpsecSm1::typeDescription() {
  static Zel::Attribute const list[] = {
      {"intfId", "Plexa::IntfId", Zel::getBy<&IpsecSm1::intfId>},
      {"status", "Interface::TunnelIntfStatus", Zel::getBy<&IpsecSm1::status>}};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{"TunnelIntfSnmp::FlowaCode::IpsecTunnelIfTableSm::IpsecSm1",
                              attributes};
  return type;
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
  eventToUpdateStream(*ifIndex, statusOf(intfId), intfId);
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
  eventToUpdateStream(*ifIndexOpt, status, intfId);
}

void IpsecTunnelIfTableSm::eventToUpdateStream(std::uint32_t ifIndex,
                                               Zel::Optional<StatusPtr> const & intfStatusOpt,
                                               Plexa::IntfId intfId) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7,
             "updateStream = merge( tisIpsecStream, ifMibStream ): ifIndex={} intfStatusOpt={}",
             ifIndex, printed(intfStatusOpt));
  outputKeySeen(ifIndex);
  if (intfStatusOpt && (*intfStatusOpt)->ipsec())
    insertOutputRow(ifIndex, intfId, *intfStatusOpt);
  else
    deleteOutputRow(ifIndex);
}

// Writes to the output table

void IpsecTunnelIfTableSm::insertOutputRow(std::uint32_t k1, Plexa::IntfId intfId,
                                           StatusPtr const & status) {
  if (outputRowIs(k1, intfId, status) == Written::anew)
    LUMO_TRACE(
        trace(), 7,
        "into( mib.ipsecTunnelIfTable[ ifIndex ] ): inserting k1={}, value=Tuple( {}, {}, {} )", k1,
        k1, printed(status), printed(ikeStatus_));
}

void IpsecTunnelIfTableSm::insertRow(std::uint32_t k1, StatusPtr const & status) {
  mib()->ipsecTunnelIfTableIs(k1, status, ikeStatus_);
}

void IpsecTunnelIfTableSm::traceDeletion(std::uint32_t k1) const {
  LUMO_TRACE(trace(), 7, "into( mib.ipsecTunnelIfTable[ ifIndex ] ): deleting k1={}", k1);
}

// Destruction

IpsecTunnelIfTableSm::~IpsecTunnelIfTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

Zel::Type const & IpsecTunnelIfTableSm::typeDescription() {
  using Sm = IpsecTunnelIfTableSm;
  static Zel::Attribute const list[] = {
      {"mib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Sm::mib>},
      {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
       Zel::getBy<&Sm::tunnelIntfStatusDir>},
      {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Sm::ifMib>},
      {"ikeStatus", "Ipsec::Ike::Status", Zel::getBy<&Sm::ikeStatus>},
      {"inputSmScanState", scanStateType.name, Zel::getBy<&Sm::inputSmScanState>},
      {"outputState", outputStateType.name, Zel::getBy<&Sm::outputState>},
      {"ifIndexByIntfIdSm2", inputs[ifMibInput].type.name, Zel::getBy<&Sm::ifIndexByIntfIdSm2>},
      {"intfStatusSm0", inputs[intfStatusInput].type.name, Zel::getBy<&Sm::intfStatusSm0>},
      {"mibIpsecTunnelIfTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>},
      {"mibIpsecTunnelIfTableOutputSeen", "Zel::HashMap2018", Sm::outputSeenByName},
      {"mibIpsecTunnelIfTableOutputBookmark", MibIpsecTunnelIfTableOutputKeyType::typeName,
       Zel::getBy<&Sm::outputBookmark>},
      {"mibIpsecTunnelIfTableOutputUseBookmark", "bool", Zel::getBy<&Sm::outputUseBookmark>},
      {"mibIpsecTunnelIfTableOutputReconciliationTask", taskType.name,
       Zel::getBy<&Sm::reconciliationTask>},
      {"flowaControl", "Flowa::SmControl", Zel::getBy<&TableSmBase::flowaControl>},
      {"synchronous", "bool", Zel::getBy<&Sm::synchronous>},
      {"initialScanDone", "bool", Zel::getBy<&Sm::initialScanDone>},
      {"initialized", "bool", Zel::getBy<&Sm::initialized>},
      {"ready", "bool", Zel::getBy<&Sm::ready>},
      {"idle", "bool", Zel::getBy<&Sm::idle>}};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{"TunnelIntfSnmp::IpsecTunnelIfTableSm", attributes};
  return type;
}

std::vector<Zel::Type const *> IpsecTunnelIfTableSm::nestedTypes() {
  static Zel::Type const outputKey{MibIpsecTunnelIfTableOutputKeyType::typeName, {}};
  return {&typeDescription(),
          &outputKey,
          &scanStateType,
          &outputStateType,
          &inputs[0].type,
          &inputs[1].type,
          &FlowaCode::IpsecTunnelIfTableSm::IpsecSm1::typeDescription(),
          &taskType};
}

namespace {

Zel::zelModuleIs const _IpsecTunnelIfTableSm_f6b9bf12_zelModule(moduleOf<IpsecTunnelIfTableSm>());
} // namespace

} // namespace TunnelIntfSnmp
