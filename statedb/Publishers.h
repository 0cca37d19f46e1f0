// What the publishers of one state database share: the database, who else publishes, and the claims
// on single members.
#pragma once

#include "platform/Interface.h"
#include "statedb/Arbitration.h"
#include "statedb/NotifieeFailed.h"
#include "statedb/StateDb.h"
#include <vector>

namespace StateDb {

class Ledgers;

/// One for a database; sources are given it to make their publishers from. The database outlives
/// it, and it outlives the publishers.
class Publishers {
public:
  using StatusClaims = Arbitration<Plexa::IntfId, Interface::TunnelIntfStatusValues>;

  /// `notifieeFailed`, if there is one, is called for each exception of a notifiee.
  explicit Publishers(StateDb & database, NotifieeFailed notifieeFailed = {});
  Publishers(Publishers const &) = delete;
  Publishers & operator=(Publishers const &) = delete;

  StateDb & database() const { return database_; }
  NotifieeFailed const & notifieeFailed() const { return notifieeFailed_; }
  /// True if and only if a publisher has published a status under that id.
  bool publishesStatus(Plexa::IntfId intfId) const;
  /// The claims on statuses. For the publishers themselves.
  StatusClaims & statusClaims() { return statusClaims_; }

private:
  friend class Ledgers;
  StateDb & database_;
  NotifieeFailed const notifieeFailed_;
  StatusClaims statusClaims_;
  std::vector<Ledgers const *> ledgers_; // of the living publishers
};

} // namespace StateDb
