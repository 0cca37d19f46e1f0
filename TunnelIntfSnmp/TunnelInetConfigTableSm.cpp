// The machine of tunnelInetConfigTable. What it shares with the other machines is in
// TableSmRuntime.h, CollectionSm.h and StatusChildSm.h; here is what its events mean.
#include "TunnelIntfSnmp/TunnelInetConfigTableSm.h"
#include <array>

namespace TunnelIntfSnmp {

namespace {

constexpr char const * unitName = "TunnelInetConfigTableSm";
auto const debugHandler = Lumo::Platform::getDebugHandler(unitName, false);

OutputNames const outputs[] = {
    {"tunnelInetConfigByIfIndexOutput", {"tunnelInetConfigByIfIndexOutputReady", "bool"}},
    {"mibTunnelInetConfigTableOutput", {"mibTunnelInetConfigTableOutputReady", "bool"}}};
TableSmNames const smNames{.machine = unitName,
                           .tisStream = "tisStream",
                           .tisStreamScan = {"tisStreamScan", "bool"},
                           .outputs = outputs};

constexpr char const * intoByMibKey = "into( mib.tunnelInetConfigTable[ mibKey ] )";
constexpr char const * intoByWrapper =
    "into( mib.tunnelInetConfigTable[ ( *( *wrapper ).mibEntry ).key ] )";

} // namespace

// The store

namespace FlowaCode::TunnelInetConfigTableSm {

LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::
    LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst(std::uint32_t ifIndex)
    : ifIndex_(ifIndex) {
  hasNotificationActiveIs(true);
}

LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::
    ~LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst() {
  valueDel();
}

Zel::Attribute const & LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::valueAttribute() {
  static Zel::Attribute const attribute{"value", "TunnelIntfSnmp::MibEntryWrapper"};
  return attribute;
}

void LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::valueIs(
    Zel::Ptr<TunnelInetConfigTableEntry const> const & entry) {
  if (value_ && value_->mibEntry() == entry)
    return;
  value_ = Zel::makePtr<MibEntryWrapper>(entry);
  notify(valueAttribute());
}

void LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::valueDel() {
  if (std::exchange(value_, nullptr))
    notify(valueAttribute());
}

LocalAttrStore::LocalAttrStore() {
  hasNotificationActiveIs(true);
}

Zel::Type const & LocalAttrStore::type() const {
  static std::array const attributes{&tunnelInetConfigByIfIndexAttribute()};
  static Zel::Type const type{"TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::LocalAttrStore",
                              attributes};
  return type;
}

Zel::Attribute const & LocalAttrStore::tunnelInetConfigByIfIndexAttribute() {
  static Zel::Attribute const attribute{"tunnelInetConfigByIfIndex", "Zel::HashMap2018",
                                        Zel::getBy<&LocalAttrStore::tunnelInetConfigByIfIndex>};
  return attribute;
}

Zel::Ptr<LocalAttrStore::Slot> LocalAttrStore::tunnelInetConfigByIfIndexIs(std::uint32_t ifIndex) {
  if (auto const * present = slots_.find(ifIndex))
    return *present;
  auto slot = slots_.insertOrReplace(ifIndex, Zel::makePtr<Slot>(ifIndex));
  notify(tunnelInetConfigByIfIndexAttribute(), ifIndex);
  return slot;
}

void LocalAttrStore::tunnelInetConfigByIfIndexDel(std::uint32_t ifIndex) {
  slots_.erase(ifIndex);
}

void LocalAttrStore::tunnelInetConfigByIfIndexDelAll() {
  slots_.clear();
}

} // namespace FlowaCode::TunnelInetConfigTableSm

// Construction and children

TunnelInetConfigTableSm::TunnelInetConfigTableSm(Zel::Ptr<TunnelMib> mib,
                                                 StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                                                 Flowa::SmControl const & control)
    : TableSm(smNames, *debugHandler, control),
      mib_(std::move(mib)),
      tunnelIntfStatusDir_(std::move(tunnelIntfStatusDir)),
      ifMib_(std::move(ifMib)),
      localAttrStore_(Zel::makePtr<FlowaCode::TunnelInetConfigTableSm::LocalAttrStore>()) {
  handleInitialized();
}

Zel::Ptr<TunnelInetConfigTableSm> TunnelInetConfigTableSm::TunnelInetConfigTableSmIs(
    Zel::Ptr<TunnelMib> const & mib, StatusDirPtr const & tunnelIntfStatusDir,
    IfMibPtr const & ifMib, Flowa::SmControl const & control) {
  return Zel::makePtr<TunnelInetConfigTableSm>(mib, tunnelIntfStatusDir, ifMib, control);
}

Zel::Ptr<TunnelInetConfigTableSm>
tunnelInetConfigTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                               StatusDirPtr const & tunnelIntfStatusDir, IfMibPtr const & ifMib,
                               Flowa::SmControl const & control) {
  return TunnelInetConfigTableSm::TunnelInetConfigTableSmIs(mib, tunnelIntfStatusDir, ifMib,
                                                            control);
}

