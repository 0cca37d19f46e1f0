// Patches of the state database on their way: one after the other, each in runs of a task, so that
// a long one lets everything else work in between.
//
// A short one is done before begin() returns, unless another is under way. One that was begun is
// carried out to its end, whether or not its client still waits for it.
#pragma once

#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "statedb/StateDocument.h"
#include <deque>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace Agent {

/// What came of a patch: the reason why nothing was changed, empty when all is; nothing while it is
/// under way. When memory ran out in the middle, what came before is changed.
using PatchOutcome = std::optional<std::string>;

/// Life cycle: the document outlives it. Its end leaves what was changed until then.
class Patches {
public:
  /// Steps that are done at once (StateDb::PatchRun): less than half a millisecond.
  static constexpr int stepsAtOnce = 300;

  explicit Patches(StateDb::StateDocument & document);
  Patches(Patches const &) = delete;
  Patches & operator=(Patches const &) = delete;
  ~Patches();

  /// Begins to carry the patch out, after those before it.
  std::shared_ptr<PatchOutcome const> begin(nlohmann::json patch);

private:
  using Run = Flowa::Gen::InReactor<Patches>;
  struct Waiting;

  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  template <class MayGoOn>
  bool goOn(MayGoOn mayGoOn);

  StateDb::StateDocument & document_;
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Run> const run_;
  std::deque<Waiting> waiting_; // the first one is under way
};

} // namespace Agent
