// The model: for each table its row, with how each column is computed and the list of the columns;
// then the entity that holds the tables; last, what the framework is told of the types when the
// library is loaded.
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include <array>
#include <vector>

namespace TunnelIntfSnmp {

namespace {

// What the numbers of columns mean, as far as a row can hold them.
constexpr Zel::Enumerator tunnelTypes[] = { // IANAtunnelType
    {1, "other"},
    {2, "direct"},
    {3, "gre"}};
constexpr Zel::Enumerator securities[] = { // tunnelIfSecurity (RFC 4087)
    {1, "none"},
    {2, "ipsec"}};
constexpr Zel::Enumerator addressTypes[] = { // InetAddressType (RFC 4001)
    {0, "unknown"},
    {1, "ipv4"},
    {2, "ipv6"}};
constexpr Zel::Enumerator rowStatuses[] = {{1, "active"}};    // RowStatus (RFC 2579)
constexpr Zel::Enumerator storageTypes[] = {{5, "readOnly"}}; // StorageType (RFC 2579)
constexpr Zel::Enumerator connStates[] = { // VelmoraIpsecConnState (mibs/VELMORA-TUNNEL-MIB.txt)
    {0, "unknown"}, {1, "down"},     {2, "connecting"}, {3, "ikeUp"},
    {4, "up"},      {5, "rekeying"}, {6, "closing"}};

template <auto Member>
Zel::Attribute attributeOf(std::string_view name, std::string_view typeName,
                           std::span<Zel::Enumerator const> enumerators = {}) {
  return {
      .name = name, .typeName = typeName, .get = Zel::getBy<Member>, .enumerators = enumerators};
}

template <auto Table>
Zel::Attribute tableOf(std::string_view name) {
  return {.name = name,
          .typeName = "Zel::RbTreeMap",
          .get = Zel::getBy<Table>,
          .walk = Zel::walkBy<Table>};
}

// The attributes of a row: its own, and behind them those that its columns show.
std::vector<Zel::Attribute const *> attributesOf(std::span<Zel::Attribute const> own,
                                                 std::span<Column const> columns) {
  std::vector<Zel::Attribute const *> attributes;
  for (auto const & attribute : own)
    attributes.push_back(&attribute);
  for (auto const & column : columns)
    if (column.value != nullptr)
      attributes.push_back(&column.attribute);
  return attributes;
}

} // namespace

Lumo::DebugHandler const & modelTrace() {
  static auto const handler = Lumo::Platform::getDebugHandler("TunnelIntfSnmp", false);
  return *handler;
}
namespace {
// Known by its name before it has traced anything, so that it can be switched on.
[[maybe_unused]] auto const & traceFromTheLoadOn = modelTrace();
} // namespace

std::uint32_t modeToEncap(Plexa::TunnelIntfMode mode) {
  if (mode == Plexa::TunnelIntfMode::gre)
    return 3;
  return mode == Plexa::TunnelIntfMode::direct ? 2 : 1;
}

// tunnelIfTable

TunnelIfTableEntry::TunnelIfTableEntry(std::uint32_t ifIndex, StatusPtr tunnelIntfStatus)
    : ifIndex_(ifIndex),
      tunnelIntfStatus_(std::move(tunnelIntfStatus)) {}

Zel::Ptr<TunnelIfTableEntry> TunnelIfTableEntry::TunnelIfTableEntryIs(std::uint32_t ifIndex,
                                                                      StatusPtr tunnelIntfStatus) {
  return Zel::makePtr<TunnelIfTableEntry>(ifIndex, std::move(tunnelIntfStatus));
}

Zel::Ptr<TunnelIfTableEntry> tunnelIfTableEntryFactory(std::uint32_t ifIndex,
                                                       StatusPtr tunnelIntfStatus) {
  return TunnelIfTableEntry::TunnelIfTableEntryIs(ifIndex, std::move(tunnelIntfStatus));
}

Zel::Type const & TunnelIfTableEntry::type() const {
  return typeDescription();
}

Zel::Type const & TunnelIfTableEntry::typeDescription() {
  using Row = TunnelIfTableEntry;
  static Zel::Attribute const own[] = {
      attributeOf<&Row::ifIndex>("ifIndex", "U32"),
      attributeOf<&Row::tunnelIntfStatus>("tunnelIntfStatus", "Interface::TunnelIntfStatus")};
  static auto const attributes = attributesOf(own, columns());
  static Zel::Type const type{"TunnelIntfSnmp::TunnelIfTableEntry", attributes};
  return type;
}

std::span<Column const> TunnelIfTableEntry::columns() {
  using Row = TunnelIfTableEntry;
  using enum SetSays;
  static constexpr Column list[] = {
      unservedColumn(1, "tunnelIfLocalAddress", invalidColumn),
      unservedColumn(2, "tunnelIfRemoteAddress", invalidColumn),
      servedColumn<&Row::encapsMethod>(3, "tunnelIfEncapsMethod", "encapsMethod", invalidColumn,
                                       tunnelTypes),
      servedColumn<&Row::hopLimit>(4, "tunnelIfHopLimit", "hopLimit", notConfigured),
      servedColumn<&Row::security>(5, "tunnelIfSecurity", "security", invalidColumn, securities),
      servedColumn<&Row::tos>(6, "tunnelIfTOS", "tos", notConfigured),
      unservedColumn(7, "tunnelIfFlowLabel", notConfigured),
      servedColumn<&Row::addrType>(8, "tunnelIfAddressType", "addrType", notConfigured,
                                   addressTypes),
      servedColumn<&Row::localAddr>(9, "tunnelIfLocalInetAddress", "localAddr", notConfigured),
      servedColumn<&Row::remoteAddr>(10, "tunnelIfRemoteInetAddress", "remoteAddr", notConfigured),
      unservedColumn(11, "tunnelIfEncapsLimit", notConfigured)};
  return list;
}

std::uint32_t TunnelIfTableEntry::encapsMethod() const {
  return modeToEncap(tunnelIntfStatus_->mode());
}

std::uint8_t TunnelIfTableEntry::hopLimit() const {
  return tunnelIntfStatus_ ? tunnelIntfStatus_->hopLimit() : std::uint8_t{0};
}

std::uint32_t TunnelIfTableEntry::security() const {
  return tunnelIntfStatus_->ipsec() ? 2 : 1;
}

std::uint8_t TunnelIfTableEntry::tos() const {
  return tunnelIntfStatus_ ? tunnelIntfStatus_->tos() : std::uint8_t{0};
}

std::uint32_t TunnelIfTableEntry::addrType() const {
  auto const & source = tunnelIntfStatus_->srcAddr();
  auto const & address = source == Plexa::IpGenAddr(Plexa::AddressFamily::none)
                             ? tunnelIntfStatus_->dstAddr()
                             : source;
  return Snmp::InetAddress::fromIpGenAddrOrUnknown(address).addressType();
}

Plexa::IpGenAddr TunnelIfTableEntry::localAddr() const {
  return tunnelIntfStatus_ ? tunnelIntfStatus_->srcAddr() : Plexa::IpGenAddr();
}

Plexa::IpGenAddr TunnelIfTableEntry::remoteAddr() const {
  return tunnelIntfStatus_ ? tunnelIntfStatus_->dstAddr() : Plexa::IpGenAddr();
}

// velmoraIpsecTunnelIfTable

IpsecTunnelIfTableEntry::IpsecTunnelIfTableEntry(std::uint32_t ifIndex, StatusPtr tunnelIntfStatus,
                                                 IkeStatusPtr ikeStatus)
    : ifIndex_(ifIndex),
      tunnelIntfStatus_(std::move(tunnelIntfStatus)),
      ikeStatus_(std::move(ikeStatus)) {}

Zel::Ptr<IpsecTunnelIfTableEntry> IpsecTunnelIfTableEntry::IpsecTunnelIfTableEntryIs(
    std::uint32_t ifIndex, StatusPtr tunnelIntfStatus, IkeStatusPtr ikeStatus) {
  return Zel::makePtr<IpsecTunnelIfTableEntry>(ifIndex, std::move(tunnelIntfStatus),
                                               std::move(ikeStatus));
}

Zel::Ptr<IpsecTunnelIfTableEntry> ipsecTunnelIfTableEntryFactory(std::uint32_t ifIndex,
                                                                 StatusPtr tunnelIntfStatus,
                                                                 IkeStatusPtr ikeStatus) {
  return IpsecTunnelIfTableEntry::IpsecTunnelIfTableEntryIs(ifIndex, std::move(tunnelIntfStatus),
                                                            std::move(ikeStatus));
}

Zel::Type const & IpsecTunnelIfTableEntry::type() const {
  return typeDescription();
}

Zel::Type const & IpsecTunnelIfTableEntry::typeDescription() {
  using Row = IpsecTunnelIfTableEntry;
  static Zel::Attribute const own[] = {
      attributeOf<&Row::ifIndex>("ifIndex", "U32"),
      attributeOf<&Row::tunnelIntfStatus>("tunnelIntfStatus", "Interface::TunnelIntfStatus"),
      attributeOf<&Row::ikeStatus>("ikeStatus", "Ipsec::Ike::Status")};
  static auto const attributes = attributesOf(own, columns());
  static Zel::Type const type{"TunnelIntfSnmp::IpsecTunnelIfTableEntry", attributes};
  return type;
}

std::span<Column const> IpsecTunnelIfTableEntry::columns() {
  using Row = IpsecTunnelIfTableEntry;
  static constexpr Column list[] = {servedColumn<&Row::connState>(
      1, "velmoraIpsecTunnelIfConnState", "connState", SetSays::invalidColumn, connStates)};
  return list;
}

namespace {

// The value under the key, or null where there is none, or a null one, which is traced.
template <class Collection, class Key>
auto lookUp(Collection const & collection, Key const & key, fmt::format_string<Key const &> missing,
            std::source_location place = std::source_location::current())
    -> decltype(collection.find(key)->get()) {
  if (auto const * found = collection.find(key); found != nullptr && *found)
    return found->get();
  if (modelTrace().enabled(5))
    Lumo::fmtrace({modelTrace(), "IpsecTunnelIfTableEntry"}, 5, place, "connState", missing, key);
  return nullptr;
}

// The column leaves out the input's state 5 and moves those above it down by one.
std::uint32_t connStateColumn(Ipsec::Ike::ConnState state) {
  constexpr std::array<std::uint32_t, 7> column{1, 2, 3, 4, 0, 5, 6};
  auto const position = static_cast<std::uint8_t>(static_cast<std::uint8_t>(state) - 1);
  return position < column.size() ? column[position] : 0;
}

} // namespace

std::uint32_t IpsecTunnelIfTableEntry::connState() const {
  auto const * applied = connection();
  return applied == nullptr ? 0 : connStateColumn(applied->connState());
}

void const * IpsecTunnelIfTableEntry::connStateSource() const {
  return tunnelIntfStatus_.get();
}

Ipsec::Ike::IpsecTunnelProfileInfo const * IpsecTunnelIfTableEntry::connection() const {
  auto const intfId = tunnelIntfStatus_->intfId();
  auto const * info = lookUp(ikeStatus_->ipsecTunnelInfo(), intfId, "No tunnelInfo for {}");
  if (info == nullptr)
    return nullptr;
  auto const * connections = lookUp(ikeStatus_->appliedProfiles(), info->profileName(),
                                    "No appliedProfile profileConnectionMap for profile {}");
  if (connections == nullptr)
    return nullptr;
  return lookUp(connections->appliedIntfId(), intfId,
                "No appliedIntfId tunnelProfileInfo for intfId {}");
}

// tunnelInetConfigTable

TunnelInetConfigTableKey::TunnelInetConfigTableKey(Snmp::InetAddress localInetAddr,
                                                   Snmp::Bytes remoteAddrBytes,
                                                   std::uint32_t encapsMethod,
                                                   std::uint32_t configId)
    : localInetAddr_(std::move(localInetAddr)),
      remoteAddrBytes_(std::move(remoteAddrBytes)),
      encapsMethod_(encapsMethod),
      configId_(configId) {}

TunnelInetConfigTableKey::TunnelInetConfigTableKey(Zel::StrepReader & text) {
  Zel::strepRead(text, *this);
}

std::uint32_t TunnelInetConfigTableKey::hash(std::uint32_t seed) const {
  return Zel::Hash(seed)
      .mix(localInetAddr_.hash(0))
      .mix(remoteAddrBytes_.hash(0))
      .mix(encapsMethod_)
      .mix(configId_)
      .result();
}

std::ostream & operator<<(std::ostream & out, TunnelInetConfigTableKey const & key) {
  return out << Zel::valueToStrep(key);
}

TunnelInetConfigTableEntry::TunnelInetConfigTableEntry(TunnelInetConfigTableKey key,
                                                       std::uint32_t ifIndex)
    : ifIndex_(ifIndex),
      key_(std::move(key)) {}

TunnelInetConfigTableEntry::TunnelInetConfigTableEntry(Zel::StrepReader & text) {
  Zel::strepRead(text, *this);
}

Zel::Ptr<TunnelInetConfigTableEntry const>
TunnelInetConfigTableEntry::TunnelInetConfigTableEntryIs(TunnelInetConfigTableKey key,
                                                         std::uint32_t ifIndex) {
  return Zel::makePtr<TunnelInetConfigTableEntry>(std::move(key), ifIndex);
}

Zel::Type const & TunnelInetConfigTableEntry::type() const {
  return typeDescription();
}

Zel::Type const & TunnelInetConfigTableEntry::typeDescription() {
  using Row = TunnelInetConfigTableEntry;
  static Zel::Attribute const own[] = {
      attributeOf<&Row::key>("key", TunnelInetConfigTableKey::typeName),
      attributeOf<&Row::addrType>("addrType", "U32", addressTypes),
      attributeOf<&Row::localAddr>("localAddr", "Snmp::Bytes"),
      attributeOf<&Row::remoteAddr>("remoteAddr", "Snmp::Bytes"),
      attributeOf<&Row::encapsMethod>("encapsMethod", "U32", tunnelTypes),
      attributeOf<&Row::configId>("configId", "U32")};
  static auto const attributes = attributesOf(own, columns());
  static Zel::Type const type{typeName, attributes};
  return type;
}

// Columns 1 to 5 are the index, which no manager may ask for.
std::span<Column const> TunnelInetConfigTableEntry::columns() {
  using Row = TunnelInetConfigTableEntry;
  using enum SetSays;
  static constexpr Column list[] = {
      servedColumn<&Row::ifIndex, std::int32_t>(6, "tunnelInetConfigIfIndex", "ifIndex",
                                                invalidColumn),
      servedColumn<&Row::rowStatus, std::int32_t>(7, "tunnelInetConfigStatus", "rowStatus",
                                                  notConfigured, rowStatuses),
      servedColumn<&Row::storageType, std::int32_t>(8, "tunnelInetConfigStorageType", "storageType",
                                                    notConfigured, storageTypes)};
  return list;
}

Zel::Ptr<TunnelInetConfigTableEntry const>
tunnelInetConfigTableEntryFactory(TunnelInetConfigTableKey key, std::uint32_t ifIndex) {
  return TunnelInetConfigTableEntry::TunnelInetConfigTableEntryIs(std::move(key), ifIndex);
}

void strepRead(Zel::StrepReader & in, Zel::Ptr<TunnelInetConfigTableEntry const> & entry) {
  entry = Zel::makePtr<TunnelInetConfigTableEntry>(in);
}

MibEntryWrapper::MibEntryWrapper(Zel::Ptr<TunnelInetConfigTableEntry const> mibEntry)
    : mibEntry_(std::move(mibEntry)) {}

Zel::Ptr<MibEntryWrapper>
MibEntryWrapper::MibEntryWrapperIs(Zel::Ptr<TunnelInetConfigTableEntry const> mibEntry) {
  return Zel::makePtr<MibEntryWrapper>(std::move(mibEntry));
}

Zel::Ptr<MibEntryWrapper>
mibEntryWrapperFactory(Zel::Ptr<TunnelInetConfigTableEntry const> mibEntry) {
  return MibEntryWrapper::MibEntryWrapperIs(std::move(mibEntry));
}

Zel::Type const & MibEntryWrapper::type() const {
  return typeDescription();
}

Zel::Type const & MibEntryWrapper::typeDescription() {
  static Zel::Attribute const list[] = {attributeOf<&MibEntryWrapper::mibEntry>(
      "mibEntry", "TunnelIntfSnmp::TunnelInetConfigTableEntry")};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{"TunnelIntfSnmp::MibEntryWrapper", attributes};
  return type;
}

// The entity

namespace {

// Which of the overloads is the attribute: the one that gives the whole table.
constexpr auto wholeTunnelIfTable =
    static_cast<TunnelMib::TunnelIfTable const & (TunnelMib::*)() const>(&TunnelMib::tunnelIfTable);
constexpr auto wholeIpsecTunnelIfTable =
    static_cast<TunnelMib::IpsecTunnelIfTable const & (TunnelMib::*)() const>(
        &TunnelMib::ipsecTunnelIfTable);

} // namespace

Zel::Attribute const & TunnelMib::tunnelIfTableAttribute() {
  static auto const attribute = tableOf<wholeTunnelIfTable>("tunnelIfTable");
  return attribute;
}

Zel::Attribute const & TunnelMib::tunnelInetConfigTableAttribute() {
  static auto const attribute = [] {
    auto made = tableOf<&TunnelMib::tunnelInetConfigTable>("tunnelInetConfigTable");
    made.del = [](Zel::PtrInterface & mib) {
      static_cast<TunnelMib &>(mib).tunnelInetConfigTableDelAll();
    };
    return made;
  }();
  return attribute;
}

Zel::Attribute const & TunnelMib::ipsecTunnelIfTableAttribute() {
  static auto const attribute = tableOf<wholeIpsecTunnelIfTable>("ipsecTunnelIfTable");
  return attribute;
}

Zel::Type const & TunnelMib::type() const {
  return typeDescription();
}

Zel::Type const & TunnelMib::typeDescription() {
  static auto const name = attributeOf<&Entity::name>("name", "String");
  static std::array<Zel::Attribute const *, 4> const attributes{&name, &tunnelIfTableAttribute(),
                                                                &tunnelInetConfigTableAttribute(),
                                                                &ipsecTunnelIfTableAttribute()};
  static Zel::Type const type{"TunnelIntfSnmp::TunnelMib", attributes,
                              [](std::string_view entityName) -> Zel::Ptr<Zel::PtrInterface> {
                                return tunnelMibFactory(entityName);
                              }};
  return type;
}

TunnelMib::TunnelMib(std::string_view name) : Entity(name) {}

TunnelMib::~TunnelMib() {
  tunnelIfTableDelAll();
  ipsecTunnelIfTableDelAll();
  notifieesDelAll();
}

Zel::Ptr<TunnelMib> TunnelMib::TunnelMibIs(std::string_view name) {
  return Zel::makePtr<TunnelMib>(name);
}

Zel::Ptr<TunnelMib> tunnelMibFactory(std::string_view name) {
  return TunnelMib::TunnelMibIs(name);
}

template <class Table>
auto TunnelMib::del(Table & table, typename Table::const_iterator position,
                    Zel::Attribute const & attribute) {
  if (position == table.end())
    return decltype(table.erase(position))();
  auto const key = position->first;
  auto row = table.erase(position);
  tell(attribute, key);
  return row;
}

template <class Table>
void TunnelMib::delAll(Table & table, Zel::Attribute const & attribute) {
  for (auto position = table.begin(); position != table.end();) {
    auto const key = position->first;
    del(table, position, attribute);
    position = table.findNext(key); // a listener may have changed the table
  }
}

Zel::Ptr<TunnelIfTableEntry> TunnelMib::tunnelIfTable(std::uint32_t ifIndex) const {
  return tunnelIfTable_[ifIndex];
}

Zel::Ptr<TunnelIfTableEntry> TunnelMib::tunnelIfTableIs(std::uint32_t ifIndex,
                                                        StatusPtr tunnelIntfStatus) {
  auto const place = tunnelIfTable_.findNotLess(ifIndex);
  if (place != tunnelIfTable_.end() && place->first == ifIndex) {
    auto const & row = place->second;
    if (row->tunnelIntfStatus() != tunnelIntfStatus)
      throw Zel::ReinstantiationError("tunnelIntfStatus");
    return row;
  }
  auto row = tunnelIfTableEntryFactory(ifIndex, std::move(tunnelIntfStatus));
  row->hasNotificationActiveIs(true);
  tunnelIfTable_.insertOrReplace(place, ifIndex, row);
  tell(tunnelIfTableAttribute(), ifIndex);
  return row;
}

Zel::Ptr<TunnelIfTableEntry> TunnelMib::tunnelIfTableDel(std::uint32_t ifIndex) {
  return tunnelIfTableDel(tunnelIfTable_.find(ifIndex));
}

Zel::Ptr<TunnelIfTableEntry> TunnelMib::tunnelIfTableDel(TunnelIfTable::const_iterator position) {
  return del(tunnelIfTable_, position, tunnelIfTableAttribute());
}

void TunnelMib::tunnelIfTableDelAll() {
  delAll(tunnelIfTable_, tunnelIfTableAttribute());
}

Zel::Ptr<IpsecTunnelIfTableEntry> TunnelMib::ipsecTunnelIfTable(std::uint32_t ifIndex) const {
  return ipsecTunnelIfTable_[ifIndex];
}

Zel::Ptr<IpsecTunnelIfTableEntry> TunnelMib::ipsecTunnelIfTableIs(std::uint32_t ifIndex,
                                                                  StatusPtr tunnelIntfStatus,
                                                                  IkeStatusPtr ikeStatus) {
  auto const place = ipsecTunnelIfTable_.findNotLess(ifIndex);
  if (place != ipsecTunnelIfTable_.end() && place->first == ifIndex) {
    auto const & row = place->second;
    if (row->tunnelIntfStatus() != tunnelIntfStatus)
      throw Zel::ReinstantiationError("tunnelIntfStatus");
    if (row->ikeStatus() != ikeStatus)
      throw Zel::ReinstantiationError("ikeStatus");
    return row;
  }
  auto row =
      ipsecTunnelIfTableEntryFactory(ifIndex, std::move(tunnelIntfStatus), std::move(ikeStatus));
  row->hasNotificationActiveIs(true);
  ipsecTunnelIfTable_.insertOrReplace(place, ifIndex, row);
  tell(ipsecTunnelIfTableAttribute(), ifIndex);
  return row;
}

Zel::Ptr<IpsecTunnelIfTableEntry> TunnelMib::ipsecTunnelIfTableDel(std::uint32_t ifIndex) {
  return ipsecTunnelIfTableDel(ipsecTunnelIfTable_.find(ifIndex));
}

Zel::Ptr<IpsecTunnelIfTableEntry>
TunnelMib::ipsecTunnelIfTableDel(IpsecTunnelIfTable::const_iterator position) {
  return del(ipsecTunnelIfTable_, position, ipsecTunnelIfTableAttribute());
}

void TunnelMib::ipsecTunnelIfTableDelAll() {
  delAll(ipsecTunnelIfTable_, ipsecTunnelIfTableAttribute());
}

void TunnelMib::tunnelInetConfigTableIs(Zel::Ptr<TunnelInetConfigTableEntry const> entry) {
  if (!entry)
    throw Zel::NullArgumentError("tunnelInetConfigTable");
  auto const place = tunnelInetConfigTable_.findNotLess(entry->key());
  tunnelInetConfigTableIs(place, std::move(entry));
}

void TunnelMib::tunnelInetConfigTableIs(TunnelInetConfigTable::const_iterator place,
                                        Zel::Ptr<TunnelInetConfigTableEntry const> entry) {
  if (place != tunnelInetConfigTable_.end() && place->second == entry)
    return;
  auto const & key = entry->key();
  tunnelInetConfigTable_.insertOrReplace(place, key, entry);
  tell(tunnelInetConfigTableAttribute(), key);
}

Zel::Ptr<TunnelInetConfigTableEntry const>
TunnelMib::tunnelInetConfigTableDel(TunnelInetConfigTableKey const & key) {
  return tunnelInetConfigTableDel(tunnelInetConfigTable_.find(key));
}

Zel::Ptr<TunnelInetConfigTableEntry const>
TunnelMib::tunnelInetConfigTableDel(TunnelInetConfigTable::const_iterator position) {
  return del(tunnelInetConfigTable_, position, tunnelInetConfigTableAttribute());
}

void TunnelMib::tunnelInetConfigTableDelAll() {
  if (notifieesEmpty())
    tunnelInetConfigTable_.clear();
  else
    delAll(tunnelInetConfigTable_, tunnelInetConfigTableAttribute());
}

// What the framework is told when the library is loaded.

namespace {

// The fields of a value as attributes. A value is no object: it is read as a whole.
template <Zel::FieldedValue Value>
auto fieldAttributes() {
  auto const describe = []<class Member>(Zel::Field<Value, Member> const & field) {
    return Zel::Attribute{field.name, typeNameOf<Member>()};
  };
  return std::apply([&](auto const &... field) { return std::array{describe(field)...}; },
                    Value::fields());
}

Zel::Type const & tunnelInetConfigTableKeyType() {
  static auto const list = fieldAttributes<TunnelInetConfigTableKey>();
  static auto const attributes = attributesOf(list, {});
  static Zel::Type const type{TunnelInetConfigTableKey::typeName, attributes};
  return type;
}

std::array<Zel::Type const *, 6> const types{&TunnelIfTableEntry::typeDescription(),
                                             &IpsecTunnelIfTableEntry::typeDescription(),
                                             &TunnelInetConfigTableEntry::typeDescription(),
                                             &MibEntryWrapper::typeDescription(),
                                             &tunnelInetConfigTableKeyType(),
                                             &TunnelMib::typeDescription()};
constexpr std::array<std::string_view, 5> outsideTypes{"Interface::TunnelIntfStatus",
                                                       "Ipsec::Ike::Status", "Plexa::IpGenAddr",
                                                       "Snmp::Bytes", "Snmp::InetAddress"};
Zel::Module const moduleRecord{"TunnelIntfSnmp", "ns-", types, outsideTypes};
Zel::zelModuleIs const _TunnelIntfSnmp_428ee94f_zelModule(moduleRecord);

} // namespace

} // namespace TunnelIntfSnmp