void TunnelInetConfigTableSm::checkInputs() const {
  LUMO_ASSERT(mib(), nullSmArgument);
  LUMO_ASSERT(tunnelIntfStatusDir(), nullSmArgument);
  LUMO_ASSERT(ifMib(), nullSmArgument);
}

Zel::Ptr<InputSm> TunnelInetConfigTableSm::createIfIndexSm() {
  return Zel::makePtr<FlowaCode::TunnelInetConfigTableSm::IfIndexByIntfIdSm2>(*this, ifMib_,
                                                                              "IfIndexByIntfIdSm2");
}

Zel::Ptr<InputSm> TunnelInetConfigTableSm::createIntfStatusSm() {
  return Zel::makePtr<FlowaCode::TunnelInetConfigTableSm::IntfStatusSm0>(*this,
                                                                         tunnelIntfStatusDir_);
}

Zel::Ptr<FlowaCode::TunnelInetConfigTableSm::IntfStatusSm0>
TunnelInetConfigTableSm::intfStatusSm0() const {
  return intfStatusSm<FlowaCode::TunnelInetConfigTableSm::IntfStatusSm0>();
}

Zel::Ptr<FlowaCode::TunnelInetConfigTableSm::IfIndexByIntfIdSm2>
TunnelInetConfigTableSm::ifIndexByIntfIdSm2() const {
  return ifIndexSm<FlowaCode::TunnelInetConfigTableSm::IfIndexByIntfIdSm2>();
}

// Reactors

namespace FlowaCode::TunnelInetConfigTableSm {

bool SrcAddrMAdstAddrMAmodeSm1::follows(Zel::Attribute const & attribute) {
  using Interface::TunnelIntfStatus;
  return &attribute == &TunnelIntfStatus::srcAddrAttribute() ||
         &attribute == &TunnelIntfStatus::dstAddrAttribute() ||
         &attribute == &TunnelIntfStatus::modeAttribute();
}

SrcAddrMAdstAddrMAmodeSm1::SrcAddrMAdstAddrMAmodeSm1(
    ::TunnelIntfSnmp::TunnelInetConfigTableSm & root, Plexa::IntfId intfId, StatusPtr status)
    : StatusChildSm(root, intfId, std::move(status)),
      root_(root) {}

void SrcAddrMAdstAddrMAmodeSm1::emit(Plexa::IntfId intfId, StatusPtr const & status) {
  root_.eventToTisStream(intfId, status ? Zel::Optional<StatusPtr>(status) : std::nullopt);
}

} // namespace FlowaCode::TunnelInetConfigTableSm

// Pipeline

