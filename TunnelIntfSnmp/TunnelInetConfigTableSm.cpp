// The machine of tunnelInetConfigTable. What it shares with the other machines is in
// TableSmRuntime.h, CollectionSm.h and StatusChildSm.h; here is what its events mean.
#include "TunnelIntfSnmp/TunnelInetConfigTableSm.h"

namespace TunnelIntfSnmp {

namespace {

auto const debugHandler = Lumo::Platform::getDebugHandler(TunnelInetConfigTableSm::unitName, false);

OutputNames const outputs[] = {
    {"tunnelInetConfigByIfIndexOutput", {"tunnelInetConfigByIfIndexOutputReady", "bool"}},
    {"mibTunnelInetConfigTableOutput", {"mibTunnelInetConfigTableOutputReady", "bool"}}};
TableSmNames const smNames{.machine = TunnelInetConfigTableSm::unitName,
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

Zel::Ptr<LocalAttrStore::Slot> LocalAttrStore::tunnelInetConfigByIfIndexIs(std::uint32_t ifIndex,
                                                                           Plexa::IntfId holder) {
  if (auto const * present = slots_.find(ifIndex))
    return *present;
  auto slot = slots_.insertOrReplace(ifIndex, Zel::makePtr<Slot>(ifIndex));
  slot->holderIs(holder);
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
    : TunnelTableSm(smNames, *debugHandler, control, std::move(mib), std::move(tunnelIntfStatusDir),
                    std::move(ifMib)),
      localAttrStore_(Zel::makePtr<FlowaCode::TunnelInetConfigTableSm::LocalAttrStore>()) {
  if (this->mib())
    tableVersion_ = output().version();
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

// Reactors

namespace FlowaCode::TunnelInetConfigTableSm {

std::span<Zel::Attribute const * const> SrcAddrMAdstAddrMAmodeSm1::followed() {
  using Interface::TunnelIntfStatus;
  static std::array const attributes{&TunnelIntfStatus::srcAddrAttribute(),
                                     &TunnelIntfStatus::dstAddrAttribute(),
                                     &TunnelIntfStatus::modeAttribute()};
  return attributes;
}

SrcAddrMAdstAddrMAmodeSm1::SrcAddrMAdstAddrMAmodeSm1(
    ::TunnelIntfSnmp::TunnelInetConfigTableSm & root, Plexa::IntfId intfId, StatusPtr status)
    : StatusChildSm(root, intfId, std::move(status)) {}

void SrcAddrMAdstAddrMAmodeSm1::emit(Plexa::IntfId intfId, StatusPtr const & status) {
  auto & root = static_cast<::TunnelIntfSnmp::TunnelInetConfigTableSm &>(machine());
  root.eventToTisStream(intfId, status ? Zel::Optional<StatusPtr>(status) : std::nullopt);
}

} // namespace FlowaCode::TunnelInetConfigTableSm

// Pipeline

void TunnelInetConfigTableSm::eventToTisStream(Plexa::IntfId intfId,
                                               Zel::Optional<StatusPtr> const & intfStatusOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7,
             "tisStream = from( tunnelIntfStatusDir.intfStatus[].{{ srcAddr, dstAddr, mode }} ): "
             "intfId={} intfStatusOpt={}",
             intfId, printed(intfStatusOpt));
  forgetIfGone(intfId, intfStatusOpt);
  auto const * found = ifMib()->ifIndexByIntfId().find(intfId);
  if (found == nullptr) {
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  auto const ifIndex = *found;
  auto const isAdd = static_cast<bool>(intfStatusOpt);
  if (isAdd)
    waiting_.wake(intfId); // for a rescan inside: until its add has run, it may be added by that
  Zel::FirstException exception; // of whoever hears of a row: each stream must run
  if (statusOutlives(intfId, exception,
                     [&] { eventToDeleteStream(ifIndex, intfStatusOpt, isAdd); }))
    exception.run([&] { eventToAddStream(ifIndex, intfStatusOpt, isAdd); });
  forgetIfGone(intfId, intfStatusOpt); // the delete stream woke it
  exception.run([&] { eventToRescanStream(ifIndex, intfStatusOpt, isAdd); });
  exception.rethrow();
}

// A status may be told as gone while it is still there: then the tunnel goes on waiting.
void TunnelInetConfigTableSm::forgetIfGone(Plexa::IntfId intfId,
                                           Zel::Optional<StatusPtr> const & intfStatusOpt) {
  if (!intfStatusOpt && !statusOf(intfId))
    waiting_.forget(intfId);
}

void TunnelInetConfigTableSm::eventToIfMibStream(Plexa::IntfId intfId,
                                                 Zel::Optional<std::uint32_t> const & ifIndexOpt) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, "ifMibStream = from( ifMib.ifIndexByIntfId[] ): intfId={} ifIndexOpt={}",
             intfId, printed(ifIndexOpt));
  auto const status = statusOf(intfId);
  if (!status) {
    LUMO_TRACE(trace(), 6, "filter( intfStatusOpt ) failed, terminating pipeline");
    return;
  }
  if (!ifIndexOpt) {
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  eventToAddStream(*ifIndexOpt, status, true);
}

void TunnelInetConfigTableSm::eventToDeleteStream(std::uint32_t ifIndex,
                                                  Zel::Optional<StatusPtr> const &, bool) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, "deleteStream = merge( tisStream ): ifIndex={}", ifIndex);
  auto const * slot = localAttrStore_->tunnelInetConfigByIfIndex().find(ifIndex);
  if (slot == nullptr) {
    LUMO_TRACE(trace(), 6, "filter( wrapper ) failed, terminating pipeline");
    return;
  }
  auto const wrapper = (*slot)->value();
  LUMO_TRACE(trace(), 7, "into( tunnelInetConfigByIfIndex[ ifIndex ] ): deleting k1={}", ifIndex);
  waiting_.wake((*slot)->holder());
  waiting_.slotFreed(ifIndex);
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
  LUMO_TRACE(trace(), 7,
             "addStream = merge( tisStream, ifMibStream, rescanStream ): ifIndex={} "
             "intfStatusOpt={} isAdd={}",
             ifIndex, printed(intfStatusOpt), isAdd);
  if (!isAdd) {
    LUMO_TRACE(trace(), 6, "filter( isAdd ) failed, terminating pipeline");
    return;
  }
  auto const & intfStatus = *intfStatusOpt;
  auto const intfId = intfStatus->intfId();
  waiting_.forget(intfId);
  if (intfStatus->srcAddr().isAddrZero()) {
    LUMO_TRACE(trace(), 6,
               "filter( ( !intfStatus.srcAddr.isAddrZero ) ) failed, terminating pipeline");
    return;
  }
  if (intfStatus->dstAddr().isAddrZero()) {
    LUMO_TRACE(trace(), 6,
               "filter( ( !intfStatus.dstAddr.isAddrZero ) ) failed, terminating pipeline");
    return;
  }
  TunnelInetConfigTableKey const mibKey(
      Snmp::InetAddress::fromIpGenAddr(intfStatus->srcAddr()),
      Snmp::InetAddress::fromIpGenAddr(intfStatus->dstAddr()).address(),
      modeToEncap(intfStatus->mode()), 1);
  Place const place{output().findNotLess(mibKey), output().version()};
  if (place.position != output().end() && place.position->first == mibKey) {
    waiting_.waitsForKey(intfId, mibKey);
    LUMO_TRACE(trace(), 6, "filter( ( !existing ) ) failed, terminating pipeline");
    return;
  }
  auto const entry = tunnelInetConfigTableEntryFactory(mibKey, ifIndex);
  auto const slot = localAttrStore_->tunnelInetConfigByIfIndexIs(ifIndex, intfId);
  LUMO_TRACE(trace(), 7, "into( tunnelInetConfigByIfIndex[ ifIndex ] ): inserting k1={}, value={}",
             ifIndex, printed(*entry));
  if (auto const before = slot->holder(); before != intfId)
    waiting_.wake(before);
  slot->holderIs(intfId);
  slot->valueIs(entry);
  outputKeySeen(mibKey);
  intoMibTable(intoByMibKey, mibKey, entry, place);
}

void TunnelInetConfigTableSm::eventToRescanStream(std::uint32_t,
                                                  Zel::Optional<StatusPtr> const & processedTisOpt,
                                                  bool) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, "rescanStream = merge( tisStream ): processedTisOpt={}",
             printed(processedTisOpt));
  auto const & statuses = tunnelIntfStatusDir()->intfStatus();
  LUMO_TRACE(trace(), 6, " foreach( tunnelIntfStatusDir.intfStatus ) foreaching {} elements",
             statuses.size());
  rescanWaiting(processedTisOpt);
}

