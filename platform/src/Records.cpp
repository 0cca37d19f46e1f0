// The input records: Interface, IntfSnmp and Ipsec.
#include "platform/Interface.h"
#include "platform/IntfSnmp.h"
#include "platform/Ipsec.h"
#include <array>

// What the records of every module do alike.
namespace {

constexpr std::string_view collectionType = "Zel::HashMap2018";

/// The attribute of a collection, read through the member function `Entries`.
template <auto Entries>
Zel::Attribute const & collectionAttribute(std::string_view name) {
  static Zel::Attribute const attribute{name, collectionType, Zel::getBy<Entries>};
  return attribute;
}

/// All attributes of a record: those given, then those of its list.
template <class R, std::same_as<Zel::Attribute>... First>
Zel::Type typeOfRecord(std::string_view name, First const &... first) {
  static auto const attributes = [&] {
    std::array<Zel::Attribute const *, sizeof...(First) + Zel::fieldCount<typename R::Values>> all{
        &first...};
    auto next = all.begin() + sizeof...(First);
    for (auto const & attribute : R::fieldAttributes())
      *next++ = &attribute;
    return all;
  }();
  return {name, attributes};
}

template <class Map, class Key, class T>
bool has(Map const & map, Key const & key, Zel::Ptr<T> const & value) {
  auto const * present = map.find(key);
  return present != nullptr && *present == value;
}

} // namespace

namespace Interface {

std::span<Zel::Attribute const> TunnelIntfStatus::fieldAttributes() {
  static constexpr auto attributes = Zel::attributesOfFields<TunnelIntfStatus>();
  return attributes;
}
Zel::Attribute const & TunnelIntfStatus::intfIdAttribute() {
  static constexpr Zel::Attribute attribute{"intfId", "Plexa::IntfId",
                                            Zel::getBy<&TunnelIntfStatus::intfId>};
  return attribute;
}
Zel::Type const & TunnelIntfStatus::typeDescription() {
  static auto const type =
      typeOfRecord<TunnelIntfStatus>("Interface::TunnelIntfStatus", intfIdAttribute());
  return type;
}
Zel::Type const & TunnelIntfStatus::type() const {
  return typeDescription();
}

Zel::Attribute const & TunnelIntfStatusDir::intfStatusAttribute() {
  return collectionAttribute<&TunnelIntfStatusDir::intfStatus>("intfStatus");
}

TunnelIntfStatusDir::TunnelIntfStatusDir(std::string_view name) : Entity(name) {}

Zel::Type const & TunnelIntfStatusDir::typeDescription() {
  static std::array const attributes{&intfStatusAttribute()};
  static Zel::Type const type{"Interface::TunnelIntfStatusDir", attributes};
  return type;
}
Zel::Type const & TunnelIntfStatusDir::type() const {
  return typeDescription();
}

void TunnelIntfStatusDir::intfStatusIs(Plexa::IntfId intfId, Zel::Ptr<TunnelIntfStatus> status) {
  if (has(intfStatus_, intfId, status))
    return;
  intfStatus_.insertOrReplace(intfId, std::move(status));
  notify(intfStatusAttribute(), intfId);
}
void TunnelIntfStatusDir::intfStatusDel(Plexa::IntfId intfId) {
  if (intfStatus_.erase(intfId))
    notify(intfStatusAttribute(), intfId);
}

} // namespace Interface

namespace IntfSnmp {

Zel::Attribute const & IfMib::ifIndexByIntfIdAttribute() {
  return collectionAttribute<&IfMib::ifIndexByIntfId>("ifIndexByIntfId");
}

IfMib::IfMib(std::string_view name) : Entity(name) {}

Zel::Type const & IfMib::typeDescription() {
  static std::array const attributes{&ifIndexByIntfIdAttribute()};
  static Zel::Type const type{"IntfSnmp::IfMib", attributes};
  return type;
}
Zel::Type const & IfMib::type() const {
  return typeDescription();
}

void IfMib::ifIndexByIntfIdIs(Plexa::IntfId intfId, std::uint32_t ifIndex) {
  if (auto const * present = ifIndexByIntfId_.find(intfId);
      present != nullptr && *present == ifIndex)
    return;
  ifIndexByIntfId_.insertOrReplace(intfId, ifIndex);
  notify(ifIndexByIntfIdAttribute(), intfId);
}
void IfMib::ifIndexByIntfIdDel(Plexa::IntfId intfId) {
  if (ifIndexByIntfId_.erase(intfId))
    notify(ifIndexByIntfIdAttribute(), intfId);
}

} // namespace IntfSnmp

