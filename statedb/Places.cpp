// Each collection of the database: comparing, putting, removing, and where it is in the document.
#include "statedb/Places.h"
#include "statedb/Codec.h"
#include <fmt/format.h>

namespace StateDb {

namespace {

std::string pointerTo(Zel::Entity const & entity, Zel::Attribute const & collection,
                      std::string_view key) {
  return fmt::format("/{}/{}/{}", entity.name(), collection.name, escaped(key));
}

} // namespace

StatusPlace::StatusPlace(Publishers & publishers)
    : directory_(*publishers.database().tunnelIntfStatusDir()),
      claims_(publishers.statusClaims()) {}

bool StatusPlace::isSo(Key key, Value const & value) const {
  if (!claims_.isClaimed(key) || !value)
    return Statuses::isSo(directory_, key, value);
  return claims_.published(key) == value &&
         Statuses::isSo(directory_, key, claims_.ruling(key, *value));
}

void StatusPlace::put(Key key, Value const & value) {
  claims_.publishedIs(key, value);
  Statuses::put(directory_, key, value ? claims_.ruling(key, *value) : value);
}

void StatusPlace::remove(Key key) {
  claims_.publishedIs(key, std::nullopt);
  Statuses::remove(directory_, key);
}

std::string StatusPlace::pointer(Key key) const {
  return pointerTo(directory_, directory_.intfStatusAttribute(), key.stringValue());
}

IfIndexPlace::IfIndexPlace(Publishers & publishers) : ifMib_(*publishers.database().ifMib()) {}

bool IfIndexPlace::isSo(Key key, Value ifIndex) const {
  auto const * present = ifMib_.ifIndexByIntfId().find(key);
  return present != nullptr && *present == ifIndex;
}

std::string IfIndexPlace::pointer(Key key) const {
  return pointerTo(ifMib_, ifMib_.ifIndexByIntfIdAttribute(), key.stringValue());
}

TunnelInfoPlace::TunnelInfoPlace(Publishers & publishers)
    : ike_(*publishers.database().ikeStatus()) {}

std::string TunnelInfoPlace::pointer(Key key) const {
  return pointerTo(ike_, ike_.ipsecTunnelInfoAttribute(), key.stringValue());
}

ProfilePlace::ProfilePlace(Publishers & publishers) : ike_(*publishers.database().ikeStatus()) {}

bool ProfilePlace::isSo(Key const & profile, Value value) const {
  auto const * present = ike_.appliedProfiles().find(profile);
  return present != nullptr && (*present == nullptr) == (value == Value::null);
}

bool ProfilePlace::isThere(Key const & profile) const {
  return ike_.appliedProfiles().find(profile) != nullptr;
}

// Is called only when isSo() is false, so a profile that is there as a record is never replaced by
// another record, and keeps its connections.
void ProfilePlace::put(Key const & profile, Value value) {
  ike_.appliedProfilesIs(profile, value == Value::null
                                      ? nullptr
                                      : Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>());
}

std::string ProfilePlace::pointer(Key const & profile) const {
  return pointerTo(ike_, ike_.appliedProfilesAttribute(), profile);
}

ConnectionPlace::ConnectionPlace(Publishers & publishers)
    : ike_(*publishers.database().ikeStatus()) {}

bool ConnectionPlace::isSo(Key const & key, Value const & value) const {
  auto const present = connections(key.profile);
  return present && Connections::isSo(*present, key.intfId, value);
}

bool ConnectionPlace::isThere(Key const & key) const {
  auto const present = connections(key.profile);
  return present && Connections::find(*present, key.intfId) != nullptr;
}

void ConnectionPlace::put(Key const & key, Value const & value) {
  auto present = connections(key.profile);
  if (!present) {
    present = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
    Connections::put(*present, key.intfId, value); // nobody listens to it yet
    ike_.appliedProfilesIs(key.profile, present);
    return;
  }
  Connections::put(*present, key.intfId, value);
}

void ConnectionPlace::remove(Key const & key) {
  if (auto const present = connections(key.profile))
    Connections::remove(*present, key.intfId);
}

std::string ConnectionPlace::pointer(Key const & key) const {
  return fmt::format("{}/{}/{}", pointerTo(ike_, ike_.appliedProfilesAttribute(), key.profile),
                     Ipsec::Ike::IpsecProfileConnectionMap::appliedIntfIdAttribute().name,
                     key.intfId);
}

/// Null when there is no record for the profile.
Zel::Ptr<Ipsec::Ike::IpsecProfileConnectionMap>
ConnectionPlace::connections(std::string const & profile) const {
  auto const * present = ike_.appliedProfiles().find(profile);
  return present != nullptr ? *present : nullptr;
}

StatusClaimPlace::StatusClaimPlace(Publishers & publishers, void const * claimant)
    : publishers_(publishers),
      directory_(*publishers.database().tunnelIntfStatusDir()),
      claims_(publishers.statusClaims()),
      claimant_(claimant) {}

bool StatusClaimPlace::isSo(Key key, Value const & claim) const {
  auto const * held = claims_.find(claimant_, key);
  if (held == nullptr || !(*held == claim))
    return false;
  auto const & published = claims_.published(key);
  auto const record = Statuses::record(directory_, key);
  if (!published || !record || !publishers_.publishesStatus(key))
    return true;
  auto const ruling = claims_.ruling(key, *published);
  return (Zel::differingFields(record->values(), ruling) & claim.fields()) == 0;
}

void StatusClaimPlace::put(Key key, Value const & claim) {
  auto const * before = claims_.find(claimant_, key);
  auto const fields = claim.fields() | (before != nullptr ? before->fields() : 0);
  auto const record = Statuses::record(directory_, key);
  auto const isPublished = record && publishers_.publishesStatus(key);
  claims_.claimIs(claimant_, key, claim,
                  isPublished ? Statuses::Value(record->values()) : std::nullopt);
  apply(key, fields, claims_.published(key));
}

void StatusClaimPlace::remove(Key key) {
  auto const fields = claims_.find(claimant_, key)->fields();
  auto const published = claims_.published(key); // a copy: the last claim takes it along
  claims_.claimDel(claimant_, key);
  apply(key, fields, published);
}

std::string StatusClaimPlace::pointer(Key key) const {
  return pointerTo(directory_, directory_.intfStatusAttribute(), key.stringValue());
}

// Gives these members of the record their claimed values, and those that nobody claims any more the
// values that were published.
void StatusClaimPlace::apply(Key key, Zel::FieldSet fields, Statuses::Value const & published) {
  auto const record = Statuses::record(directory_, key);
  if (!published || !record || !publishers_.publishesStatus(key))
    return;
  auto values = record->values();
  Zel::copyFields(values, claims_.ruling(key, *published), fields);
  record->valuesIs(values);
}

} // namespace StateDb
