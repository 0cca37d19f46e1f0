// A task of the default scheduler.
#include "sources/linux/Runs.h"
#include <utility>

namespace Sources::Linux {
namespace {

/// As urgent as what publishers do.
constexpr Kiln::TaskPriority priority = 3;
/// A millisecond's work, about.
constexpr int stepsAtOnce = 256;

} // namespace

Runs::Runs(std::string_view name, Step step, Failed failed)
    : step_(std::move(step)),
      failed_(std::move(failed)),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), priority,
                                     name)),
      run_(Zel::makePtr<Run>(*this, &Runs::run, task_.get())) {}

void Runs::begin() {
  for (int i = 0; i != stepsAtOnce; ++i)
    if (!step_())
      return;
  task_->scheduleTask();
}

void Runs::finish() {
  while (step_()) {
  }
}

void Runs::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  try {
    while (step_())
      if (task_->taskShouldYield())
        return task_->scheduleTask();
  } catch (std::exception const & exception) {
    failed_(exception);
  }
}

} // namespace Sources::Linux
