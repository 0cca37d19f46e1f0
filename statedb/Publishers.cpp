// Who publishes.
#include "statedb/Publishers.h"
#include "statedb/Ledgers.h"
#include <algorithm>

namespace StateDb {

Publishers::Publishers(StateDb & database, NotifieeFailed notifieeFailed)
    : database_(database),
      notifieeFailed_(std::move(notifieeFailed)) {}

bool Publishers::publishesStatus(Plexa::IntfId intfId) const {
  return std::ranges::any_of(ledgers_,
                             [&](auto const * ledgers) { return ledgers->statuses.owns(intfId); });
}

} // namespace StateDb
