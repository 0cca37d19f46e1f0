// A queue, and what leads its first patch step by step.
#include "agent/Patches.h"
#include <nlohmann/json.hpp>
#include <utility>

namespace Agent {

namespace {

/// As urgent as what sources read: what is known already is served before more is known.
constexpr Kiln::TaskPriority patchPriority = 4;

} // namespace

struct Patches::Waiting {
  StateDb::PatchRun patch;
  std::shared_ptr<PatchOutcome> outcome;
};

Patches::Patches(StateDb::StateDocument & document)
    : document_(document),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(),
                                     patchPriority, "patch")),
      run_(Zel::makePtr<Run>(*this, &Patches::run, task_.get())) {}

Patches::~Patches() {
  run_->ownerDeletedIs();
}

std::shared_ptr<PatchOutcome const> Patches::begin(nlohmann::json patch) {
  auto outcome = std::make_shared<PatchOutcome>();
  waiting_.push_back({document_.begin(std::move(patch)), outcome});
  if (waiting_.size() == 1 && goOn([steps = stepsAtOnce]() mutable { return --steps != 0; }))
    task_->scheduleTask();
  return outcome;
}

void Patches::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  auto const mayGoOn = [this] {
    task_->taskWorkCountInc(1);
    return !task_->taskShouldYield();
  };
  if (goOn(mayGoOn))
    task_->scheduleTask();
}

// True if and only if there is more to do.
template <class MayGoOn>
bool Patches::goOn(MayGoOn mayGoOn) {
  while (!waiting_.empty()) {
    auto & [patch, outcome] = waiting_.front();
    try {
      while (patch.step())
        if (!mayGoOn())
          return true;
    } catch (std::exception const & reason) {
      *outcome = reason.what();
      patch.giveUp(); // to destroy a long one at once would take as long as to make it
      continue;
    }
    if (!*outcome)
      *outcome = "";
    waiting_.pop_front();
  }
  return false;
}

} // namespace Agent
