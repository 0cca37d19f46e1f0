// What the table state machines share: one pattern by which an output table of TunnelMib is kept in
// step with its inputs.
//
//   state         holds                                            left when
//   constructing  nothing is heard yet                             the children are made
//   first pass    every input is walked once, all events dropped   every scan flag is true
//   second pass   every key is walked again and written            every scan flag is true again
//   reconciling   rows from before, unseen since, are deleted      the deletion scan ends
//   ready         changes arrive key by key; never left
//
// A machine (TableSmBase, TableSm) owns one child per input (InputSm.h). How many inputs there are,
// in which order they are scanned, and how each is called, its names say (TableSmState.h).
//
// What is hard here is that nothing stands still. A machine tells of its rows and flags in the
// middle of its work, and a listener may answer with any change of the inputs, the tables or the
// machine itself: it may even release the machine. Three rules make that safe. What a listener
// throws never comes back to a machine (the tables and flags contain it). After each event a scan
// looks at its collection afresh and goes on behind the key it handled: it remembers keys, never
// iterators. And every function by which an event enters a machine keeps it alive to the end of
// that event.
#pragma once

#include "TunnelIntfSnmp/InputSm.h"
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
#include <utility>
#include <vector>

namespace TunnelIntfSnmp {

using IfMibPtr = Zel::Ptr<IntfSnmp::IfMib const>;
using StatusDirPtr = Zel::Ptr<Interface::TunnelIntfStatusDir const>;

/// What a machine dies of when it is given a null input.
inline constexpr char const * nullSmArgument =
    "Pointer SM args cannot be null unless they are marked Optional";

/// The part of a machine that knows nothing of its output's key type.
class TableSmBase : public Zel::PtrInterface {
public:
  using ReconciliationTask = ZelTask<TableSmBase>;

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
  /// Null in synchronous mode, and once the reconciliation is over.
  Zel::Ptr<ReconciliationTask> const & reconciliationTask() const { return reconciliationTask_; }

  Flowa::SmControl const & flowaControl() const { return flowaControl_; }
  /// Replaces the control record, but for a scheduler that was found: it stays when the new record
  /// names none. What is already set up from the old record stays.
  void flowaControlIs(Flowa::SmControl const & control);
  void qtHandleIs(Skein::TraceHandle handle) { flowaControl_.qtHandleIs(handle); }

  /// Builds the machine; the constructor's last act. A second call does nothing.
  void handleInitialized();
  /// Ends the first pass and starts the second, once every first scan is complete.
  void handleInitialScanDone();
  /// Takes each output one step further: second pass, reconciliation, ready.
  void handleOutputsInputReady();
  /// Replays every key that the inputs still have as gone, input after input. For a host whose
  /// input entities can go away while the machine lives; tunnelsnmpd's cannot.
  void doDeleteAll();

  /// Switches the machine's flags, tasks and children. Each part is switched, and delivers what it
  /// held, even if a delivery of another part raised; the first exception is thrown on then. When a
  /// listener of what is delivered switches again, that is what holds for all parts.
  void hasNotificationActiveIs(bool on) override;
  void zelDoZombieReactors(bool doIt);

  TableSmNames const & names() const { return names_; }
  Lumo::Tracer trace() const { return {*trace_, names_.machine}; }

protected:
  TableSmBase(TableSmNames const & names, Lumo::DebugHandler const & defaultTrace,
              Flowa::SmControl const & control);
  /// Stops the machine and releases its parts; first act of the most derived destructor.
  void tearDown();

  // What the machine itself supplies, in the order in which handleInitialized() asks for it.
  virtual bool outputHasRows() const = 0;
  virtual void checkInputs() const = 0;
  /// Makes the child of the input of that number.
  virtual Zel::Ptr<InputSm> createInputSm(std::size_t input) = 0;
  /// The deletion scan. True if and only if it came to its end; false: it yielded.
  virtual bool deletionScan() = 0;
  virtual void outputKeysForgotten() = 0;

