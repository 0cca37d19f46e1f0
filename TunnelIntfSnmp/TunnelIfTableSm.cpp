// The machine of tunnelIfTable. What it shares with the other machines is in TableSmRuntime.h; here
// is what its events mean.
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include <array>

namespace TunnelIntfSnmp {

namespace {

constexpr char const * unitName = "TunnelIfTableSm";
auto const debugHandler = Lumo::Platform::getDebugHandler(unitName, false);

OutputNames const outputs[] = {{"mibTunnelIfTableOutput", {"mibTunnelIfTableOutputReady", "bool"}}};
TableSmNames const smNames{.machine = unitName,
                           .tisStream = "tisStream",
                           .tisStreamScan = {"tisStreamScan", "bool"},
                           .outputs = outputs};

} // namespace

// Construction and children

TunnelIfTableSm::TunnelIfTableSm(Zel::Ptr<TunnelMib> mib, StatusDirPtr tunnelIntfStatusDir,
                                 IfMibPtr ifMib, Flowa::SmControl const & control)
    : TableSm(smNames, *debugHandler, control),
      mib_(std::move(mib)),
      tunnelIntfStatusDir_(std::move(tunnelIntfStatusDir)),
      ifMib_(std::move(ifMib)) {
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

void TunnelIfTableSm::checkInputs() const {
  LUMO_ASSERT(mib(), nullSmArgument);
  LUMO_ASSERT(tunnelIntfStatusDir(), nullSmArgument);
  LUMO_ASSERT(ifMib(), nullSmArgument);
}

Zel::Ptr<InputSm> TunnelIfTableSm::createIfIndexSm() {
  return Zel::makePtr<FlowaCode::TunnelIfTableSm::IfIndexByIntfIdSm1>(*this, ifMib_,
                                                                      "IfIndexByIntfIdSm1");
}

Zel::Ptr<InputSm> TunnelIfTableSm::createIntfStatusSm() {
  return Zel::makePtr<FlowaCode::TunnelIfTableSm::IntfStatusSm0>(*this, tunnelIntfStatusDir_);
}

Zel::Ptr<FlowaCode::TunnelIfTableSm::IntfStatusSm0> TunnelIfTableSm::intfStatusSm0() const {
  return intfStatusSm<FlowaCode::TunnelIfTableSm::IntfStatusSm0>();
}

Zel::Ptr<FlowaCode::TunnelIfTableSm::IfIndexByIntfIdSm1>
TunnelIfTableSm::ifIndexByIntfIdSm1() const {
  return ifIndexSm<FlowaCode::TunnelIfTableSm::IfIndexByIntfIdSm1>();
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
  LUMO_TRACE(trace(), 7, unit(),
             "tisStream = from( tunnelIntfStatusDir.intfStatus[] ): intfId={} tisOpt={}", intfId,
             printed(tisOpt));
  auto const * ifIndex = ifMib_->ifIndexByIntfId().find(intfId);
  if (ifIndex == nullptr) {
    LUMO_TRACE(trace(), 6, unit(), "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  auto const k1 = *ifIndex;
  outputKeySeen(k1);
  if (tisOpt)
    insertOutputRow(k1, *tisOpt);
  else
    deleteOutputRow(k1);
}

void TunnelIfTableSm::eventToIfMibStream(Plexa::IntfId intfId,
                                         Zel::Optional<std::uint32_t> const & ifIndexOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(),
             "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId={} ifIndexOpt={}", intfId,
             printed(ifIndexOpt));
  auto const status = statusOf(*tunnelIntfStatusDir_, intfId);
  if (!status) {
    LUMO_TRACE(trace(), 6, unit(), "filter( tisOpt ) failed, terminating pipeline");
    return;
  }
  auto const k1 = *ifIndexOpt; // raises for an ifIndex that went before its status
  outputKeySeen(k1);
  insertOutputRow(k1, status);
}

// Writes to the output table

void TunnelIfTableSm::insertOutputRow(std::uint32_t k1, StatusPtr const & status) {
  Zel::FirstException exception; // of whoever hears of the deletion: the new row must not miss it
  if (auto const row = mib_->tunnelIfTable(k1); row && row->tunnelIntfStatus() != status)
    if (!makeRoom(*tunnelIntfStatusDir_, status, exception, [&] { mib_->tunnelIfTableDel(k1); }))
      return exception.rethrow();
  exception.run([&] { mib_->tunnelIfTableIs(k1, status); });
  LUMO_TRACE(trace(), 7, unit(),
             "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): inserting k1={}, value=Tuple( {}, {} )",
             k1, k1, printed(status));
  exception.rethrow();
}

void TunnelIfTableSm::deleteOutputRow(std::uint32_t const & k1) {
  mib_->tunnelIfTableDel(k1);
  LUMO_TRACE(trace(), 7, unit(), "into( mib.tunnelIfTable[ ( *ifIndexOpt ) ] ): deleting k1={}",
             k1);
}

// Destruction

TunnelIfTableSm::~TunnelIfTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

Zel::Type const & TunnelIfTableSm::type() const {
  return typeDescription();
}

Zel::Type const & TunnelIfTableSm::typeDescription() {
  using Sm = TunnelIfTableSm;
  static Zel::Attribute const own[] = {
      {"mib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Sm::mib>},
      {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
       Zel::getBy<&Sm::tunnelIntfStatusDir>},
      {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Sm::ifMib>},
      {"ifIndexByIntfIdSm1", "InputSm", Zel::getBy<&Sm::ifIndexByIntfIdSm1>},
      {"intfStatusSm0", "InputSm", Zel::getBy<&Sm::intfStatusSm0>},
      {"mibTunnelIfTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>}};
  static auto const attributes = attributesOf(own);
  static Zel::Type const type{"TunnelIntfSnmp::TunnelIfTableSm", attributes};
  return type;
}

namespace {

std::array<Zel::Type const *, 1> const types{&TunnelIfTableSm::typeDescription()};
constexpr std::array<std::string_view, 3> outsideTypes{
    "TunnelIntfSnmp::TunnelMib", "Interface::TunnelIntfStatusDir", "IntfSnmp::IfMib"};
Zel::Module const moduleRecord{unitName, "ns-", types, outsideTypes};
Zel::zelModuleIs const _TunnelIfTableSm_14cc81f3_zelModule(moduleRecord);

} // namespace

} // namespace TunnelIntfSnmp
