// What the table state machines share: one pattern by which an output table of TunnelMib is kept in
// step with its inputs.
//
//   state         holds                                            left when
//   constructing  nothing is heard yet                             the children are made
//   first pass    every input is walked once, all events dropped   both scan flags are true
//   second pass   every key is walked again and written            both scan flags are true again
//   reconciling   rows from before, unseen since, are deleted      the deletion scan ends
//   ready         changes arrive key by key; never left
//
// A machine (TableSm) owns one child per input collection (CollectionSm). In tasks, a child's scan
// and the deletion scan yield when the scheduler says so; each remembers a key, never an iterator,
// and looks at the collection afresh after every event, because whoever hears of a change may
// change the collection, or release the machine. A machine that is released in its own event lives
// to the end of that event.
#pragma once

#include "TunnelIntfSnmp/Printed.h"
#include "TunnelIntfSnmp/TableSmState.h"
#include "TunnelIntfSnmp/TableSmValues.h"
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Flowa.h"
#include "platform/IntfSnmp.h"
#include "platform/Kiln.h"
#include "platform/Lumo.h"
#include "platform/Zel.h"
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace TunnelIntfSnmp {

using IfMibPtr = Zel::Ptr<IntfSnmp::IfMib const>;
using StatusDirPtr = Zel::Ptr<Interface::TunnelIntfStatusDir const>;

/// What a machine dies of when it is given a null input.
inline constexpr char const * nullSmArgument =
    "Pointer SM args cannot be null unless they are marked Optional";

/// A task together with the reactor that does its work. Releasing it is safe inside the run.
template <class Owner>
class ZelTask : public Zel::PtrInterface {
public:
  using Run = void (Owner::*)(Zel::Attribute const &, Flowa::Gen::NoKey const &);

  ZelTask(Owner & owner, Run run, Zel::Ptr<Kiln::TaskScheduler> scheduler,
          Kiln::TaskPriority priority, std::string_view name)
      : task_(Zel::makePtr<Kiln::Task>(std::move(scheduler), priority, name)),
        reactor_(Zel::makePtr<Flowa::Gen::InReactor<Owner>>(owner, run, task_.get())) {}
  ~ZelTask() override { reactor_->ownerDeletedIs(); }

  Kiln::Task * operator->() const { return task_.get(); }
  void hasNotificationActiveIs(bool on) override { reactor_->hasNotificationActiveIs(on); }
  void zelDoZombieReactors(bool doIt) { reactor_->zelDoZombieReactors(doIt); }

private:
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Flowa::Gen::InReactor<Owner>> const reactor_;
};

class TableSmBase;

/// The child machine of one input: scans it, in runs, and then follows its changes. It belongs to
/// the machine and never outlives it.
class InputSm : public Flowa::Gen::InputStateMachine<> {
public:
  /// notScanned -> initialComplete (first pass) -> complete (second pass, the task is released);
  /// before each of the two it may be yielded any number of times.
  enum class ScanState : std::uint8_t { notScanned, yielded, complete, initialComplete };

  bool synchronous() const;
  bool initialScanDone() const;
  ScanState scanState() const { return scanState_; }
  /// True if and only if the second pass is over. The first pass completes nothing: the second has
  /// to emit every key again.
  bool inputScanComplete() const { return scanState_ == ScanState::complete; }
  /// Keys handled in the current or last pass, and keys that the input has now.
  std::uint64_t scanned() const { return scanned_; }
  virtual std::uint64_t inputSize() const = 0;
  Zel::Type const & type() const override;

  /// Begins the child's work with its first scan. Called once, by the machine.
  void start();
  /// Makes the scan task in task mode; does nothing in synchronous mode.
  void doInitializeTask();
  /// Keeps the task if it has the same scheduler, priority and name; otherwise replaces it by a new
  /// one and scans.
  void taskIs(Zel::Ptr<Kiln::TaskScheduler> const & scheduler, Kiln::TaskPriority priority,
              std::string_view name);
  /// True if and only if there is a task whose scheduler wants it to yield, and yielding is
  /// allowed.
  bool shouldYield() const;
  /// Walks the input from its begin, or from where the last run yielded.
  virtual void doInputScan() = 0;
  /// Replays every key that the input still has as gone.
  virtual void doDeleteAll() = 0;

  void hasNotificationActiveIs(bool on) override;
  virtual void zelDoZombieReactors(bool doIt);

protected:
  /// Which flag of InputSmScanState stands for this child's scan.
  struct ScanFlag {
    bool (InputSmScanState::*get)() const;
    void (InputSmScanState::*set)(bool);
  };
  static constexpr ScanFlag ifMibStream{&InputSmScanState::ifMibStreamScan,
                                        &InputSmScanState::ifMibStreamScanIs};
  static constexpr ScanFlag tisStream{&InputSmScanState::tisStreamScan,
                                      &InputSmScanState::tisStreamScanIs};

  /// `name` is the child's own, "IntfStatusSm0". Requires: it is a literal.
  InputSm(TableSmBase & parent, std::string_view name, ScanFlag flag)
      : parent_(parent),
        name_(name),
        flag_(flag) {}

  TableSmBase & parent() const { return parent_; }
  Lumo::Tracer trace() const;

  /// The flag that stands for this child's scan.
  bool streamScanned() const;
  void passBegins() { scanned_ = 0; }
  void keyScanned() { ++scanned_; }
  /// Ends a run: the rest of the input is left to a later one.
  void scanYields(std::uint64_t iterations);
  void scanCompletes();

private:
  friend class TableSmBase;
  void setStreamScanned();
  void handleTask(Zel::Attribute const &, Flowa::Gen::NoKey const &) { doInputScan(); }
  bool hasOutstandingWork() const { return task_ && (*task_)->taskWorkPending() != 0; }

  TableSmBase & parent_;
  std::string_view const name_;
  ScanFlag const flag_;
  Zel::Ptr<ZelTask<InputSm>> task_;
  std::uint64_t scanned_ = 0;
  ScanState scanState_ = ScanState::notScanned;
};

/// The part of a machine that knows nothing of its output's key type.
class TableSmBase : public Zel::PtrInterface {
public:
  bool initialized() const { return initialized_; }
  bool initialScanDone() const { return initialScanDone_; }
  bool synchronous() const { return synchronous_; }
  /// True if and only if every output agrees with the inputs from now on.
  bool ready() const { return outputState_ && outputState_->ready(); }
  /// True if and only if it is ready and no scan is under way.
  bool idle() const { return ready() && (synchronous_ || inputSmScanState_->idle()); }
  /// True if and only if a deletion scan of the output is owed.
  bool mibOutputReconciling() const { return mibOutputReconciling_; }
  Zel::Ptr<InputSmScanState> const & inputSmScanState() const { return inputSmScanState_; }
  Zel::Ptr<OutputState> const & outputState() const { return outputState_; }

  Flowa::SmControl const & flowaControl() const { return flowaControl_; }
  /// Replaces the control record, but for a scheduler that was found: it stays when the new record
  /// names none. What is already set up from the old record stays.
  void flowaControlIs(Flowa::SmControl const & control);
  void qtHandleIs(Skein::TraceHandle handle) { flowaControl_.qtHandleIs(handle); }

  /// Builds the machine; the constructor's last act. A second call does nothing.
  void handleInitialized();
  /// Ends the first pass and starts the second, once both first scans are complete.
  void handleInitialScanDone();
  /// Takes each output one step further: second pass, reconciliation, ready.
  void handleOutputsInputReady();
  /// Replays every key that the inputs still have as gone: first ifIndexes, then statuses. For a
  /// host whose input entities can go away while the machine lives; tunnelsnmpd's cannot.
  void doDeleteAll();

  void hasNotificationActiveIs(bool on) override;
  void zelDoZombieReactors(bool doIt);
  /// Told by a child when something of its input may change from now on without being heard.
  virtual void inputUnheard() {}

  TableSmNames const & names() const { return names_; }
  Lumo::Tracer trace() const { return {*trace_, names_.machine}; }

  /// The attributes of a machine: its inputs, its own ones, and those that every machine has.
  static std::vector<Zel::Attribute const *> attributesOf(std::span<Zel::Attribute const> inputs,
                                                          std::span<Zel::Attribute const> own);

protected:
  TableSmBase(TableSmNames const & names, Lumo::DebugHandler const & defaultTrace,
              Flowa::SmControl const & control);
  /// Stops the machine and releases its parts; first act of the most derived destructor.
  void tearDown();

  // What the machine itself supplies, in the order in which handleInitialized() asks for it.
  virtual bool outputHasRows() const = 0;
  virtual void checkInputs() const = 0;
  virtual Zel::Ptr<InputSm> createIfIndexSm() = 0;
  virtual Zel::Ptr<InputSm> createIntfStatusSm() = 0;
  /// The deletion scan. True if and only if it came to its end; false: it yielded.
  virtual bool deletionScan(Zel::FirstException & exception) = 0;
  virtual void outputKeysForgotten() = 0;

  /// True if and only if the deletion scan, at work in this very moment, has to yield.
  bool deletionScanShouldYield() const;
  void deletionScanYields(std::size_t items, std::size_t deletions);
  void deletionScanEnds(std::size_t items, std::size_t deletions);

private:
  void createTask();
  void handleOutputInputReady(std::size_t output);
  bool reconcile(Zel::FirstException & exception);
  void startScan(InputSm & child) const;
  void handleInputScan(Zel::Attribute const & attribute, Flowa::Gen::NoKey const &);
  void handleReconciliationTask(Zel::Attribute const &, Flowa::Gen::NoKey const &);

  TableSmNames const & names_;
  Lumo::DebugHandler const * trace_;
  Flowa::SmControl flowaControl_;
  Zel::Ptr<InputSmScanState> inputSmScanState_;
  Zel::Ptr<Flowa::Gen::InReactor<TableSmBase>> zelInputSmScanState_;
  Zel::Ptr<OutputState> outputState_;
  Zel::Ptr<InputSm> ifIndexSm_;
  Zel::Ptr<InputSm> intfStatusSm_;
  Zel::Ptr<ZelTask<TableSmBase>> reconciliationTask_;
  bool mibOutputReconciling_ = false;
  bool deletionScanRuns_ = false;
  bool synchronous_ = false;
  bool initialScanDone_ = false;
  bool initialized_ = false;

protected:
  // For the attributes by which a host sees the children.
  template <class Sm>
  Zel::Ptr<Sm> ifIndexSm() const {
    return Zel::dynamicCast<Sm>(ifIndexSm_);
  }
  template <class Sm>
  Zel::Ptr<Sm> intfStatusSm() const {
    return Zel::dynamicCast<Sm>(intfStatusSm_);
  }
};

/// A machine whose output is a table of TunnelMib with keys of type `Key::k0`.
template <class Table, class Key>
class TableSm : public TableSmBase {
public:
  using K0 = decltype(Key::k0);

protected:
  using TableSmBase::TableSmBase;

  virtual Table const & output() const = 0;
  /// Deletes the row with the pipeline's own trace line.
  virtual void deleteOutputRow(K0 const & k0) = 0;

  /// Remembers that the pipeline produced the key. Every write to the output begins with it.
  void outputKeySeen(K0 const & k0) {
    if (mibOutputReconciling())
      seen_.insertOrReplace(Key{k0, true}, {});
  }

private:
  struct Seen {};

  bool outputHasRows() const final { return !output().empty(); }
  void outputKeysForgotten() final {
    seen_.clear();
    bookmark_ = Key();
    useBookmark_ = false;
  }

  bool deletionScan(Zel::FirstException & exception) final {
    auto row =
        useBookmark_ && bookmark_.k0Valid ? output().findNotLess(bookmark_.k0) : output().begin();
    std::size_t items = 0;
    std::size_t deletions = 0;
    while (row != output().end()) {
      auto const k0 = row->first;
      if (seen_.find(Key{k0, true}) == nullptr) {
        exception.run([&] { deleteOutputRow(k0); });
        ++deletions;
      }
      ++items;
      row = output().findNext(k0);
      if (row != output().end() && deletionScanShouldYield()) {
        bookmark_ = Key{row->first, true};
        useBookmark_ = true;
        deletionScanYields(items, deletions);
        return false;
      }
    }
    deletionScanEnds(items, deletions);
    return true;
  }

  Zel::HashMap2018<Key, Seen> seen_;
  Key bookmark_;
  bool useBookmark_ = false;
};

} // namespace TunnelIntfSnmp
