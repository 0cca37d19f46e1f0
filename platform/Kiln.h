// Kiln, the cooperative task scheduler: what is long is cut into runs, and between two runs the
// host serves its other work. One thread; a task is never run from inside another run.
#pragma once

#include "platform/Zel.h"
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Kiln {

/// 0 is the most urgent.
using TaskPriority = std::uint8_t;
using Clock = std::function<std::chrono::steady_clock::time_point()>;

class Task;

/// Runs tasks by priority, and among equals in the order in which they were scheduled; but what a
/// run schedules, itself included, comes before the equals that wait already: work that was begun
/// is finished before other work begins.
///
/// A host calls runOne() while scheduled() says that something waits, serving its other work
/// between two calls; it asks after everything that may have scheduled a task. Life cycle: lives as
/// long as a task or anyone else holds it.
class TaskScheduler : public Zel::PtrInterface {
public:
  static constexpr std::chrono::microseconds defaultShare{5000};

  /// `share` is how long one run may take before it is asked to yield.
  explicit TaskScheduler(Clock clock = std::chrono::steady_clock::now,
                         std::chrono::microseconds share = defaultShare);
  ~TaskScheduler() override;
  Zel::Type const & type() const override;

  /// Runs the first scheduled task once. True if and only if there was one. What the task throws
  /// comes out of here; the scheduler is then ready for the next run. Requires: no run is under
  /// way.
  bool runOne();
  /// Tasks waiting to run.
  std::size_t scheduled() const;
  /// The task that is running, or null.
  Task const * running() const { return running_.get(); }
  std::chrono::microseconds share() const { return share_; }
  /// Runs done so far.
  std::uint64_t runs() const { return runs_; }
  /// Every living task of this scheduler, in order of creation.
  std::vector<Task const *> tasks() const { return tasks_; }

protected:
  /// True if and only if the work that `task` asks for should stop soon. By default: when the
  /// running task has used its share, and always outside any run, where nobody has a share. Once
  /// true, it stays so to the end of the run.
  virtual bool shouldYield(Task const & task) const;
  /// Takes the next task to run out of the scheduled ones of the most urgent priority.
  virtual Task * takeNext(std::deque<Task *> & equals);

private:
  friend class Task;
  void schedule(Task & task);
  void forget(Task const & task);
  bool isRunningsEqual(Task const & task) const;

  Clock const clock_;
  std::chrono::microseconds const share_;
  std::map<TaskPriority, std::deque<Task *>> queues_; // no empty one
  std::vector<Task const *> tasks_;
  Zel::Ptr<Task> running_;
  std::ptrdiff_t scheduledByRun_ = 0; // equals of the running task, at the front of their queue
  std::chrono::steady_clock::time_point runBegan_;
  // Reading the clock for each ask would take a tenth of a scan. While what is done between two
  // looks takes less than a 32nd of the share, only each eighth ask looks.
  static constexpr std::uint32_t asksPerLook = 8;
  static constexpr std::uint32_t looksAShare = 32;
  bool mutable shareIsUsed_ = false; // in this run
  std::uint32_t mutable asksToSkip_ = 0;
  std::chrono::steady_clock::time_point mutable lastLook_;
  std::uint64_t runs_ = 0;
};

/// One piece of work. Each run notifies the attribute runAttribute(); a notifiee does the work. A
/// task that loses its last Ptr while it waits to run is never run; one that loses it while it runs
/// stays until that run is over.
class Task : public Zel::PtrInterface {
public:
  /// Requires: `scheduler` is not null.
  Task(Zel::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string_view name);
  ~Task() override;
  Zel::Type const & type() const override;
  static Zel::Attribute const & runAttribute();

  Zel::Ptr<TaskScheduler> const & scheduler() const { return scheduler_; }
  TaskPriority priority() const { return priority_; }
  std::string const & name() const { return name_; }

  /// Runs the task again later. Does nothing while it waits to run already. A task may schedule
  /// itself while it runs. Raises std::bad_alloc, with nothing done, when there is no memory for
  /// it.
  void scheduleTask();
  /// True if and only if this task waits to run.
  bool taskScheduled() const { return scheduled_; }
  /// The scheduler's verdict that the work should stop soon and go on in a later run.
  bool taskShouldYield() const;
  /// True if and only if this is the task that the scheduler is running now.
  bool taskCurrentlyRunning() const;

  /// Units of work done since the task was made.
  std::uint64_t taskWorkCount() const { return workCount_; }
  void taskWorkCountInc(std::uint64_t units) { workCount_ += units; }
  /// Units still to do, as last reported.
  std::uint64_t taskWorkPending() const { return workPending_; }
  void taskWorkPendingIs(std::uint64_t units) { workPending_ = units; }
  /// How often the task has run.
  std::uint64_t runs() const { return runs_; }

private:
  friend class TaskScheduler;
  void run();

  Zel::Ptr<TaskScheduler> const scheduler_;
  TaskPriority const priority_;
  std::string const name_;
  bool scheduled_ = false;
  std::uint64_t workCount_ = 0;
  std::uint64_t workPending_ = 0;
  std::uint64_t runs_ = 0;
};

/// Where the process's default scheduler is found.
class TaskSchedulerRoot {
public:
  /// The scheduler given last, else one made now with the real clock and the default share.
  static Zel::Ptr<TaskScheduler> findOrCreateScheduler();
  /// Makes `scheduler` the default from now on; null: the next call of findOrCreateScheduler makes
  /// one. Machines that run already keep theirs.
  static void schedulerIs(Zel::Ptr<TaskScheduler> scheduler);
};

} // namespace Kiln
