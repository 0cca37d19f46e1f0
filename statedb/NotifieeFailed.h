// What becomes of an exception that a notifiee of an input raises: it is counted and reported. The
// change stands, and further changes follow.
#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>

namespace StateDb {

/// Called for each exception that a notifiee raised while a change was told. The pointer leads to
/// what was changed in the document.
using NotifieeFailed = std::function<void(std::string_view pointer, std::exception const &)>;

/// Counts the exception ("statedb-notifiee-exceptions") and calls `report` if there is one.
void notifieeFailed(NotifieeFailed const & report, std::string_view pointer,
                    std::exception const & exception);

/// Makes a change. What notifiees raise is counted and reported with the text that `pointer` gives.
template <class Change, class Pointer>
void makeChange(NotifieeFailed const & report, Change const & make, Pointer const & pointer) {
  try {
    make();
  } catch (std::exception const & exception) {
    notifieeFailed(report, pointer(), exception);
  }
}

} // namespace StateDb
