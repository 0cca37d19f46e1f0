// What is found goes into the ledgers, for as long as the read is the publisher's latest.
#include "statedb/FullRead.h"
#include "statedb/Ledgers.h"
#include <utility>

namespace StateDb {

FullRead::FullRead(std::shared_ptr<Ledgers> ledgers)
    : ledgers_(std::move(ledgers)),
      read_(ledgers_->beginRead()) {}
FullRead::FullRead(FullRead &&) noexcept = default;
FullRead & FullRead::operator=(FullRead && other) noexcept {
  if (this != &other) {
    drop();
    ledgers_ = std::move(other.ledgers_);
    read_ = other.read_;
  }
  return *this;
}
FullRead::~FullRead() {
  drop();
}

void FullRead::tunnelIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Status const & status,
                        Kind kind) {
  ifIndexIs(intfId, ifIndex, kind);
  statusIs(intfId, status, kind);
}
void FullRead::statusIs(Plexa::IntfId intfId, std::optional<Status> const & status, Kind kind) {
  if (auto * into = ledgers())
    into->statuses.found(intfId, status, kind);
}
void FullRead::ifIndexIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Kind kind) {
  if (auto * into = ledgers())
    into->ifIndexes.found(intfId, ifIndex, kind);
}
void FullRead::tunnelInfoIs(Plexa::IntfId intfId, std::optional<TunnelInfo> const & info) {
  if (auto * into = ledgers())
    into->tunnelInfos.found(intfId, info);
}
void FullRead::profileIs(std::string const & profile) {
  if (auto * into = ledgers())
    into->profiles.found(profile, ProfilePlace::Value::record);
}
void FullRead::nullProfileIs(std::string const & profile) {
  if (auto * into = ledgers())
    into->profiles.found(profile, ProfilePlace::Value::null);
}
void FullRead::connectionIs(std::string const & profile, Plexa::IntfId intfId,
                            std::optional<Connection> const & connection) {
  if (auto * into = ledgers())
    into->foundConnection({profile, intfId}, connection);
}
void FullRead::statusClaimIs(Plexa::IntfId intfId, Claim<Status> const & claim) {
  if (auto * into = ledgers(); into != nullptr && claim.fields() != 0)
    into->statusClaims.found(intfId, claim);
}

void FullRead::tunnelStays(Plexa::IntfId intfId) {
  if (auto * into = ledgers()) {
    into->statuses.stays(intfId);
    into->ifIndexes.stays(intfId);
  }
}
void FullRead::restStays() {
  if (auto * into = ledgers())
    into->restStays();
}

void FullRead::commit(Pace pace, std::function<void()> done, Failed failed) && {
  auto * const into = ledgers();
  auto const keep = std::exchange(ledgers_, nullptr);
  if (into == nullptr)
    return;
  if (pace == Pace::atOnce)
    into->commit(std::move(done), std::move(failed));
  else
    into->commitInRuns(std::move(done), std::move(failed));
}

Ledgers * FullRead::ledgers() const {
  return ledgers_ && ledgers_->isReading(read_) ? ledgers_.get() : nullptr;
}

void FullRead::drop() {
  if (auto * const from = ledgers())
    from->drop();
}

} // namespace StateDb
