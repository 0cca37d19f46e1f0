// The machine of tunnelIfTable. What it shares with the other machines is in TableSmRuntime.h; here
// is what its events mean.
#include "TunnelIntfSnmp/TunnelIfTableSm.h"

namespace TunnelIntfSnmp {

namespace {

auto const debugHandler = Lumo::Platform::getDebugHandler(TunnelIfTableSm::unitName, false);

OutputNames const outputs[] = {{"mibTunnelIfTableOutput", {"mibTunnelIfTableOutputReady", "bool"}}};
TableSmNames const smNames{.machine = TunnelIfTableSm::unitName,
                           .tisStream = "tisStream",
                           .tisStreamScan = {"tisStreamScan", "bool"},
                           .outputs = outputs};

} // namespace

// Construction and children

TunnelIfTableSm::TunnelIfTableSm(Zel::Ptr<TunnelMib> mib, StatusDirPtr tunnelIntfStatusDir,
                                 IfMibPtr ifMib, Flowa::SmControl const & control)
    : TunnelTableSm(smNames, *debugHandler, control, std::move(mib), std::move(tunnelIntfStatusDir),
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

IntfStatusSm0::IntfStatusSm0(::TunnelIntfSnmp::TunnelIfTableSm & root,
                             StatusDirPtr tunnelIntfStatusDir)
    : CollectionSm(root, std::move(tunnelIntfStatusDir), "IntfStatusSm0", tisStream),
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
  Zel::FirstException exception; // of whoever hears of the deletion: the new row must not miss it
  auto isThere = false;
  if (auto const row = mib()->tunnelIfTable(k1)) {
    isThere = row->tunnelIntfStatus() == status;
    if (!isThere && !statusOutlives(intfId, exception, [&] { mib()->tunnelIfTableDel(k1); }))
      return exception.rethrow();
  }
  if (!isThere)
    exception.run([&] { mib()->tunnelIfTableIs(k1, status); });
  LUMO_TRACE(trace(), 7,
             "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): inserting k1={}, value=Tuple( {}, {} )",
             k1, k1, printed(status));
  exception.rethrow();
}

void TunnelIfTableSm::deleteOutputRow(std::uint32_t const & k1) {
  mib()->tunnelIfTableDel(k1);
  LUMO_TRACE(trace(), 7, "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1={}", k1);
}

// Destruction

TunnelIfTableSm::~TunnelIfTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

std::span<Zel::Attribute const> TunnelIfTableSm::ownAttributes() {
  using Sm = TunnelIfTableSm;
  static Zel::Attribute const own[] = {
      {"ifIndexByIntfIdSm1", "InputSm", Zel::getBy<&Sm::ifIndexByIntfIdSm1>},
      {"intfStatusSm0", "InputSm", Zel::getBy<&Sm::intfStatusSm0>},
      {"mibTunnelIfTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>}};
  return own;
}

namespace {

Zel::zelModuleIs const _TunnelIfTableSm_14cc81f3_zelModule(moduleOf<TunnelIfTableSm>());
} // namespace

} // namespace TunnelIntfSnmp
