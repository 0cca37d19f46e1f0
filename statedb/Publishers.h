// What the publishers of one state database share: the database, who else publishes, and the claims
// on single members.
#pragma once

#include "statedb/NotifieeFailed.h"
#include "statedb/StateDb.h"
#include <memory>

namespace StateDb {

/// One for a database; sources are given it to make their publishers from. The database outlives
/// it, and it outlives the publishers.
class Publishers {
public:
  /// `notifieeFailed`, if there is one, is called for each exception of a notifiee.
  explicit Publishers(StateDb & database, NotifieeFailed notifieeFailed = {});
  Publishers(Publishers const &) = delete;
  Publishers & operator=(Publishers const &) = delete;
  ~Publishers();

  StateDb & database() const { return database_; }
  NotifieeFailed const & notifieeFailed() const { return notifieeFailed_; }

private:
  friend class Publisher;
  class Arbitration;
  StateDb & database_;
  NotifieeFailed const notifieeFailed_;
  std::unique_ptr<Arbitration> const arbitration_;
};

} // namespace StateDb
