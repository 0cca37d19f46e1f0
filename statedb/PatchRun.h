// A JSON Patch (RFC 6902) on its way into the database, one operation at a time, so that a long one
// can be carried out in runs between which others work.
//
// First every operation is checked, in order, against the database as those before it would leave
// it; nothing is changed meanwhile. Then the changes are made, in order, each notification
// delivered before the next change. add and replace at a record's own path put a new record object
// there; replace (and add) of one member changes the record in place; remove deletes a record.
// move, copy and test as in RFC 6902. What costs time is the patch, not the size of the document.
//
// What was checked holds of one moment: when others change the database while the patch is being
// checked, the checks begin anew; after restartsMost times the rest of them is done in one step.
// While the changes are made others see the part of them that is there. What others remove then,
// under a change that needs it, counts as a failed notifiee (NotifieeFailed.h), and the rest goes
// on.
#pragma once

#include "statedb/DocumentError.h"
#include "statedb/NotifieeFailed.h"
#include "statedb/StateDb.h"
#include <memory>
#include <nlohmann/json_fwd.hpp>

namespace StateDb {

/// For one patch. The database and `notifieeFailed` outlive it. Where it ends before its last step,
/// what was changed stays changed.
class PatchRun {
public:
  static constexpr int restartsMost = 3;

  /// Raises DocumentError when the patch is no array.
  PatchRun(StateDb & database, nlohmann::json patch, NotifieeFailed const & notifieeFailed);
  PatchRun(PatchRun &&) noexcept;
  PatchRun & operator=(PatchRun &&) = delete;
  ~PatchRun();

  /// Goes one operation further: checks it, makes its change, or gives back what it took in memory.
  /// False when all is done. Raises DocumentError, with nothing changed, when the operation is
  /// unusable; the run is over then. Notifiees may not call it.
  bool step();
  /// Of a run that is over because step() has raised: the steps that follow only give back.
  void giveUp() noexcept;

private:
  struct State;
  bool checkNext();
  void beginChecks();
  bool makeNext();
  bool giveBackNext();

  std::unique_ptr<State> state_;
};

} // namespace StateDb
