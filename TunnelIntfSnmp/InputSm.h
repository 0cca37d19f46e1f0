// The child machine of one input: what all of them do alike, whatever the input is. CollectionSm.h
// is the one over a collection; TableSmRuntime.h is the machine that owns them.
//
//   scan state       entered when                             left when
//   notScanned       the child is made                        its first pass ends, or yields
//   yielded          a run leaves keys to a later one         a later run ends the pass, or yields
//   initialComplete  the first pass ends: nothing is emitted  the second pass yields or ends
//   complete         the second pass ends: all is emitted     never; the task is released
//
// A child belongs to its machine, but somebody may hold it longer, having read it by name. A child
// that is stopped hears nothing, does nothing and knows no machine any more.
#pragma once

#include "TunnelIntfSnmp/TableSmState.h"
#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "platform/Lumo.h"
#include "platform/Zel.h"
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace TunnelIntfSnmp {

class TableSmBase;

/// A task together with the reactor that does its work. Releasing it is safe inside the run.
template <class Owner>
class ZelTask : public Zel::PtrInterface {
public:
  using Run = void (Owner::*)(Zel::Attribute const &, Flowa::Gen::NoKey const &);

  /// Requires: `type` is a description with attributesOfTask().
  ZelTask(Zel::Type const & type, Owner & owner, Run run, Zel::Ptr<Kiln::TaskScheduler> scheduler,
          Kiln::TaskPriority priority, std::string_view name)
      : type_(type),
        task_(Zel::makePtr<Kiln::Task>(std::move(scheduler), priority, name)),
        reactor_(Zel::makePtr<Flowa::Gen::InReactor<Owner>>(owner, run, task_.get())) {}
  ~ZelTask() override { reactor_->ownerDeletedIs(); }
  Zel::Type const & type() const override { return type_; }
  static std::span<Zel::Attribute const * const> attributesOfTask() {
    static Zel::Attribute const list[] = {{"task", "Kiln::Task", Zel::getBy<&ZelTask::task>}};
    static auto const attributes = Zel::pointersTo(list);
    return attributes;
  }

  Zel::Ptr<Kiln::Task> const & task() const { return task_; }
  Kiln::Task * operator->() const { return task_.get(); }
  void hasNotificationActiveIs(bool on) override { reactor_->hasNotificationActiveIs(on); }
  void zelDoZombieReactors(bool doIt) { reactor_->zelDoZombieReactors(doIt); }

private:
  Zel::Type const & type_;
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Flowa::Gen::InReactor<Owner>> const reactor_;
};

/// The child machine of one input: scans it, in runs, and then follows its changes.
class InputSm : public Flowa::Gen::InputStateMachine<> {
public:
  enum class ScanState : std::uint8_t { notScanned, yielded, complete, initialComplete };

  /// Both false once the child is stopped.
  bool synchronous() const;
  bool initialScanDone() const;
  ScanState scanState() const { return scanState_; }
  /// True if and only if the second pass is over. The first pass completes nothing: the second has
  /// to emit every key again.
  bool inputScanComplete() const { return scanState_ == ScanState::complete; }
  /// Keys handled in the current or last pass, and keys that the input has now.
  std::uint64_t scanned() const { return scanned_; }
  virtual std::uint64_t inputSize() const = 0;
  Zel::Type const & type() const override { return names_.type; }
  /// What can be read of every child by name.
  static std::span<Zel::Attribute const * const> attributesOfInputSm();

  /// Begins the child's work with its first scan. Called once, by the machine.
  void start();
  /// Ends it, before the machine goes.
  virtual void stop();
  /// Makes the scan task in task mode; does nothing in synchronous mode.
  void doInitializeTask();
  /// Keeps the task if it has the same scheduler, priority and name; otherwise replaces it by a new
  /// one and scans.
  void taskIs(Zel::Ptr<Kiln::TaskScheduler> const & scheduler, Kiln::TaskPriority priority,
              std::string_view name);
  /// True if and only if there is a task whose scheduler wants it to yield, and yielding is
  /// allowed.
  bool shouldYield() const;
  /// True if and only if the task reports work that is still to be done.
  bool hasOutstandingWork() const { return task_ && (*task_)->taskWorkPending() != 0; }
  /// Runs the task later. Requires: there is one.
  void scheduleTask() { (*task_)->scheduleTask(); }
  /// Walks the input from its begin, or from where the last run yielded. What an event of it raises
  /// is contained: the scan goes on with the next key.
  virtual void doInputScan() = 0;
  /// Replays every key that the input still has as gone.
  virtual void doDeleteAll() = 0;
  /// True if and only if the machine hears of each change of the input now, and has heard of each
  /// key that came or went.
  virtual bool hearsItsInput() const = 0;

  void hasNotificationActiveIs(bool on) override;
  virtual void zelDoZombieReactors(bool doIt);

protected:
  /// `input` is the number in TableSmNames::inputs.
  InputSm(TableSmBase & machine, std::size_t input);

  /// Keeps the machine alive to the end of an event of this child, in which somebody may release
  /// it. Null once the child is stopped.
  Zel::Ptr<TableSmBase> keepMachine() const { return Zel::Ptr<TableSmBase>(machine_); }
  Lumo::Tracer trace() const;

  /// The flag that stands for this child's scan.
  bool streamScanned() const;
  void passBegins() { scanned_ = 0; }
  void keyScanned() { ++scanned_; }
  /// Ends a run: the rest of the input is left to a later one.
  void scanYields(std::uint64_t iterations);
  void scanCompletes();

private:
  void handleTask(Zel::Attribute const &, Flowa::Gen::NoKey const &) { doInputScan(); }

  TableSmBase * machine_; // null once it is stopped
  std::size_t const input_;
  InputNames const & names_;
  Zel::Ptr<ZelTask<InputSm>> task_;
  std::uint64_t scanned_ = 0;
  ScanState scanState_ = ScanState::notScanned;
};

} // namespace TunnelIntfSnmp