namespace Ipsec::Ike {

namespace {
constexpr std::array<std::string_view, 8> stateNames{"none", "down",    "connecting", "ikeUp",
                                                     "up",   "unknown", "rekeying",   "closing"};

std::uint64_t revision = 1;

// The revision advances before the change: who looks while a record ends must find what is there
// then.
template <class Map, class Key, class T>
bool replaced(Map & map, Key const & key, Zel::Ptr<T> & value) {
  if (has(map, key, value))
    return false;
  ++revision;
  map.insertOrReplace(key, std::move(value));
  return true;
}
template <class Map, class Key>
bool removed(Map & map, Key const & key) {
  if (map.find(key) == nullptr)
    return false;
  ++revision;
  return map.erase(key);
}
} // namespace

std::uint64_t directoryRevision() {
  return revision;
}

std::string valueToStrep(ConnState state) {
  auto const number = static_cast<std::size_t>(state);
  return number < stateNames.size() ? std::string(stateNames[number]) : std::to_string(number);
}

std::optional<ConnState> connStateFromString(std::string_view text) {
  auto const found = std::find(stateNames.begin(), stateNames.end(), text);
  if (found == stateNames.end())
    return std::nullopt;
  return static_cast<ConnState>(found - stateNames.begin());
}

std::span<Zel::Attribute const> IpsecTunnelProfileInfo::fieldAttributes() {
  static constexpr auto attributes = Zel::attributesOfFields<IpsecTunnelProfileInfo>();
  return attributes;
}
Zel::Type const & IpsecTunnelProfileInfo::typeDescription() {
  static auto const type =
      typeOfRecord<IpsecTunnelProfileInfo>("Ipsec::Ike::IpsecTunnelProfileInfo");
  return type;
}
Zel::Type const & IpsecTunnelProfileInfo::type() const {
  return typeDescription();
}

Zel::Attribute const & IpsecProfileConnectionMap::appliedIntfIdAttribute() {
  return collectionAttribute<&IpsecProfileConnectionMap::appliedIntfId>("appliedIntfId");
}

IpsecProfileConnectionMap::IpsecProfileConnectionMap() {
  hasNotificationActiveIs(true);
}

Zel::Type const & IpsecProfileConnectionMap::typeDescription() {
  static std::array const attributes{&appliedIntfIdAttribute()};
  static Zel::Type const type{"Ipsec::Ike::IpsecProfileConnectionMap", attributes};
  return type;
}
Zel::Type const & IpsecProfileConnectionMap::type() const {
  return typeDescription();
}

void IpsecProfileConnectionMap::appliedIntfIdIs(Plexa::IntfId intfId,
                                                Zel::Ptr<IpsecTunnelProfileInfo> info) {
  if (replaced(appliedIntfId_, intfId, info))
    notify(appliedIntfIdAttribute(), intfId);
}
void IpsecProfileConnectionMap::appliedIntfIdDel(Plexa::IntfId intfId) {
  if (removed(appliedIntfId_, intfId))
    notify(appliedIntfIdAttribute(), intfId);
}

std::span<Zel::Attribute const> TunnelInfo::fieldAttributes() {
  static constexpr auto attributes = Zel::attributesOfFields<TunnelInfo>();
  return attributes;
}
Zel::Type const & TunnelInfo::typeDescription() {
  static auto const type = typeOfRecord<TunnelInfo>("Ipsec::Ike::TunnelInfo");
  return type;
}
Zel::Type const & TunnelInfo::type() const {
  return typeDescription();
}

void TunnelInfo::beforeChange() {
  ++revision;
}

Zel::Attribute const & Status::ipsecTunnelInfoAttribute() {
  return collectionAttribute<&Status::ipsecTunnelInfo>("ipsecTunnelInfo");
}
Zel::Attribute const & Status::appliedProfilesAttribute() {
  return collectionAttribute<&Status::appliedProfiles>("appliedProfiles");
}

Status::Status(std::string_view name) : Entity(name) {}

Zel::Type const & Status::typeDescription() {
  static std::array const attributes{&ipsecTunnelInfoAttribute(), &appliedProfilesAttribute()};
  static Zel::Type const type{"Ipsec::Ike::Status", attributes};
  return type;
}
Zel::Type const & Status::type() const {
  return typeDescription();
}

void Status::ipsecTunnelInfoIs(Plexa::IntfId intfId, Zel::Ptr<TunnelInfo> info) {
  if (replaced(ipsecTunnelInfo_, intfId, info))
    notify(ipsecTunnelInfoAttribute(), intfId);
}
void Status::ipsecTunnelInfoDel(Plexa::IntfId intfId) {
  if (removed(ipsecTunnelInfo_, intfId))
    notify(ipsecTunnelInfoAttribute(), intfId);
}
void Status::appliedProfilesIs(std::string const & profile,
                               Zel::Ptr<IpsecProfileConnectionMap> map) {
  if (replaced(appliedProfiles_, profile, map))
    notify(appliedProfilesAttribute(), profile);
}
void Status::appliedProfilesDel(std::string profile) {
  if (removed(appliedProfiles_, profile))
    notify(appliedProfilesAttribute(), profile);
}

} // namespace Ipsec::Ike

// What the framework is told when the library is loaded.
namespace {

std::array const interfaceTypes{&Interface::TunnelIntfStatus::typeDescription(),
                                &Interface::TunnelIntfStatusDir::typeDescription()};
constexpr std::array<std::string_view, 4> interfaceOutsideTypes{
    "Plexa::IntfId", "Plexa::IpGenAddr", "Plexa::TunnelIntfMode", collectionType};
Zel::Module const interfaceModule{"Interface", "ns-", interfaceTypes, interfaceOutsideTypes};
Zel::zelModuleIs const interfaceKnown(interfaceModule);

std::array const intfSnmpTypes{&IntfSnmp::IfMib::typeDescription()};
constexpr std::array intfSnmpOutsideTypes{collectionType};
Zel::Module const intfSnmpModule{"IntfSnmp", "ns-", intfSnmpTypes, intfSnmpOutsideTypes};
Zel::zelModuleIs const intfSnmpKnown(intfSnmpModule);

Zel::Type const connStateType{"Ipsec::Ike::ConnState", {}};
std::array const ipsecTypes{&connStateType, &Ipsec::Ike::IpsecTunnelProfileInfo::typeDescription(),
                            &Ipsec::Ike::IpsecProfileConnectionMap::typeDescription(),
                            &Ipsec::Ike::TunnelInfo::typeDescription(),
                            &Ipsec::Ike::Status::typeDescription()};
constexpr std::array ipsecOutsideTypes{collectionType};
Zel::Module const ipsecModule{"Ipsec", "ns-", ipsecTypes, ipsecOutsideTypes};
Zel::zelModuleIs const ipsecKnown(ipsecModule);

} // namespace
