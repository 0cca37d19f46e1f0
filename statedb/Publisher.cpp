// Which ledger takes what a source publishes.
#include "statedb/Publisher.h"
#include "statedb/Ledgers.h"

namespace StateDb {

Publisher::Publisher(Publishers & publishers) : ledgers_(std::make_shared<Ledgers>(publishers)) {}
Publisher::~Publisher() {
  ledgers_->end();
}

void Publisher::tunnelIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Status const & status,
                         Kind kind) {
  ledgers_->tunnelIs(intfId, ifIndex, status, kind);
}
void Publisher::tunnelDel(Plexa::IntfId intfId) {
  ledgers_->tunnelDel(intfId);
}

void Publisher::statusIs(Plexa::IntfId intfId, std::optional<Status> const & status, Kind kind) {
  ledgers_->statuses.is(intfId, status, kind);
}
void Publisher::statusDel(Plexa::IntfId intfId) {
  ledgers_->statuses.del(intfId);
}
void Publisher::ifIndexIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Kind kind) {
  ledgers_->ifIndexes.is(intfId, ifIndex, kind);
}
void Publisher::ifIndexDel(Plexa::IntfId intfId) {
  ledgers_->ifIndexes.del(intfId);
}
void Publisher::tunnelInfoIs(Plexa::IntfId intfId, std::optional<TunnelInfo> const & info) {
  ledgers_->tunnelInfos.is(intfId, info);
}
void Publisher::tunnelInfoDel(Plexa::IntfId intfId) {
  ledgers_->tunnelInfos.del(intfId);
}

void Publisher::profileIs(std::string const & profile) {
  ledgers_->profiles.is(profile, ProfilePlace::Value::record);
}
void Publisher::nullProfileIs(std::string const & profile) {
  ledgers_->nullProfileIs(profile);
}
void Publisher::profileDel(std::string const & profile) {
  ledgers_->profileDel(profile);
}
void Publisher::connectionIs(std::string const & profile, Plexa::IntfId intfId,
                             std::optional<Connection> const & connection) {
  ledgers_->connectionIs({profile, intfId}, connection);
}
void Publisher::connectionDel(std::string const & profile, Plexa::IntfId intfId) {
  ledgers_->connections.del({profile, intfId});
}

void Publisher::statusClaimIs(Plexa::IntfId intfId, Claim<Status> const & claim) {
  if (claim.fields() == 0)
    ledgers_->statusClaims.del(intfId);
  else
    ledgers_->statusClaims.is(intfId, claim);
}
void Publisher::statusClaimDel(Plexa::IntfId intfId) {
  ledgers_->statusClaims.del(intfId);
}

FullRead Publisher::beginFullRead() {
  return FullRead(ledgers_);
}

Publisher::Counts Publisher::counts() const {
  return {ledgers_->statuses.size(), ledgers_->ifIndexes.size(),   ledgers_->tunnelInfos.size(),
          ledgers_->profiles.size(), ledgers_->connections.size(), ledgers_->statusClaims.size()};
}
std::uint64_t Publisher::changes() const {
  return ledgers_->changes();
}
bool Publisher::isCommitting() const {
  return ledgers_->isCommitting();
}

} // namespace StateDb
