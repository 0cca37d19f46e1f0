// The cooperative task scheduler.
#include "platform/Kiln.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <new>

namespace Kiln {

TaskScheduler::TaskScheduler(Clock clock, std::chrono::microseconds share)
    : clock_(std::move(clock)),
      share_(share) {}
TaskScheduler::~TaskScheduler() = default;

Zel::Type const & TaskScheduler::type() const {
  static Zel::Type const type{"Kiln::TaskScheduler", {}, nullptr};
  return type;
}

bool TaskScheduler::runOne() {
  LUMO_ASSERT(!running_, "a task runs inside another run");
  if (queues_.empty())
    return false;
  auto const mostUrgent = queues_.begin();
  running_ = Zel::Ptr<Task>(takeNext(mostUrgent->second));
  if (mostUrgent->second.empty())
    queues_.erase(mostUrgent);
  struct RunEnd {
    TaskScheduler & scheduler;
    ~RunEnd() { scheduler.running_ = nullptr; }
  } const runEnd{*this};
  ++runs_;
  scheduledByRun_ = 0;
  shareIsUsed_ = false;
  asksToSkip_ = 0;
  runBegan_ = lastLook_ = clock_();
  running_->run();
  return true;
}

std::size_t TaskScheduler::scheduled() const {
  std::size_t count = 0;
  for (auto const & [priority, queue] : queues_)
    count += queue.size();
  return count;
}

bool TaskScheduler::shouldYield(Task const &) const {
  if (!running_ || shareIsUsed_)
    return true;
  if (asksToSkip_ != 0) {
    --asksToSkip_;
    return false;
  }
  auto const now = clock_();
  asksToSkip_ = now - lastLook_ < share_ / looksAShare ? asksPerLook - 1 : 0;
  lastLook_ = now;
  return shareIsUsed_ = now - runBegan_ >= share_;
}

Task * TaskScheduler::takeNext(std::deque<Task *> & equals) {
  auto * next = equals.front();
  equals.pop_front();
  return next;
}

void TaskScheduler::schedule(Task & task) {
  auto const queue = queues_.try_emplace(task.priority()).first;
  auto & equals = queue->second;
  auto const isEqual = isRunningsEqual(task);
  try {
    equals.insert(isEqual ? equals.begin() + scheduledByRun_ : equals.end(), &task);
  } catch (std::bad_alloc const &) {
    if (equals.empty())
      queues_.erase(queue);
    throw;
  }
  scheduledByRun_ += isEqual ? 1 : 0;
  task.scheduled_ = true;
}

void TaskScheduler::forget(Task const & task) {
  std::erase(tasks_, &task);
  if (auto const queue = queues_.find(task.priority()); queue != queues_.end()) {
    auto & equals = queue->second;
    if (auto const place = std::find(equals.begin(), equals.end(), &task); place != equals.end()) {
      if (isRunningsEqual(task) && place - equals.begin() < scheduledByRun_)
        --scheduledByRun_;
      equals.erase(place);
    }
    if (equals.empty())
      queues_.erase(queue);
  }
}

bool TaskScheduler::isRunningsEqual(Task const & task) const {
  return running_ && running_->priority() == task.priority();
}

namespace {
Zel::Ptr<TaskScheduler> const & notNull(Zel::Ptr<TaskScheduler> const & scheduler) {
  LUMO_ASSERT(scheduler, "a task needs a scheduler");
  return scheduler;
}
} // namespace

Task::Task(Zel::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string_view name)
    : scheduler_(notNull(scheduler)),
      priority_(priority),
      name_(name) {
  hasNotificationActiveIs(true);
  scheduler_->tasks_.push_back(this);
}

Task::~Task() {
  scheduler_->forget(*this);
}

Zel::Type const & Task::type() const {
  static Zel::Attribute const * const attributes[] = {&runAttribute()};
  static Zel::Type const type{"Kiln::Task", attributes, nullptr};
  return type;
}

Zel::Attribute const & Task::runAttribute() {
  static Zel::Attribute const attribute{"run", "bool"};
  return attribute;
}

void Task::scheduleTask() {
  if (!scheduled_)
    scheduler_->schedule(*this);
}

bool Task::taskShouldYield() const {
  return scheduler_->shouldYield(*this);
}

bool Task::taskCurrentlyRunning() const {
  return scheduler_->running() == this;
}

void Task::run() {
  scheduled_ = false;
  ++runs_;
  notify(runAttribute());
}

namespace {
Zel::Ptr<TaskScheduler> & defaultScheduler() {
  static Zel::Ptr<TaskScheduler> scheduler;
  return scheduler;
}
} // namespace

Zel::Ptr<TaskScheduler> TaskSchedulerRoot::findOrCreateScheduler() {
  if (!defaultScheduler())
    defaultScheduler() = Zel::makePtr<TaskScheduler>();
  return defaultScheduler();
}

void TaskSchedulerRoot::schedulerIs(Zel::Ptr<TaskScheduler> scheduler) {
  defaultScheduler() = std::move(scheduler);
}

} // namespace Kiln
