// The pattern of the table state machines, as far as it does not depend on a key type:
// construction, the two passes, readiness, tasks, deletion. In the order of TableSmRuntime.h.
#include "TunnelIntfSnmp/TableSmRuntime.h"

namespace TunnelIntfSnmp {

namespace {
Lumo::Counter zombieExceptions("table-sm-zombie-exceptions");
} // namespace

// One input

bool InputSm::synchronous() const {
  return parent_.synchronous();
}
bool InputSm::initialScanDone() const {
  return parent_.initialScanDone();
}
Lumo::Tracer InputSm::trace() const {
  return {parent_.trace().handler(), name_};
}

Zel::Type const & InputSm::type() const {
  static Zel::Attribute const list[] = {
      {"scanState", "U8",
       [](Zel::PtrInterface const & child) {
         auto const state = static_cast<InputSm const &>(child).scanState();
         return Zel::toValue(static_cast<std::uint8_t>(state));
       }},
      {"scanComplete", "bool", Zel::getBy<&InputSm::inputScanComplete>},
      {"scanned", "U64", Zel::getBy<&InputSm::scanned>},
      {"inputSize", "U64", Zel::getBy<&InputSm::inputSize>}};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{"TunnelIntfSnmp::InputSm", attributes};
  return type;
}

void InputSm::setStreamScanned() {
  (parent_.inputSmScanState().get()->*flag_.set)(true);
}

void InputSm::start() {
  initializedIs(true);
  doInitializeTask();
  if (synchronous())
    doInputScan();
}

void InputSm::doInitializeTask() {
  if (synchronous())
    return;
  auto const & control = parent_.flowaControl();
  taskIs(control.taskScheduler, control.taskPriority,
         fmt::format("TunnelIntfSnmp::{}-{}InputScanTask", parent_.names().machine, name_));
}

void InputSm::taskIs(Zel::Ptr<Kiln::TaskScheduler> const & scheduler, Kiln::TaskPriority priority,
                     std::string_view name) {
  if (task_ && (*task_)->scheduler() == scheduler && (*task_)->priority() == priority &&
      (*task_)->name() == name)
    return;
  task_ = Zel::makePtr<ZelTask<InputSm>>(*this, &InputSm::handleTask, scheduler, priority, name);
  doInputScan();
}

bool InputSm::shouldYield() const {
  return task_ && !noYield() && (*task_)->taskShouldYield();
}

void InputSm::hasNotificationActiveIs(bool on) {
  InputStateMachine::hasNotificationActiveIs(on);
  if (!on)
    parent_.inputUnheard();
  if (task_)
    task_->hasNotificationActiveIs(on);
}

void InputSm::zelDoZombieReactors(bool doIt) {
  if (auto const task = task_) // a run may complete the scan and release it
    task->zelDoZombieReactors(doIt);
}

bool InputSm::streamScanned() const {
  return (parent_.inputSmScanState().get()->*flag_.get)();
}

void InputSm::scanYields(std::uint64_t iterations) {
  scanState_ = ScanState::yielded;
  auto const size = inputSize();
  auto & task = *task_;
  task->taskWorkCountInc(iterations);
  task->taskWorkPendingIs(size);
  task->scheduleTask();
  LUMO_TRACE(trace(), 8, "{} {} yielding after {} iterations ({} remaining)",
             parent_.names().machine, name_, iterations, size > scanned_ ? size - scanned_ : 1);
}

void InputSm::scanCompletes() {
  auto const * pass = "";
  if (initialScanDone()) {
    scanState_ = ScanState::complete;
    task_ = nullptr;
  } else {
    scanState_ = ScanState::initialComplete;
    pass = " initial";
  }
  Zel::FirstException exception;
  exception.run([&] { setStreamScanned(); });
  LUMO_TRACE(trace(), 9, "{}{} scan, and parent scan, complete.", name_, pass);
  exception.rethrow();
}

// The machine: construction

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
  inputSmScanState_ = Zel::makePtr<InputSmScanState>(names_);
  inputSmScanState_->hasNotificationActiveIs(true);
  zelInputSmScanState_ = Zel::makePtr<Flowa::Gen::InReactor<TableSmBase>>(
      *this, &TableSmBase::handleInputScan, inputSmScanState_.get());
  outputState_ = Zel::makePtr<OutputState>(names_);
  checkInputs(); // before anything below looks into one
  if (!synchronous_)
    createTask();
  mibOutputReconciling_ = outputHasRows();
  LUMO_TRACE(trace(), 9, "Reconciling {}: {:}", names_.outputs.back().output,
             mibOutputReconciling_);
  LUMO_TRACE(trace(), 9, "create local SMs");
  LUMO_TRACE(trace(), 9, "create non-public arg SMs");
  ifIndexSm_ = createIfIndexSm();
  ifIndexSm_->start();
  intfStatusSm_ = createIntfStatusSm();
  intfStatusSm_->start();
  LUMO_TRACE(trace(), 9, "initialized");
  initialized_ = true;
  handleOutputsInputReady();
}

void TableSmBase::createTask() {
  if (!flowaControl_.taskScheduler)
    flowaControl_.taskScheduler = Kiln::TaskSchedulerRoot::findOrCreateScheduler();
  reconciliationTask_ = Zel::makePtr<ZelTask<TableSmBase>>(
      *this, &TableSmBase::handleReconciliationTask, flowaControl_.taskScheduler,
      flowaControl_.taskPriority,
      fmt::format("{}-{}Task", names_.machine, names_.outputs.back().output));
}

