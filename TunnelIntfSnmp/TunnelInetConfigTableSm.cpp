// The machine of tunnelInetConfigTable. What it shares with the other machines is in
// TableSmRuntime.h, CollectionSm.h and StatusChildSm.h; which tunnels a rescan tries is in
// Rescan.h. Here is what its events mean.
#include "TunnelIntfSnmp/TunnelInetConfigTableSm.h"

namespace TunnelIntfSnmp {

namespace {

auto const debugHandler = Lumo::Platform::getDebugHandler(TunnelInetConfigTableSm::unitName, false);

InputNames const inputs[] = {
    {"IfIndexByIntfIdSm2",
     "ifMibStream",
     {"ifMibStreamScan", "bool", InputSmScanState::scanOf<TunnelInetConfigTableSm::ifMibInput>},
     {"TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::IfIndexByIntfIdSm2",
      InputSm::attributesOfInputSm()}},
    {"IntfStatusSm0",
     "tisStream",
     {"tisStreamScan", "bool", InputSmScanState::scanOf<TunnelInetConfigTableSm::intfStatusInput>},
     {"TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::IntfStatusSm0",
      InputSm::attributesOfInputSm()}}};
OutputNames const outputs[] = {
    {"tunnelInetConfigByIfIndexOutput",
     {"tunnelInetConfigByIfIndexOutputReady", "bool", OutputState::readyOf<0>}},
    {"mibTunnelInetConfigTableOutput",
     {"mibTunnelInetConfigTableOutputReady", "bool", OutputState::readyOf<1>}}};

Zel::Attribute const * const scanAttributes[] = {&inputs[1].scan, &inputs[0].scan,
                                                 &InputSmScanState::idleAttribute()};
Zel::Attribute const * const outputAttributes[] = {&outputs[0].ready, &outputs[1].ready,
                                                   &OutputState::readyAttribute()};
Zel::Type const scanStateType{
    "TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::InputSmScanState", scanAttributes};
Zel::Type const outputStateType{"TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::OutputState",
                                outputAttributes};
auto const taskType = reconciliationTaskType("TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::"
                                             "ZelMibTunnelInetConfigTableOutputReconciliationTask");
TableSmNames const smNames{.machine = TunnelInetConfigTableSm::unitName,
                           .inputs = inputs,
                           .outputs = outputs,
                           .scanState = scanStateType,
                           .outputState = outputStateType,
                           .reconciliationTask = taskType};

constexpr char const * intoByMibKey = "into( mib.tunnelInetConfigTable[ mibKey ] )";
constexpr char const * intoByWrapper =
    "into( mib.tunnelInetConfigTable[ ( *( *wrapper ).mibEntry ).key ] )";

TunnelInetConfigTableSm::EntryPtr
entryIn(FlowaCode::TunnelInetConfigTableSm::LocalAttrStore::Slot const & slot) {
  return slot.value() ? slot.value()->mibEntry() : nullptr;
}

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
  using Slot = LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst;
  static Zel::Attribute const attribute{"value", "TunnelIntfSnmp::MibEntryWrapper",
                                        Zel::getBy<&Slot::value>};
  return attribute;
}

Zel::Type const & LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::typeDescription() {
  using Slot = LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst;
  static Zel::Attribute const ifIndex{"ifIndex", "U32", Zel::getBy<&Slot::ifIndex>};
  static std::array const attributes{&ifIndex, &valueAttribute()};
  static Zel::Type const type{"TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::"
                              "LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst",
                              attributes};
  return type;
}

void LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::valueIs(
    Zel::Ptr<TunnelInetConfigTableEntry const> const & entry) {
  if (value_ && value_->mibEntry() == entry)
    return;
  value_ = Zel::makePtr<MibEntryWrapper>(entry);
  tell(valueAttribute());
}

void LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst::valueDel() {
  if (std::exchange(value_, nullptr))
    tell(valueAttribute());
}

LocalAttrStore::LocalAttrStore() {
  hasNotificationActiveIs(true);
}

Zel::Type const & LocalAttrStore::typeDescription() {
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
  tell(tunnelInetConfigByIfIndexAttribute(), ifIndex);
  return slot;
}

// A slot that goes tells of its value: then it is out of the store already, which a listener may
// change.
void LocalAttrStore::tunnelInetConfigByIfIndexDel(std::uint32_t ifIndex) {
  auto const * found = slots_.find(ifIndex);
  auto const kept = found == nullptr ? nullptr : *found;
  slots_.erase(ifIndex);
}

void LocalAttrStore::tunnelInetConfigByIfIndexDelAll() {
  std::vector<Zel::Ptr<Slot>> kept;
  for (auto const & [ifIndex, slot] : slots_)
    kept.push_back(slot);
  slots_.clear();
}

} // namespace FlowaCode::TunnelInetConfigTableSm

