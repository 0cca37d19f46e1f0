// The pattern of the table state machines, as far as it does not depend on a key type:
// construction, the two passes, readiness, tasks, deletion. In the order of TableSmRuntime.h.
#include "TunnelIntfSnmp/TableSmRuntime.h"
#include <utility>

namespace TunnelIntfSnmp {

// Construction

TableSmBase::TableSmBase(TableSmNames const & names, Lumo::DebugHandler const & defaultTrace,
                         Flowa::SmControl const & control)
    : names_(names),
      trace_(&defaultTrace),
      flowaControl_(control) {}

void TableSmBase::flowaControlIs(Flowa::SmControl const & control) {
  auto const scheduler = flowaControl_.taskScheduler;
  flowaControl_ = control;
  if (!flowaControl_.taskScheduler) // none is named: the one that was found stays
    flowaControl_.taskScheduler = scheduler;
}

void TableSmBase::handleInitialized() {
  if (initialized_)
    return;
  if (!flowaControl_.traceHandlerName.empty())
    trace_ = Lumo::Platform::getDebugHandler(flowaControl_.traceHandlerName, false).get();
  LUMO_TRACE(trace(), 8, "");
  if (flowaControl_.synchronousMode == 1 || flowaControl_.synchronousMode == 2)
    synchronous_ = flowaControl_.synchronousMode == 1;
  createInputScanState();
  outputState_ = Zel::makePtr<OutputState>(names_);
  checkInputs(); // before anything below looks into one
  if (!synchronous_)
    createTask();
  mibOutputReconciling_ = outputHasRows();
  LUMO_TRACE(trace(), 9, "Reconciling {}: {:}", names_.outputs.back().output,
             mibOutputReconciling_);
  createInputSms();
  LUMO_TRACE(trace(), 9, "initialized");
  initialized_ = true;
  handleOutputsInputReady();
}

void TableSmBase::createInputScanState() {
  inputSmScanState_ = Zel::makePtr<InputSmScanState>(names_);
  inputSmScanState_->hasNotificationActiveIs(true);
  zelInputSmScanState_ = Zel::makePtr<Flowa::Gen::InReactor<TableSmBase>>(
      *this, &TableSmBase::handleInputScan, inputSmScanState_.get());
}

void TableSmBase::createTask() {
  if (!flowaControl_.taskScheduler)
    flowaControl_.taskScheduler = Kiln::TaskSchedulerRoot::findOrCreateScheduler();
  reconciliationTask_ = Zel::makePtr<ReconciliationTask>(
      names_.reconciliationTask, *this, &TableSmBase::handleReconciliationTask,
      flowaControl_.taskScheduler, flowaControl_.taskPriority,
      fmt::format("{}-{}Task", names_.machine, names_.outputs.back().output));
}

void TableSmBase::createInputSms() {
  LUMO_TRACE(trace(), 9, "create local SMs");
  LUMO_TRACE(trace(), 9, "create non-public arg SMs");
  inputSms_.reserve(names_.inputs.size());
  for (std::size_t input = 0; input != names_.inputs.size(); ++input)
    inputSms_.emplace_back(createInputSm(input))->start();
}

// First pass and second pass

void TableSmBase::handleInitialScanDone() {
  Zel::Ptr<TableSmBase> const self(this);
  if (initialScanDone_)
    return;
  for (std::size_t input = 0; input != names_.inputs.size(); ++input)
    if (!inputSmScanState_->scan(input)) {
      LUMO_TRACE(trace(), 9, " {} scan is false", names_.inputs[input].stream);
      return;
    }
  initialScanDone_ = true; // first: clearing a flag is told, and comes back here
  for (std::size_t input = 0; input != names_.inputs.size(); ++input)
    inputSmScanState_->scanIs(input, false);
  for (auto const & child : inputSms_)
    startScan(*child);
  inputSmScanState_->handleIdle();
  LUMO_TRACE(trace(), 9, "Initial scan done for child SMs. Now scanning with events triggered.");
  handleOutputsInputReady();
}

void TableSmBase::startScan(InputSm & child) const {
  if (child.hasOutstandingWork())
    child.scheduleTask();
  else
    child.doInputScan();
}

// Reconciliation

void TableSmBase::handleOutputsInputReady() {
  Zel::Ptr<TableSmBase> const self(this);
  for (std::size_t output = 0; output != names_.outputs.size(); ++output)
    handleOutputInputReady(output);
}

void TableSmBase::handleOutputInputReady(std::size_t output) {
  if (!initialized_)
    return;
  LUMO_TRACE(trace(), 8, "");
  if (outputState_->outputReady(output)) {
    LUMO_TRACE(trace(), 9, " already ready, not reconciling.");
    return;
  }
  if (!inputSmScanState_->everyScan())
    return;
  if (!initialScanDone_) {
    handleInitialScanDone();
    return;
  }
  LUMO_TRACE(trace(), 9, "Input scans for {} complete", names_.outputs[output].output);
  if (output == names_.mibOutput())
    reconcileOrFinish();
  else
    outputState_->outputBecomesReady(output);
}

void TableSmBase::reconcileOrFinish() {
  if (mibOutputReconciling_) {
    if (std::exchange(deletionScanRuns_, true))
      return; // who heard of a deletion asks again: the scan under way goes on
    auto const ended = deletionScan();
    deletionScanRuns_ = false;
    if (!ended)
      return;
  }
  mibOutputReconciling_ = false;
  outputKeysForgotten();
  outputState_->outputBecomesReady(names_.mibOutput());
}

bool TableSmBase::deletionScanShouldYield() const {
  if (!reconciliationTask_ || synchronous_)
    return false;
  auto const & task = *reconciliationTask_;
  return !task->taskCurrentlyRunning() || task->taskShouldYield();
}

void TableSmBase::deletionScanYields(std::size_t items, std::size_t deletions) {
  LUMO_TRACE(trace(), 9,
             "Yielding in reconciliation processing after processing {} items, including {} "
             "deletions .",
             items, deletions);
  auto & task = *reconciliationTask_;
  task->taskWorkCountInc(items);
  task->scheduleTask();
}

void TableSmBase::deletionScanEnds(std::size_t items, std::size_t deletions) {
  LUMO_TRACE(trace(), 9,
             "Deletion scan for reconciliation is done, last task run processed {} items, deleting "
             "{} items.",
             items, deletions);
  if (reconciliationTask_)
    (*reconciliationTask_)->taskWorkCountInc(items);
  reconciliationTask_ = nullptr;
}

void TableSmBase::doDeleteAll() {
  Zel::Ptr<TableSmBase> const self(this);
  for (auto const & child : inputSms_)
    child->doDeleteAll();
}

// Reactors

void TableSmBase::handleInputScan(Zel::Attribute const & attribute, Flowa::Gen::NoKey const &) {
  if (&attribute != &InputSmScanState::idleAttribute())
    handleOutputsInputReady();
}

void TableSmBase::handleReconciliationTask(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  Zel::Ptr<TableSmBase> const self(this);
  handleOutputInputReady(names_.mibOutput());
}

void TableSmBase::hasNotificationActiveIs(bool on) {
  Zel::Ptr<TableSmBase> const self(this);
  PtrInterface::hasNotificationActiveIs(on);
  auto const switchPart = [this, on](auto & part) {
    if (hasNotificationActive() == on) // else a listener has switched back: that is the last word
      part.hasNotificationActiveIs(on);
  };
  switchPart(*inputSmScanState_);
  switchPart(*outputState_);
  forEachPart(switchPart);
}

void TableSmBase::zelDoZombieReactors(bool doIt) {
  Zel::Ptr<TableSmBase> const self(this);
  forEachPart([doIt](auto & part) { part.zelDoZombieReactors(doIt); });
}

// An ifIndex that went while its interface stays raises, when it is delivered: no part may miss its
// turn for that.
template <class Act>
void TableSmBase::forEachPart(Act act) {
  Zel::FirstException exception;
  exception.run([&] { act(*zelInputSmScanState_); });
  if (auto const task = reconciliationTask_) // it may be released by what it does
    exception.run([&] { act(*task); });
  for (auto const & child : inputSms_)
    exception.run([&] { act(*child); });
  exception.rethrow();
}

// Destruction

void TableSmBase::tearDown() {
  Zel::contained([this] { zelDoZombieReactors(true); },
                 [this] { return fmt::format("the last events of {}", names_.machine); });
  for (auto const & child : inputSms_)
    child->stop();
  inputSms_.clear();
  reconciliationTask_ = nullptr;
  zelInputSmScanState_->ownerDeletedIs();
}

} // namespace TunnelIntfSnmp