std::vector<Zel::Attribute const *>
TableSmBase::attributesOf(std::span<Zel::Attribute const> inputs,
                          std::span<Zel::Attribute const> own) {
  static Zel::Attribute const shared[] = {
      {"inputSmScanState", "InputSmScanState", Zel::getBy<&TableSmBase::inputSmScanState>},
      {"outputState", "OutputState", Zel::getBy<&TableSmBase::outputState>},
      {"flowaControl", "Flowa::SmControl", Zel::getBy<&TableSmBase::flowaControl>},
      {"synchronous", "bool", Zel::getBy<&TableSmBase::synchronous>},
      {"initialScanDone", "bool", Zel::getBy<&TableSmBase::initialScanDone>},
      {"initialized", "bool", Zel::getBy<&TableSmBase::initialized>},
      {"ready", "bool", Zel::getBy<&TableSmBase::ready>},
      {"idle", "bool", Zel::getBy<&TableSmBase::idle>}};
  std::vector<Zel::Attribute const *> all;
  for (auto const list : {inputs, own, std::span<Zel::Attribute const>(shared)})
    for (auto const & attribute : list)
      all.push_back(&attribute);
  return all;
}

// First pass and second pass

void TableSmBase::handleInitialScanDone() {
  Zel::Ptr<TableSmBase> const self(this);
  if (initialScanDone_)
    return;
  if (!inputSmScanState_->ifMibStreamScan()) {
    LUMO_TRACE(trace(), 9, " ifMibStream scan is false");
    return;
  }
  if (!inputSmScanState_->tisStreamScan()) {
    LUMO_TRACE(trace(), 9, " {} scan is false", names_.tisStream);
    return;
  }
  initialScanDone_ = true; // first: clearing a flag notifies, and comes back here
  inputSmScanState_->ifMibStreamScanIs(false);
  inputSmScanState_->tisStreamScanIs(false);
  Zel::FirstException exception;
  exception.run([&] { startScan(*ifIndexSm_); });
  exception.run([&] { startScan(*intfStatusSm_); });
  inputSmScanState_->handleIdle();
  LUMO_TRACE(trace(), 9, "Initial scan done for child SMs. Now scanning with events triggered.");
  exception.run([&] { handleOutputsInputReady(); });
  exception.rethrow();
}

void TableSmBase::startScan(InputSm & child) const {
  if (child.hasOutstandingWork())
    (*child.task_)->scheduleTask();
  else
    child.doInputScan();
}

// Reconciliation

void TableSmBase::handleOutputsInputReady() {
  Zel::Ptr<TableSmBase> const self(this);
  Zel::FirstException exception;
  for (std::size_t output = 0; output != names_.outputs.size(); ++output)
    exception.run([&] { handleOutputInputReady(output); });
  exception.rethrow();
}

void TableSmBase::handleOutputInputReady(std::size_t output) {
  if (!initialized_)
    return;
  LUMO_TRACE(trace(), 8, "");
  if (outputState_->outputReady(output)) {
    LUMO_TRACE(trace(), 9, " already ready, not reconciling.");
    return;
  }
  if (!inputSmScanState_->ifMibStreamScan() || !inputSmScanState_->tisStreamScan())
    return;
  if (!initialScanDone_) {
    handleInitialScanDone();
    return;
  }
  LUMO_TRACE(trace(), 9, "Input scans for {} complete", names_.outputs[output].output);
  Zel::FirstException exception; // of whoever hears of a row: it must not cost us the rest
  if (output == names_.mibOutput()) {
    if (mibOutputReconciling_ && !reconcile(exception))
      return exception.rethrow();
    mibOutputReconciling_ = false;
    outputKeysForgotten();
  }
  exception.run([&] { outputState_->outputBecomesReady(output); });
  exception.rethrow();
}

bool TableSmBase::reconcile(Zel::FirstException & exception) {
  if (std::exchange(deletionScanRuns_, true))
    return false; // who heard of a deletion asks again: the scan under way goes on
  auto const ended = deletionScan(exception);
  deletionScanRuns_ = false;
  return ended;
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
  ifIndexSm_->doDeleteAll();
  intfStatusSm_->doDeleteAll();
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

// Every part is switched, and delivers what it holds, even if a delivery to another one raised.
void TableSmBase::hasNotificationActiveIs(bool on) {
  Zel::Ptr<TableSmBase> const self(this);
  PtrInterface::hasNotificationActiveIs(on);
  inputSmScanState_->hasNotificationActiveIs(on);
  outputState_->hasNotificationActiveIs(on);
  Zel::FirstException exception;
  exception.run([&] { zelInputSmScanState_->hasNotificationActiveIs(on); });
  if (auto const task = reconciliationTask_)
    exception.run([&] { task->hasNotificationActiveIs(on); });
  exception.run([&] { ifIndexSm_->hasNotificationActiveIs(on); });
  exception.run([&] { intfStatusSm_->hasNotificationActiveIs(on); });
  exception.rethrow();
}

void TableSmBase::zelDoZombieReactors(bool doIt) {
  Zel::Ptr<TableSmBase> const self(this);
  Zel::FirstException exception;
  exception.run([&] { zelInputSmScanState_->zelDoZombieReactors(doIt); });
  if (auto const task = reconciliationTask_)
    exception.run([&] { task->zelDoZombieReactors(doIt); });
  exception.run([&] { ifIndexSm_->zelDoZombieReactors(doIt); });
  exception.run([&] { intfStatusSm_->zelDoZombieReactors(doIt); });
  exception.rethrow();
}

// Destruction

void TableSmBase::tearDown() {
  try {
    zelDoZombieReactors(true);
  } catch (...) { // of a pipeline, or of whoever heard of a row; a destructor cannot throw on
    zombieExceptions.inc();
  }
  ifIndexSm_ = nullptr;
  intfStatusSm_ = nullptr;
  reconciliationTask_ = nullptr;
  zelInputSmScanState_->ownerDeletedIs();
}

} // namespace TunnelIntfSnmp
