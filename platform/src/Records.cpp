// The input records: Interface, IntfSnmp and Ipsec.
#include "platform/Interface.h"
#include "platform/IntfSnmp.h"
#include "platform/Ipsec.h"
#include <array>

// What the records of every module do alike.
namespace {

constexpr std::string_view collectionType = "Zel::HashMap2018";

// Defines Class::nameAttribute(), read through Class::name().
#define DEFINE_ATTRIBUTE(Class, attributeName, attributeType)                                      \
  Zel::Attribute const & Class::attributeName##Attribute() {                                       \
    static Zel::Attribute const attribute{#attributeName, attributeType,                           \
                                          Zel::getBy<&Class::attributeName>};                      \
    return attribute;                                                                              \
  }

template <class Map, class Key, class T>
bool has(Map const & map, Key const & key, Zel::Ptr<T> const & value) {
  auto const * present = map.find(key);
  return present != nullptr && *present == value;
}

} // namespace

namespace Interface {

DEFINE_ATTRIBUTE(TunnelIntfStatus, srcAddr, "Plexa::IpGenAddr")
DEFINE_ATTRIBUTE(TunnelIntfStatus, dstAddr, "Plexa::IpGenAddr")
DEFINE_ATTRIBUTE(TunnelIntfStatus, mode, "Plexa::TunnelIntfMode")
DEFINE_ATTRIBUTE(TunnelIntfStatus, hopLimit, "U8")
DEFINE_ATTRIBUTE(TunnelIntfStatus, tos, "U8")
DEFINE_ATTRIBUTE(TunnelIntfStatus, ipsec, "bool")

TunnelIntfStatus::TunnelIntfStatus(Plexa::IntfId intfId) : intfId_(intfId) {
  hasNotificationActiveIs(true);
}

Zel::Type const & TunnelIntfStatus::type() const {
  static std::array const attributes{&srcAddrAttribute(),  &dstAddrAttribute(), &modeAttribute(),
                                     &hopLimitAttribute(), &tosAttribute(),     &ipsecAttribute()};
  static Zel::Type const type{"Interface::TunnelIntfStatus", attributes};
  return type;
}

template <class T>
void TunnelIntfStatus::store(T & member, T const & value, Zel::Attribute const & attribute) {
  if (member == value)
    return;
  member = value;
  notify(attribute);
}

void TunnelIntfStatus::srcAddrIs(Plexa::IpGenAddr const & srcAddr) {
  store(srcAddr_, srcAddr, srcAddrAttribute());
}
void TunnelIntfStatus::dstAddrIs(Plexa::IpGenAddr const & dstAddr) {
  store(dstAddr_, dstAddr, dstAddrAttribute());
}
void TunnelIntfStatus::modeIs(Plexa::TunnelIntfMode mode) {
  store(mode_, mode, modeAttribute());
}
void TunnelIntfStatus::hopLimitIs(std::uint8_t hopLimit) {
  store(hopLimit_, hopLimit, hopLimitAttribute());
}
void TunnelIntfStatus::tosIs(std::uint8_t tos) {
  store(tos_, tos, tosAttribute());
}
void TunnelIntfStatus::ipsecIs(bool ipsec) {
  store(ipsec_, ipsec, ipsecAttribute());
}

DEFINE_ATTRIBUTE(TunnelIntfStatusDir, intfStatus, collectionType)

TunnelIntfStatusDir::TunnelIntfStatusDir(std::string_view name) : Entity(name) {}

Zel::Type const & TunnelIntfStatusDir::type() const {
  static std::array const attributes{&intfStatusAttribute()};
  static Zel::Type const type{"Interface::TunnelIntfStatusDir", attributes};
  return type;
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

DEFINE_ATTRIBUTE(IfMib, ifIndexByIntfId, collectionType)

IfMib::IfMib(std::string_view name) : Entity(name) {}

Zel::Type const & IfMib::type() const {
  static std::array const attributes{&ifIndexByIntfIdAttribute()};
  static Zel::Type const type{"IntfSnmp::IfMib", attributes};
  return type;
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

template <class Map, class Key, class T>
bool replaced(Map & map, Key const & key, Zel::Ptr<T> & value) {
  if (has(map, key, value))
    return false;
  map.insertOrReplace(key, std::move(value));
  return true;
}
} // namespace

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

DEFINE_ATTRIBUTE(IpsecTunnelProfileInfo, connState, "Ipsec::Ike::ConnState")

IpsecTunnelProfileInfo::IpsecTunnelProfileInfo() {
  hasNotificationActiveIs(true);
}

Zel::Type const & IpsecTunnelProfileInfo::type() const {
  static std::array const attributes{&connStateAttribute()};
  static Zel::Type const type{"Ipsec::Ike::IpsecTunnelProfileInfo", attributes};
  return type;
}

void IpsecTunnelProfileInfo::connStateIs(ConnState state) {
  if (connState_ == state)
    return;
  connState_ = state;
  notify(connStateAttribute());
}

DEFINE_ATTRIBUTE(IpsecProfileConnectionMap, appliedIntfId, collectionType)

IpsecProfileConnectionMap::IpsecProfileConnectionMap() {
  hasNotificationActiveIs(true);
}

Zel::Type const & IpsecProfileConnectionMap::type() const {
  static std::array const attributes{&appliedIntfIdAttribute()};
  static Zel::Type const type{"Ipsec::Ike::IpsecProfileConnectionMap", attributes};
  return type;
}

void IpsecProfileConnectionMap::appliedIntfIdIs(Plexa::IntfId intfId,
                                                Zel::Ptr<IpsecTunnelProfileInfo> info) {
  if (replaced(appliedIntfId_, intfId, info))
    notify(appliedIntfIdAttribute(), intfId);
}
void IpsecProfileConnectionMap::appliedIntfIdDel(Plexa::IntfId intfId) {
  if (appliedIntfId_.erase(intfId))
    notify(appliedIntfIdAttribute(), intfId);
}

DEFINE_ATTRIBUTE(TunnelInfo, profileName, "String")

TunnelInfo::TunnelInfo() {
  hasNotificationActiveIs(true);
}

Zel::Type const & TunnelInfo::type() const {
  static std::array const attributes{&profileNameAttribute()};
  static Zel::Type const type{"Ipsec::Ike::TunnelInfo", attributes};
  return type;
}

void TunnelInfo::profileNameIs(std::string_view profileName) {
  if (profileName_ == profileName)
    return;
  profileName_ = profileName;
  notify(profileNameAttribute());
}

DEFINE_ATTRIBUTE(Status, ipsecTunnelInfo, collectionType)
DEFINE_ATTRIBUTE(Status, appliedProfiles, collectionType)

Status::Status(std::string_view name) : Entity(name) {}

Zel::Type const & Status::type() const {
  static std::array const attributes{&ipsecTunnelInfoAttribute(), &appliedProfilesAttribute()};
  static Zel::Type const type{"Ipsec::Ike::Status", attributes};
  return type;
}

void Status::ipsecTunnelInfoIs(Plexa::IntfId intfId, Zel::Ptr<TunnelInfo> info) {
  if (replaced(ipsecTunnelInfo_, intfId, info))
    notify(ipsecTunnelInfoAttribute(), intfId);
}
void Status::ipsecTunnelInfoDel(Plexa::IntfId intfId) {
  if (ipsecTunnelInfo_.erase(intfId))
    notify(ipsecTunnelInfoAttribute(), intfId);
}
void Status::appliedProfilesIs(std::string const & profile,
                               Zel::Ptr<IpsecProfileConnectionMap> map) {
  if (replaced(appliedProfiles_, profile, map))
    notify(appliedProfilesAttribute(), profile);
}
void Status::appliedProfilesDel(std::string profile) {
  if (appliedProfiles_.erase(profile))
    notify(appliedProfilesAttribute(), profile);
}

} // namespace Ipsec::Ike