void TunnelInetConfigTableSm::eventToTisStream(Plexa::IntfId intfId,
                                               Zel::Optional<StatusPtr> const & intfStatusOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(),
             "tisStream = from( tunnelIntfStatusDir.intfStatus[].{{ srcAddr, dstAddr, mode }} ): "
             "intfId={} intfStatusOpt={}",
             intfId, printed(intfStatusOpt));
  auto const * found = ifMib_->ifIndexByIntfId().find(intfId);
  if (found == nullptr) {
    LUMO_TRACE(trace(), 6, unit(), "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  auto const ifIndex = *found;
  auto const isAdd = static_cast<bool>(intfStatusOpt);
  eventToDeleteStream(ifIndex, intfStatusOpt, isAdd);
  eventToAddStream(ifIndex, intfStatusOpt, isAdd);
  eventToRescanStream(ifIndex, intfStatusOpt, isAdd);
}

void TunnelInetConfigTableSm::eventToIfMibStream(Plexa::IntfId intfId,
                                                 Zel::Optional<std::uint32_t> const & ifIndexOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(),
             "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId={} ifIndexOpt={}", intfId,
             printed(ifIndexOpt));
  auto const * status = tunnelIntfStatusDir_->intfStatus().find(intfId);
  if (status == nullptr || !*status) {
    LUMO_TRACE(trace(), 6, unit(), "filter( intfStatusOpt ) failed, terminating pipeline");
    return;
  }
  if (!ifIndexOpt) {
    LUMO_TRACE(trace(), 6, unit(), "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  eventToAddStream(*ifIndexOpt, StatusPtr(*status), true);
}

void TunnelInetConfigTableSm::eventToDeleteStream(std::uint32_t ifIndex,
                                                  Zel::Optional<StatusPtr> const &, bool) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(), "deleteStream = merge( tisStream ): ifIndex={}", ifIndex);
  auto const * slot = localAttrStore_->tunnelInetConfigByIfIndex().find(ifIndex);
  if (slot == nullptr) {
    LUMO_TRACE(trace(), 6, unit(), "filter( wrapper ) failed, terminating pipeline");
    return;
  }
  auto const wrapper = (*slot)->value();
  LUMO_TRACE(trace(), 7, unit(), "into( tunnelInetConfigByIfIndex[ ifIndex ] ): deleting k1={}",
             ifIndex);
  localAttrStore_->tunnelInetConfigByIfIndexDel(ifIndex);
  if (!wrapper || !wrapper->mibEntry())
    throw Zel::BadOptionalAccess();
  auto const & key = wrapper->mibEntry()->key();
  outputKeySeen(key);
  intoMibTable(intoByWrapper, key, nullptr);
}

void TunnelInetConfigTableSm::eventToAddStream(std::uint32_t ifIndex,
                                               Zel::Optional<StatusPtr> const & intfStatusOpt,
                                               bool isAdd) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(),
             "addStream = merge( tisStream, ifMibStream, rescanStream ): ifIndex={} "
             "intfStatusOpt={} isAdd={}",
             ifIndex, printed(intfStatusOpt), isAdd);
  if (!isAdd) {
    LUMO_TRACE(trace(), 6, unit(), "filter( isAdd ) failed, terminating pipeline");
    return;
  }
  auto const & intfStatus = *intfStatusOpt;
  if (intfStatus->srcAddr().isAddrZero()) {
    LUMO_TRACE(trace(), 6, unit(),
               "filter( ( !intfStatus.srcAddr.isAddrZero ) ) failed, terminating pipeline");
    return;
  }
  if (intfStatus->dstAddr().isAddrZero()) {
    LUMO_TRACE(trace(), 6, unit(),
               "filter( ( !intfStatus.dstAddr.isAddrZero ) ) failed, terminating pipeline");
    return;
  }
  TunnelInetConfigTableKey const mibKey(
      Snmp::InetAddress::fromIpGenAddr(intfStatus->srcAddr()),
      Snmp::InetAddress::fromIpGenAddr(intfStatus->dstAddr()).address(),
      modeToEncap(intfStatus->mode()), 1);
  if (output().find(mibKey) != output().end()) {
    LUMO_TRACE(trace(), 6, unit(), "filter( ( !existing ) ) failed, terminating pipeline");
    return;
  }
  auto const entry = tunnelInetConfigTableEntryFactory(mibKey, ifIndex);
  auto const slot = localAttrStore_->tunnelInetConfigByIfIndexIs(ifIndex);
  LUMO_TRACE(trace(), 7, unit(),
             "into( tunnelInetConfigByIfIndex[ ifIndex ] ): inserting k1={}, value={}", ifIndex,
             printed(*entry));
  slot->valueIs(entry);
  outputKeySeen(mibKey);
  intoMibTable(intoByMibKey, mibKey, entry);
}

