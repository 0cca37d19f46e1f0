// How a change of an input is made: it is counted, and so is an exception that a notifiee raises,
// which is reported as well. The change stands, and further changes follow.
#pragma once

#include "platform/Zel.h"
#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <string_view>

namespace StateDb {

/// Called for each exception that a notifiee raised while a change was told. The pointer leads to
/// what was changed in the document.
using NotifieeFailed = std::function<void(std::string_view pointer, std::exception const &)>;

/// Counts the exception ("statedb-notifiee-exceptions") and calls `report` if there is one.
void notifieeFailed(NotifieeFailed const & report, std::string_view pointer,
                    std::exception const & exception);

/// How many changes makeChange() has begun, in whichever database: while it stays the same, nothing
/// was changed.
std::uint64_t changesMade();
void countChange();

/// Makes a change, and counts it ("statedb-changes"). What notifiees raise is counted and reported
/// with the text that `pointer` gives. Raises std::bad_alloc, which is no
/// notifiee's own affair: nobody knows whether the change was made or heard of.
template <class Change, class Pointer>
void makeChange(NotifieeFailed const & report, Change const & make, Pointer const & pointer) {
  countChange();
  try {
    make();
  } catch (std::bad_alloc const & exception) {
    notifieeFailed(report, Zel::wordsOf(pointer), exception);
    throw;
  } catch (std::exception const & exception) {
    notifieeFailed(report, pointer(), exception);
  }
}

} // namespace StateDb
