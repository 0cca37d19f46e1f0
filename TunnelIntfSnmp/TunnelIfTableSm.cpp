// The machine of tunnelIfTable. What it shares with the other machines is in TableSmRuntime.h; here
// is what its events mean.
#include "TunnelIntfSnmp/TunnelIfTableSm.h"

namespace TunnelIntfSnmp {

namespace {

auto const debugHandler = Lumo::Platform::getDebugHandler(TunnelIfTableSm::unitName, false);

InputNames const inputs[] = {
    {"IfIndexByIntfIdSm1",
     "ifMibStream",
     {"ifMibStreamScan", "bool", InputSmScanState::scanOf<TunnelIfTableSm::ifMibInput>},
     {"TunnelIntfSnmp::FlowaCode::TunnelIfTableSm::IfIndexByIntfIdSm1",
      InputSm::attributesOfInputSm()}},
    {"IntfStatusSm0",
     "tisStream",
     {"tisStreamScan", "bool", InputSmScanState::scanOf<TunnelIfTableSm::intfStatusInput>},
     {"TunnelIntfSnmp::FlowaCode::TunnelIfTableSm::IntfStatusSm0",
      InputSm::attributesOfInputSm()}}};
OutputNames const outputs[] = {
    {"mibTunnelIfTableOutput", {"mibTunnelIfTableOutputReady", "bool", OutputState::readyOf<0>}}};

Zel::Attribute const * const scanAttributes[] = {&inputs[0].scan, &inputs[1].scan,
                                                 &InputSmScanState::idleAttribute()};
Zel::Attribute const * const outputAttributes[] = {&outputs[0].ready,
                                                   &OutputState::readyAttribute()};
Zel::Type const scanStateType{"TunnelIntfSnmp::FlowaCode::TunnelIfTableSm::InputSmScanState",
                              scanAttributes};
Zel::Type const outputStateType{"TunnelIntfSnmp::FlowaCode::TunnelIfTableSm::OutputState",
                                outputAttributes};
auto const taskType = reconciliationTaskType("TunnelIntfSnmp::FlowaCode::TunnelIfTableSm::"
                                             "ZelMibTunnelIfTableOutputReconciliationTask");
TableSmNames const smNames{.machine = TunnelIfTableSm::unitName,
                           .inputs = inputs,
                           .outputs = outputs,
                           .scanState = scanStateType,
                           .outputState = outputStateType,
                           .reconciliationTask = taskType};

} // namespace

// Construction and children

TunnelIfTableSm::TunnelIfTableSm(Zel::Ptr<TunnelMib> mib, StatusDirPtr tunnelIntfStatusDir,
                                 IfMibPtr ifMib, Flowa::SmControl const & control)
    : StatusRowSm(smNames, *debugHandler, control, std::move(mib), std::move(tunnelIntfStatusDir),
                  std::move(ifMib)) {
  handleInitialized();
}

Zel::Ptr<TunnelIfTableSm>
TunnelIfTableSm::TunnelIfTableSmIs(Zel::Ptr<TunnelMib> const & mib,
                                   StatusDirPtr const & tunnelIntfStatusDir, IfMibPtr const & ifMib,
                                   Flowa::SmControl const & control) {
  return Zel::makePtr<TunnelIfTableSm>(mib, tunnelIntfStatusDir, ifMib, control);
}

Zel::Ptr<TunnelIfTableSm> tunnelIfTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                                                 StatusDirPtr const & tunnelIntfStatusDir,
                                                 IfMibPtr const & ifMib,
                                                 Flowa::SmControl const & control) {
  return TunnelIfTableSm::TunnelIfTableSmIs(mib, tunnelIntfStatusDir, ifMib, control);
}

// Reactors

namespace FlowaCode::TunnelIfTableSm {

IntfStatusSm0::IntfStatusSm0(::TunnelIntfSnmp::TunnelIfTableSm & root, std::size_t input,
                             StatusDirPtr tunnelIntfStatusDir)
    : CollectionSm(root, input, std::move(tunnelIntfStatusDir)),
      root_(root) {}

void IntfStatusSm0::handleKey(Plexa::IntfId const & intfId) {
  observeChangeStamp();
  auto const status = valueOf(intfId);
  root_.eventToTisStream(intfId, status ? Zel::Optional<StatusPtr>(*status) : std::nullopt);
}

void IntfStatusSm0::handleGone(Plexa::IntfId const & intfId) {
  root_.eventToTisStream(intfId, std::nullopt);
}

} // namespace FlowaCode::TunnelIfTableSm

