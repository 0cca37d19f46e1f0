// Counting and reporting what notifiees of the inputs raise.
#include "statedb/NotifieeFailed.h"
#include "platform/Lumo.h"

namespace StateDb {

namespace {
Lumo::Counter notifieeExceptions("statedb-notifiee-exceptions");
} // namespace

void notifieeFailed(NotifieeFailed const & report, std::string_view pointer,
                    std::exception const & exception) {
  notifieeExceptions.inc();
  if (report)
    report(pointer, exception);
}

} // namespace StateDb