// True if and only if whatever a walk could add is among those that wait to be tried, and no trace
// would show the walk.
bool TunnelInetConfigTableSm::waitingTunnelsKnown() const {
  auto const triedOnce = survey_ == Survey::complete ||
                         (survey_ == Survey::scanning && inputSmScanState()->ifMibStreamScan());
  auto const allHeard = !deaf_ && !unheard_ && tunnelIntfStatusDir()->hasNotificationActive() &&
                        ifMib()->hasNotificationActive();
  auto const traced = trace().enabled(6) || trace().enabled(7) || trace().enabled(9);
  return triedOnce && allHeard && tableVersion_ == output().version() && !traced;
}

void TunnelInetConfigTableSm::rescanWaiting(Zel::Optional<StatusPtr> const & processedTisOpt) {
  Zel::FirstException exception;
  std::optional<Plexa::IntfId> position;
  while (waitingTunnelsKnown()) { // asked again each time: who hears of a row may change anything
    auto const next = waiting_.nextToTry(position);
    if (!next)
      return exception.rethrow();
    position = next;
    if (auto const status = statusOf(*next))
      exception.run([&] { rescanOne(*next, *status, processedTisOpt); });
    else
      waiting_.forget(*next);
  }
  rescanAll(position, processedTisOpt, exception);
  exception.rethrow();
}