// Construction and children

TunnelInetConfigTableSm::TunnelInetConfigTableSm(Zel::Ptr<TunnelMib> mib,
                                                 StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                                                 Flowa::SmControl const & control)
    : TunnelTableSm(smNames, *debugHandler, control, std::move(mib), std::move(tunnelIntfStatusDir),
                    std::move(ifMib)),
      localAttrStore_(Zel::makePtr<FlowaCode::TunnelInetConfigTableSm::LocalAttrStore>()),
      rescan_(*this) {
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
    : StatusChildSm(root, intfId, status) {
  if (status && (!status->hasNotificationActive() || status->intfId() != intfId))
    root.rescan().inputUnheard();
}

void SrcAddrMAdstAddrMAmodeSm1::emit(TableSmBase & machine, Plexa::IntfId intfId,
                                     StatusPtr const & status) {
  auto & root = static_cast<::TunnelIntfSnmp::TunnelInetConfigTableSm &>(machine);
  root.eventToTisStream(intfId, status ? Zel::Optional<StatusPtr>(status) : std::nullopt);
}

Zel::Type const & SrcAddrMAdstAddrMAmodeSm1::typeDescription() {
  using Child = SrcAddrMAdstAddrMAmodeSm1;
  static Zel::Attribute const list[] = {
      {"intfId", "Plexa::IntfId", Zel::getBy<&Child::intfId>},
      {"status", "Interface::TunnelIntfStatus", Zel::getBy<&Child::status>}};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{
      "TunnelIntfSnmp::FlowaCode::TunnelInetConfigTableSm::SrcAddrMAdstAddrMAmodeSm1", attributes};
  return type;
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
  auto const * found = ifMib()->ifIndexByIntfId().find(intfId);
  if (found == nullptr) {
    rescan_.forget(intfId);
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return;
  }
  auto const ifIndex = *found;
  auto const isAdd = static_cast<bool>(intfStatusOpt);
  rescan_.eventOf(intfId);
  if (statusOutlives(intfId, [&] { eventToDeleteStream(ifIndex, intfStatusOpt, isAdd); }))
    rescan_.tried(intfId, eventToAddStream(ifIndex, intfStatusOpt, isAdd));
  eventToRescanStream(ifIndex, intfStatusOpt, isAdd);
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
  rescan_.tried(intfId, eventToAddStream(*ifIndexOpt, status, true));
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
  deleteSlot(**slot);
  if (!wrapper) // a listener of the new slot is at work: its row is still to be written
    return;
  if (!wrapper->mibEntry())
    throw Zel::BadOptionalAccess();
  auto const & key = wrapper->mibEntry()->key();
  if (isHeld(key)) // likewise, and another tunnel was given the row
    return;
  outputKeySeen(key);
  intoMibTable(intoByWrapper, key, nullptr);
}

Outcome TunnelInetConfigTableSm::eventToAddStream(std::uint32_t ifIndex,
                                                  Zel::Optional<StatusPtr> const & intfStatusOpt,
                                                  bool isAdd) {
  if (!initialScanDone())
    return NotTried();
  LUMO_TRACE(trace(), 7,
             "addStream = merge( tisStream, ifMibStream, rescanStream ): ifIndex={} "
             "intfStatusOpt={} isAdd={}",
             ifIndex, printed(intfStatusOpt), isAdd);
  if (!isAdd) {
    LUMO_TRACE(trace(), 6, "filter( isAdd ) failed, terminating pipeline");
    return NotTried();
  }
  auto const & intfStatus = *intfStatusOpt;
  if (intfStatus->srcAddr().isAddrZero()) {
    LUMO_TRACE(trace(), 6,
               "filter( ( !intfStatus.srcAddr.isAddrZero ) ) failed, terminating pipeline");
    return NotReady();
  }
  if (intfStatus->dstAddr().isAddrZero()) {
    LUMO_TRACE(trace(), 6,
               "filter( ( !intfStatus.dstAddr.isAddrZero ) ) failed, terminating pipeline");
    return NotReady();
  }
  auto const mibKey = mibKeyOf(*intfStatus);
  if (output().find(mibKey) != output().end()) {
    LUMO_TRACE(trace(), 6, "filter( ( !existing ) ) failed, terminating pipeline");
    return KeyTaken{mibKey};
  }
  return addRow(tunnelInetConfigTableEntryFactory(mibKey, ifIndex), intfStatus->intfId());
}

// The slot and its value are told before there is a row. A listener may change what the row is made
// of: the events of that have decided then, as they are the later ones.
Outcome TunnelInetConfigTableSm::addRow(EntryPtr const & entry, Plexa::IntfId holder) {
  auto const ifIndex = entry->ifIndex();
  auto const * present = localAttrStore_->tunnelInetConfigByIfIndex().find(ifIndex);
  auto const before = present == nullptr ? nullptr : entryIn(**present);
  auto const slot = localAttrStore_->tunnelInetConfigByIfIndexIs(ifIndex, holder);
  if (overtaken(*slot, before, entry->key()))
    return NotTried();
  LUMO_TRACE(trace(), 7, "into( tunnelInetConfigByIfIndex[ ifIndex ] ): inserting k1={}, value={}",
             ifIndex, printed(*entry));
  rescan_.slotTaken(slot->holder(), holder);
  slot->holderIs(holder);
  slot->valueIs(entry);
  if (overtaken(*slot, entry, entry->key()))
    return NotTried();
  outputKeySeen(entry->key());
  intoMibTable(intoByMibKey, entry->key(), entry);
  return Added();
}

// True if and only if the slot is gone or holds another entry, or another one's row has the key
// meanwhile: then the slot goes.
bool TunnelInetConfigTableSm::overtaken(Slot const & slot, EntryPtr const & entry,
                                        TunnelInetConfigTableKey const & key) {
  auto const * found = localAttrStore_->tunnelInetConfigByIfIndex().find(slot.ifIndex());
  if (found == nullptr || found->get() != &slot || entryIn(slot) != entry)
    return true;
  auto const isHeldByAnother = isHeld(key);
  if (isHeldByAnother)
    deleteSlot(slot);
  return isHeldByAnother;
}

// True if and only if there is a row under the key that is the one of a slot.
bool TunnelInetConfigTableSm::isHeld(TunnelInetConfigTableKey const & key) const {
  EntryPtr const row = output()[key];
  if (!row)
    return false;
  auto const * slot = localAttrStore_->tunnelInetConfigByIfIndex().find(row->ifIndex());
  return slot != nullptr && entryIn(**slot) == row;
}

void TunnelInetConfigTableSm::deleteSlot(Slot const & slot) {
  auto const ifIndex = slot.ifIndex();
  LUMO_TRACE(trace(), 7, "into( tunnelInetConfigByIfIndex[ ifIndex ] ): deleting k1={}", ifIndex);
  rescan_.slotGoes(ifIndex, slot.holder());
  localAttrStore_->tunnelInetConfigByIfIndexDel(ifIndex);
}

TunnelInetConfigTableKey
TunnelInetConfigTableSm::mibKeyOf(Interface::TunnelIntfStatus const & intfStatus) {
  return {Snmp::InetAddress::fromIpGenAddr(intfStatus.srcAddr()),
          Snmp::InetAddress::fromIpGenAddr(intfStatus.dstAddr()).address(),
          modeToEncap(intfStatus.mode()), 1};
}

void TunnelInetConfigTableSm::eventToRescanStream(std::uint32_t,
                                                  Zel::Optional<StatusPtr> const & processedTisOpt,
                                                  bool) {
  if (!initialScanDone())
    return;
  LUMO_TRACE(trace(), 7, "rescanStream = merge( tisStream ): processedTisOpt={}",
             printed(processedTisOpt));
  LUMO_TRACE(trace(), 6, " foreach( tunnelIntfStatusDir.intfStatus ) foreaching {} elements",
             tunnelIntfStatusDir()->intfStatus().size());
  rescan_.forEach([&](Plexa::IntfId intfId, StatusPtr const & intfStatus) {
    return rescanOne(intfId, intfStatus, processedTisOpt);
  });
}

Outcome TunnelInetConfigTableSm::rescanOne(Plexa::IntfId intfId, StatusPtr const & intfStatus,
                                           Zel::Optional<StatusPtr> const & processedTisOpt) {
  LUMO_TRACE(trace(), 9, "Foreaching element: {}", intfId);
  if (processedTisOpt && *processedTisOpt == intfStatus) {
    LUMO_TRACE(trace(), 6,
               "filter( ( Optional( intfStatus ) != processedTisOpt ) ) failed, terminating "
               "pipeline");
    return NotTried();
  }
  auto const * ifIndex = ifMib()->ifIndexByIntfId().find(intfId);
  if (ifIndex == nullptr) {
    LUMO_TRACE(trace(), 6, "filter( ifIndexOpt ) failed, terminating pipeline");
    return NotReady();
  }
  if (auto const * slot = localAttrStore_->tunnelInetConfigByIfIndex().find(*ifIndex)) {
    LUMO_TRACE(trace(), 6,
               "filter( ( !tunnelInetConfigByIfIndex[ ifIndex ] ) ) failed, terminating pipeline");
    return (*slot)->holder() == intfId ? Outcome(HasItsSlot()) : SlotTaken{*ifIndex};
  }
  return eventToAddStream(*ifIndex, intfStatus, true);
}

// Writes to the output table

void TunnelInetConfigTableSm::intoMibTable(std::string_view statement,
                                           TunnelInetConfigTableKey const & k1,
                                           EntryPtr const & value) {
  auto const row = output().find(k1);
  if (!value) {
    LUMO_TRACE(trace(), 7, "{}: deleting k1={}", statement, printed(k1));
    if (row == output().end())
      return;
    rescan_.rowGoes(k1);
    mib()->tunnelInetConfigTableDel(row);
    return;
  }
  LUMO_ASSERT(value->key() == k1,
              "In \"{}\" the value inserted in the into statement has internal key: {}, but the "
              "key specified in the into is: {}",
              statement, printed(value->key()), printed(k1));
  LUMO_TRACE(trace(), 7, "{}: inserting k1={}, value={}", statement, printed(k1), printed(*value));
  if (row == output().end())
    rescan_.rowComes();
  mib()->tunnelInetConfigTableIs(value);
}

void TunnelInetConfigTableSm::deleteOutputRow(TunnelInetConfigTableKey const & k1) {
  intoMibTable(intoByMibKey, k1, nullptr);
}

// Destruction

TunnelInetConfigTableSm::~TunnelInetConfigTableSm() {
  tearDown();
}

// What the framework is told when the library is loaded.

Zel::Type const & TunnelInetConfigTableSm::typeDescription() {
  using Sm = TunnelInetConfigTableSm;
  static Zel::Attribute const list[] = {
      {"mib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Sm::mib>},
      {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
       Zel::getBy<&Sm::tunnelIntfStatusDir>},
      {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Sm::ifMib>},
      {"flowaControl", "Flowa::SmControl", Zel::getBy<&TableSmBase::flowaControl>},
      {"localAttrStore", FlowaCode::TunnelInetConfigTableSm::LocalAttrStore::typeDescription().name,
       Zel::getBy<&Sm::localAttrStore>},
      {"inputSmScanState", scanStateType.name, Zel::getBy<&Sm::inputSmScanState>},
      {"outputState", outputStateType.name, Zel::getBy<&Sm::outputState>},
      {"intfStatusSm0", inputs[intfStatusInput].type.name, Zel::getBy<&Sm::intfStatusSm0>},
      {"ifIndexByIntfIdSm2", inputs[ifMibInput].type.name, Zel::getBy<&Sm::ifIndexByIntfIdSm2>},
      {"initialized", "bool", Zel::getBy<&Sm::initialized>},
      {"initialScanDone", "bool", Zel::getBy<&Sm::initialScanDone>},
      {"mibTunnelInetConfigTableOutputReconciling", "bool", Zel::getBy<&Sm::mibOutputReconciling>},
      {"mibTunnelInetConfigTableOutputSeen", "Zel::HashMap2018", Sm::outputSeenByName},
      {"mibTunnelInetConfigTableOutputBookmark", MibTunnelInetConfigTableOutputKeyType::typeName,
       Zel::getBy<&Sm::outputBookmark>},
      {"mibTunnelInetConfigTableOutputUseBookmark", "bool", Zel::getBy<&Sm::outputUseBookmark>},
      {"mibTunnelInetConfigTableOutputReconciliationTask", taskType.name,
       Zel::getBy<&Sm::reconciliationTask>},
      {"qtHandle", "Skein::TraceHandle",
       [](Zel::PtrInterface const & machine) {
         return Zel::toValue(static_cast<Sm const &>(machine).flowaControl().qtHandle().ring);
       }},
      {"synchronous", "bool", Zel::getBy<&Sm::synchronous>},
      {"ready", "bool", Zel::getBy<&Sm::ready>},
      {"idle", "bool", Zel::getBy<&Sm::idle>},
      {"rescanWalks", "U64",
       [](Zel::PtrInterface const &
              machine) { return Zel::toValue(static_cast<Sm const &>(machine).rescan().walks()); }},
      {"rescanUnheard", "U64", [](Zel::PtrInterface const & machine) {
         return Zel::toValue(static_cast<Sm const &>(machine).rescan().unheard());
       }}};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{"TunnelIntfSnmp::TunnelInetConfigTableSm", attributes};
  return type;
}

std::vector<Zel::Type const *> TunnelInetConfigTableSm::nestedTypes() {
  using namespace FlowaCode::TunnelInetConfigTableSm;
  static Zel::Type const outputKey{MibTunnelInetConfigTableOutputKeyType::typeName, {}};
  return {&typeDescription(),
          &outputKey,
          &LocalAttrStore::typeDescription(),
          &LocalAttrStore::Slot::typeDescription(),
          &scanStateType,
          &outputStateType,
          &inputs[0].type,
          &inputs[1].type,
          &SrcAddrMAdstAddrMAmodeSm1::typeDescription(),
          &taskType};
}

namespace {

Zel::zelModuleIs const
    _TunnelInetConfigTableSm_a38aa982_zelModule(moduleOf<TunnelInetConfigTableSm>());
} // namespace

} // namespace TunnelIntfSnmp