void TunnelInetConfigTableSm::eventToRescanStream(std::uint32_t,
                                                  Zel::Optional<StatusPtr> const & processedTisOpt,
                                                  bool) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, unit(), "rescanStream = merge( tisStream ): processedTisOpt={}",
             printed(processedTisOpt));
  auto const & statuses = tunnelIntfStatusDir_->intfStatus();
  LUMO_TRACE(trace(), 6, unit(),
             " foreach( tunnelIntfStatusDir.intfStatus ) foreaching {} elements", statuses.size());
  statuses.forEach([&](Plexa::IntfId intfId, StatusPtr const & intfStatus) {
    if (intfStatus)
      rescanOne(intfId, intfStatus, processedTisOpt);
  });
}

void TunnelInetConfigTableSm::rescanOne(Plexa::IntfId intfId, StatusPtr const & intfStatus,
                                        Zel::Optional<StatusPtr> const & processedTisOpt) {
  LUMO_TRACE(trace(), 9, unit(), "Foreaching element: {}", intfId);
  if (processedTisOpt && *processedTisOpt == intfStatus) {
    LUMO_TRACE(trace(), 6, unit(),
               "filter( ( Optional( intfStatus ) != processedTisOpt ) ) failed, terminating "
               "pipeline");
    return;
  }
  auto const * ifIndex = ifMib_->ifIndexByIntfId().find(intfId);
  if (ifIndex == nullptr) {
    LUMO_TRACE(trace(), 6, unit(), "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  if (localAttrStore_->tunnelInetConfigByIfIndex().find(*ifIndex) != nullptr) {
    LUMO_TRACE(trace(), 6, unit(),
               "filter( ( !tunnelInetConfigByIfIndex[ ifIndex ] ) ) failed, terminating pipeline");
    return;
  }
  eventToAddStream(*ifIndex, intfStatus, true);
}

// Writes to the output table

void TunnelInetConfigTableSm::intoMibTable(std::string_view statement,
                                           TunnelInetConfigTableKey const & k1,
                                           EntryPtr const & value) {
  if (!value) {
    LUMO_TRACE(trace(), 7, unit(), "{}: deleting k1={}", statement, printed(k1));
    mib_->tunnelInetConfigTableDel(k1);
    return;
  }
  LUMO_ASSERT(value->key() == k1,
              "In \"{}\" the value inserted in the into statement has internal key: {}, but the "
              "key specified in the into is: {}",
              statement, printed(value->key()), printed(k1));
  LUMO_TRACE(trace(), 7, unit(), "{}: inserting k1={}, value={}", statement, printed(k1),
             printed(*value));
  mib_->tunnelInetConfigTableIs(value);
}

void TunnelInetConfigTableSm::deleteOutputRow(TunnelInetConfigTableKey const & k1) {
  intoMibTable(intoByMibKey, k1, nullptr);
}

// Destruction

TunnelInetConfigTableSm::~TunnelInetConfigTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

Zel::Type const & TunnelInetConfigTableSm::type() const {
  return typeDescription();
}

Zel::Type const & TunnelInetConfigTableSm::typeDescription() {
  using Sm = TunnelInetConfigTableSm;
  static Zel::Attribute const own[] = {
      {"mib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Sm::mib>},
      {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
       Zel::getBy<&Sm::tunnelIntfStatusDir>},
      {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Sm::ifMib>},
      {"localAttrStore", "LocalAttrStore", Zel::getBy<&Sm::localAttrStore>},
      {"intfStatusSm0", "InputSm", Zel::getBy<&Sm::intfStatusSm0>},
      {"ifIndexByIntfIdSm2", "InputSm", Zel::getBy<&Sm::ifIndexByIntfIdSm2>},
      {"mibTunnelInetConfigTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>}};
  static auto const attributes = attributesOf(own);
  static Zel::Type const type{"TunnelIntfSnmp::TunnelInetConfigTableSm", attributes};
  return type;
}

namespace {

std::array<Zel::Type const *, 1> const types{&TunnelInetConfigTableSm::typeDescription()};
constexpr std::array<std::string_view, 3> outsideTypes{
    "TunnelIntfSnmp::TunnelMib", "Interface::TunnelIntfStatusDir", "IntfSnmp::IfMib"};
Zel::Module const moduleRecord{unitName, "ns-", types, outsideTypes};
Zel::zelModuleIs const _TunnelInetConfigTableSm_a38aa982_zelModule(moduleRecord);

} // namespace

} // namespace TunnelIntfSnmp
