// Steps of some microseconds, each by itself.
#include "sources/linux/LinkWork.h"
#include <utility>

namespace Sources::Linux {
namespace {

/// As urgent as what publishers do.
constexpr Kiln::TaskPriority priority = 3;
/// A millisecond's work, about.
constexpr int looksAtOnce = 256;

} // namespace

LinkWork::LinkWork(std::string_view name, Owner & owner)
    : owner_(owner),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), priority,
                                     name)),
      run_(Zel::makePtr<Run>(*this, &LinkWork::run, task_.get())) {}

// A reading that makes this void looks at all links in its end.
void LinkWork::allAreConcerned() {
  isLookingAtAll_ = true;
  lookedAt_.reset();
  task_->scheduleTask();
}

// The end of a reading is none of this: it may begin another one, which must not happen while an
// event is being received.
void LinkWork::begin() {
  for (int i = 0; i != looksAtOnce; ++i)
    if (!lookAtOneConcerned())
      return;
  task_->scheduleTask();
}

void LinkWork::readingEnds(bool forgets, Pace pace) {
  isForgetting_ = forgets;
  isLookingAtAll_ = true;
  lookedAt_.reset();
  isEnding_ = true;
  if (pace == Pace::inRuns)
    return task_->scheduleTask();
  while (step()) {
  }
}

void LinkWork::readingIsVoid() {
  isForgetting_ = false;
  isLookingAtAll_ = false;
  isEnding_ = false;
}

void LinkWork::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  try {
    while (step())
      if (task_->taskShouldYield())
        return task_->scheduleTask();
  } catch (std::exception const & exception) {
    owner_.workFailed(exception);
  }
}

/// False when there is nothing left to do.
bool LinkWork::step() {
  if (isForgetting_) {
    isForgetting_ = owner_.forgetOne();
    return true;
  }
  if (lookAtOneConcerned() || lookAtNext())
    return true;
  if (std::exchange(isEnding_, false))
    owner_.workIsDone();
  return false;
}

bool LinkWork::lookAtOneConcerned() {
  if (concerned_.empty())
    return false;
  auto const intfId = *concerned_.begin();
  owner_.look(intfId);
  concerned_.erase(intfId);
  return true;
}

bool LinkWork::lookAtNext() {
  if (!isLookingAtAll_)
    return false;
  lookedAt_ = owner_.nextLink(lookedAt_);
  isLookingAtAll_ = lookedAt_.has_value();
  if (lookedAt_)
    owner_.look(*lookedAt_);
  return isLookingAtAll_;
}

} // namespace Sources::Linux