// Pipeline

void TunnelIfTableSm::eventToTisStream(Plexa::IntfId intfId,
                                       Zel::Optional<StatusPtr> const & tisOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7,
             "tisStream = from( tunnelIntfStatusDir.intfStatus[] ): intfId={} tisOpt={}", intfId,
             printed(tisOpt));
  auto const * ifIndex = ifMib()->ifIndexByIntfId().find(intfId);
  if (ifIndex == nullptr) {
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  auto const k1 = *ifIndex;
  outputKeySeen(k1);
  if (tisOpt)
    insertOutputRow(k1, intfId, *tisOpt);
  else
    deleteOutputRow(k1);
}

void TunnelIfTableSm::eventToIfMibStream(Plexa::IntfId intfId,
                                         Zel::Optional<std::uint32_t> const & ifIndexOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId={} ifIndexOpt={}",
             intfId, printed(ifIndexOpt));
  auto const status = statusOf(intfId);
  if (!status) {
    LUMO_TRACE(trace(), 6, "filter( tisOpt ) failed, terminating pipeline");
    return;
  }
  auto const k1 = *ifIndexOpt; // raises for an ifIndex that went before its status
  outputKeySeen(k1);
  insertOutputRow(k1, intfId, *status);
}

// Writes to the output table

void TunnelIfTableSm::insertOutputRow(std::uint32_t k1, Plexa::IntfId intfId,
                                      StatusPtr const & status) {
  if (outputRowIs(k1, intfId, status) != Written::overtaken)
    LUMO_TRACE(
        trace(), 7,
        "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): inserting k1={}, value=Tuple( {}, {} )", k1,
        k1, printed(status));
}

void TunnelIfTableSm::traceDeletion(std::uint32_t k1) const {
  LUMO_TRACE(trace(), 7, "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1={}", k1);
}

// Destruction

TunnelIfTableSm::~TunnelIfTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

Zel::Type const & TunnelIfTableSm::typeDescription() {
  using Sm = TunnelIfTableSm;
  static Zel::Attribute const list[] = {
      {"mib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Sm::mib>},
      {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
       Zel::getBy<&Sm::tunnelIntfStatusDir>},
      {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Sm::ifMib>},
      {"inputSmScanState", scanStateType.name, Zel::getBy<&Sm::inputSmScanState>},
      {"outputState", outputStateType.name, Zel::getBy<&Sm::outputState>},
      {"ifIndexByIntfIdSm1", inputs[ifMibInput].type.name, Zel::getBy<&Sm::ifIndexByIntfIdSm1>},
      {"intfStatusSm0", inputs[intfStatusInput].type.name, Zel::getBy<&Sm::intfStatusSm0>},
      {"mibTunnelIfTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>},
      {"mibTunnelIfTableOutputSeen", "Zel::HashMap2018", Sm::outputSeenByName},
      {"mibTunnelIfTableOutputBookmark", MibTunnelIfTableOutputKeyType::typeName,
       Zel::getBy<&Sm::outputBookmark>},
      {"mibTunnelIfTableOutputUseBookmark", "bool", Zel::getBy<&Sm::outputUseBookmark>},
      {"mibTunnelIfTableOutputReconciliationTask", taskType.name,
       Zel::getBy<&Sm::reconciliationTask>},
      {"flowaControl", "Flowa::SmControl", flowaControlByName<Sm>},
      {"synchronous", "bool", Zel::getBy<&Sm::synchronous>},
      {"initialScanDone", "bool", Zel::getBy<&Sm::initialScanDone>},
      {"initialized", "bool", Zel::getBy<&Sm::initialized>},
      {"ready", "bool", Zel::getBy<&Sm::ready>},
      {"idle", "bool", Zel::getBy<&Sm::idle>}};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{"TunnelIntfSnmp::TunnelIfTableSm", attributes};
  return type;
}

std::vector<Zel::Type const *> TunnelIfTableSm::nestedTypes() {
  static Zel::Type const outputKey{MibTunnelIfTableOutputKeyType::typeName, {}};
  return {&typeDescription(), &outputKey,      &scanStateType, &outputStateType,
          &inputs[0].type,    &inputs[1].type, &taskType};
}

namespace {

Zel::zelModuleIs const _TunnelIfTableSm_14cc81f3_zelModule(moduleOf<TunnelIfTableSm>());
} // namespace

} // namespace TunnelIntfSnmp