  /// The child of that input as what createInputSm() made; null before that.
  template <class Sm>
  Zel::Ptr<Sm> inputSm(std::size_t input) const {
    return Zel::Ptr<Sm>(input < inputSms_.size() ? static_cast<Sm *>(inputSms_[input].get())
                                                 : nullptr);
  }
  /// True if and only if the deletion scan, at work in this very moment, has to yield.
  bool deletionScanShouldYield() const;
  void deletionScanYields(std::size_t items, std::size_t deletions);
  void deletionScanEnds(std::size_t items, std::size_t deletions);

private:
  void createInputScanState();
  void createTask();
  void createInputSms();
  void handleOutputInputReady(std::size_t output);
  void reconcileOrFinish();
  void startScan(InputSm & child) const;
  void handleInputScan(Zel::Attribute const & attribute, Flowa::Gen::NoKey const &);
  void handleReconciliationTask(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  template <class Act>
  void forEachPart(Act act);

  TableSmNames const & names_;
  Lumo::DebugHandler const * trace_;
  Flowa::SmControl flowaControl_;
  Zel::Ptr<InputSmScanState> inputSmScanState_;
  Zel::Ptr<Flowa::Gen::InReactor<TableSmBase>> zelInputSmScanState_;
  Zel::Ptr<OutputState> outputState_;
  std::vector<Zel::Ptr<InputSm>> inputSms_;
  Zel::Ptr<ReconciliationTask> reconciliationTask_;
  bool mibOutputReconciling_ = false;
  bool deletionScanRuns_ = false;
  bool synchronous_ = false;
  bool initialScanDone_ = false;
  bool initialized_ = false;
};

/// A machine whose output is a table of TunnelMib with keys of type `KeyType::k0`.
template <class Table, class KeyType>
class TableSm : public TableSmBase {
public:
  using K0 = decltype(KeyType::k0);

  /// A node of the seen set: there is nothing in it but its key.
  struct Seen {};
  using SeenSet = Zel::HashMap2018<KeyType, Seen>;

  /// The output keys that the pipeline has produced since the start, while it reconciles.
  SeenSet const & outputSeen() const { return seen_; }
  /// Where a deletion scan that yielded goes on, and whether it does.
  KeyType const & outputBookmark() const { return bookmark_; }
  bool outputUseBookmark() const { return useBookmark_; }
  /// For the attribute that is the seen set: its keys, each without a value.
  static Zel::Value outputSeenByName(Zel::PtrInterface const & machine) {
    Zel::Value::Collection keys;
    for (auto const & [key, node] : static_cast<TableSm const &>(machine).outputSeen())
      keys.emplace_back(Zel::valueToStrep(key), Zel::Value());
    return {std::move(keys)};
  }

protected:
  using TableSmBase::TableSmBase;

  virtual Table const & output() const = 0;
  /// Deletes the row, if there is one, behind the pipeline's own trace line.
  virtual void deleteOutputRow(K0 const & k0) = 0;

  /// Remembers that the pipeline produced the key. Every write to the output begins with it.
  void outputKeySeen(K0 const & k0) {
    if (!mibOutputReconciling())
      return;
    if (seen_.empty())
      seen_.reserve(output().size()); // grown by and by, the last growth would be a long step
    seen_.insertOrReplace(KeyType{k0, true}, {});
  }

private:
  bool outputHasRows() const final { return !output().empty(); }
  void outputKeysForgotten() final {
    seen_.clear();
    bookmark_ = KeyType();
    useBookmark_ = false;
  }

  bool deletionScan() final {
    auto row =
        useBookmark_ && bookmark_.k0Valid ? output().findNotLess(bookmark_.k0) : output().begin();
    std::size_t items = 0;
    std::size_t deletions = 0;
    while (row != output().end()) {
      auto const k0 = row->first;
      if (seen_.find(KeyType{k0, true}) == nullptr) {
        deleteOutputRow(k0);
        ++deletions;
      }
      ++items;
      row = output().findNext(k0);
      if (row != output().end() && deletionScanShouldYield()) {
        bookmark_ = KeyType{row->first, true};
        useBookmark_ = true;
        deletionScanYields(items, deletions);
        return false;
      }
    }
    deletionScanEnds(items, deletions);
    return true;
  }

  SeenSet seen_;
  KeyType bookmark_;
  bool useBookmark_ = false;
};

} // namespace TunnelIntfSnmp
