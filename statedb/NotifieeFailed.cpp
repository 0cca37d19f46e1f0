// Counting and reporting what notifiees of the inputs raise.
#include "statedb/NotifieeFailed.h"
#include "platform/Lumo.h"

namespace StateDb {

namespace {
Lumo::Counter notifieeExceptions("statedb-notifiee-exceptions");
Lumo::Counter changes("statedb-changes");
} // namespace

void notifieeFailed(NotifieeFailed const & report, std::string_view pointer,
                    std::exception const & exception) {
  notifieeExceptions.inc();
  if (report)
    report(pointer, exception);
}

std::uint64_t changesMade() {
  return changes.count();
}
void countChange() {
  changes.inc();
}

} // namespace StateDb