// Tries every tunnel, or every one behind `position`.
void TunnelInetConfigTableSm::rescanAll(std::optional<Plexa::IntfId> position,
                                        Zel::Optional<StatusPtr> const & processedTisOpt,
                                        Zel::FirstException & exception) {
  survey_ = Survey::lost; // for a rescan inside this one
  if (!position)
    tableVersion_ = output().version();
  auto const & statuses = tunnelIntfStatusDir()->intfStatus();
  statuses.forEachFrom(position ? statuses.seekBehind(*position) : statuses.begin(),
                       [&](Plexa::IntfId intfId, StatusPtr const & intfStatus) {
                         if (intfStatus)
                           exception.run([&] { rescanOne(intfId, intfStatus, processedTisOpt); });
                       });
  if (!position)
    survey_ = Survey::complete;
}

void TunnelInetConfigTableSm::rescanOne(Plexa::IntfId intfId, StatusPtr const & intfStatus,
                                        Zel::Optional<StatusPtr> const & processedTisOpt) {
  LUMO_TRACE(trace(), 9, "Foreaching element: {}", intfId);
  if (processedTisOpt && *processedTisOpt == intfStatus) {
    LUMO_TRACE(trace(), 6,
               "filter( ( Optional( intfStatus ) != processedTisOpt ) ) failed, terminating "
               "pipeline");
    return;
  }
  auto const * ifIndex = ifMib()->ifIndexByIntfId().find(intfId);
  if (ifIndex == nullptr) {
    waiting_.forget(intfId);
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  if (auto const * slot = localAttrStore_->tunnelInetConfigByIfIndex().find(*ifIndex)) {
    if ((*slot)->holder() != intfId)
      waiting_.waitsForSlot(intfId, *ifIndex);
    else
      waiting_.forget(intfId);
    LUMO_TRACE(trace(), 6,
               "filter( ( !tunnelInetConfigByIfIndex[ ifIndex ] ) ) failed, terminating pipeline");
    return;
  }
  eventToAddStream(*ifIndex, intfStatus, true);
}

// Writes to the output table

void TunnelInetConfigTableSm::intoMibTable(std::string_view statement,
                                           TunnelInetConfigTableKey const & k1,
                                           EntryPtr const & value) {
  if (value)
    return intoMibTable(statement, k1, value, {output().findNotLess(k1), output().version()});
  LUMO_TRACE(trace(), 7, "{}: deleting k1={}", statement, printed(k1));
  waiting_.keyFreed(k1);
  if (auto const row = output().find(k1); row != output().end()) {
    expectTableChange();
    mib()->tunnelInetConfigTableDel(row);
  }
}

void TunnelInetConfigTableSm::intoMibTable(std::string_view statement,
                                           TunnelInetConfigTableKey const & k1,
                                           EntryPtr const & value, Place const & place) {
  LUMO_ASSERT(value->key() == k1,
              "In \"{}\" the value inserted in the into statement has internal key: {}, but the "
              "key specified in the into is: {}",
              statement, printed(value->key()), printed(k1));
  LUMO_TRACE(trace(), 7, "{}: inserting k1={}, value={}", statement, printed(k1), printed(*value));
  auto const position =
      place.version == output().version() ? place.position : output().findNotLess(k1);
  if (position == output().end() || position->first != k1)
    expectTableChange();
  mib()->tunnelInetConfigTableIs(position, value);
}

// A version that is not as the machine's own writes make it tells that somebody else wrote.
void TunnelInetConfigTableSm::expectTableChange() {
  if (tableVersion_ == output().version())
    ++tableVersion_;
}

void TunnelInetConfigTableSm::deleteOutputRow(TunnelInetConfigTableKey const & k1) {
  intoMibTable(intoByMibKey, k1, nullptr);
}

// What is heard

void TunnelInetConfigTableSm::hasNotificationActiveIs(bool on) {
  if (on && !deaf_) // as it was made
    return TunnelTableSm::hasNotificationActiveIs(on);
  auto const unheard = unheard_;
  deaf_ = true; // until what was held has been delivered
  survey_ = Survey::lost;
  Zel::FirstException exception;
  exception.run([&] { TunnelTableSm::hasNotificationActiveIs(on); });
  deaf_ = !on;
  if (!on)
    unheard_ = unheard; // the children were switched off, but not for good
  exception.rethrow();
}

void TunnelInetConfigTableSm::inputUnheard() {
  unheard_ = true;
}

// Destruction

TunnelInetConfigTableSm::~TunnelInetConfigTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

std::span<Zel::Attribute const> TunnelInetConfigTableSm::ownAttributes() {
  using Sm = TunnelInetConfigTableSm;
  static Zel::Attribute const own[] = {
      {"localAttrStore", "LocalAttrStore", Zel::getBy<&Sm::localAttrStore>},
      {"intfStatusSm0", "InputSm", Zel::getBy<&Sm::intfStatusSm0>},
      {"ifIndexByIntfIdSm2", "InputSm", Zel::getBy<&Sm::ifIndexByIntfIdSm2>},
      {"mibTunnelInetConfigTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>}};
  return own;
}

namespace {

Zel::zelModuleIs const
    _TunnelInetConfigTableSm_a38aa982_zelModule(moduleOf<TunnelInetConfigTableSm>());
} // namespace

} // namespace TunnelIntfSnmp
