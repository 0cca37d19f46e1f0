// What every child machine of an input does, in the order of InputSm.h.
#include "TunnelIntfSnmp/InputSm.h"
#include "TunnelIntfSnmp/TableSmRuntime.h"

namespace TunnelIntfSnmp {

InputSm::InputSm(TableSmBase & machine, std::size_t input)
    : machine_(&machine),
      input_(input),
      names_(machine.names().inputs[input]) {}

bool InputSm::synchronous() const {
  return machine_ != nullptr && machine_->synchronous();
}
bool InputSm::initialScanDone() const {
  return machine_ != nullptr && machine_->initialScanDone();
}

std::span<Zel::Attribute const * const> InputSm::attributesOfInputSm() {
  static constexpr Zel::Enumerator states[] = {
      {0, "not begun"}, {1, "under way"}, {2, "complete"}, {3, "first pass complete"}};
  static Zel::Attribute const list[] = {
      {.name = "scanState",
       .typeName = "U8",
       .get =
           [](Zel::PtrInterface const & child) {
             auto const state = static_cast<InputSm const &>(child).scanState();
             return Zel::toValue(static_cast<std::uint8_t>(state));
           },
       .enumerators = states},
      {"scanComplete", "bool", Zel::getBy<&InputSm::inputScanComplete>},
      {"scanned", "U64", Zel::getBy<&InputSm::scanned>},
      {"inputSize", "U64", Zel::getBy<&InputSm::inputSize>}};
  static auto const attributes = Zel::pointersTo(list);
  return attributes;
}

void InputSm::start() {
  initializedIs(true);
  doInitializeTask();
  if (synchronous())
    doInputScan();
}

void InputSm::stop() {
  initializedIs(false);
  task_ = nullptr;
  machine_ = nullptr;
}

void InputSm::doInitializeTask() {
  if (machine_ == nullptr || synchronous())
    return;
  auto const & control = machine_->flowaControl();
  taskIs(
      control.taskScheduler, control.taskPriority,
      fmt::format("TunnelIntfSnmp::{}-{}InputScanTask", machine_->names().machine, names_.child));
}

void InputSm::taskIs(Zel::Ptr<Kiln::TaskScheduler> const & scheduler, Kiln::TaskPriority priority,
                     std::string_view name) {
  if (task_ && (*task_)->scheduler() == scheduler && (*task_)->priority() == priority &&
      (*task_)->name() == name)
    return;
  static Zel::Type const type{"TunnelIntfSnmp::ZelTask", ZelTask<InputSm>::attributesOfTask()};
  task_ =
      Zel::makePtr<ZelTask<InputSm>>(type, *this, &InputSm::handleTask, scheduler, priority, name);
  doInputScan();
}

bool InputSm::shouldYield() const {
  return task_ && !noYield() && (*task_)->taskShouldYield();
}

void InputSm::hasNotificationActiveIs(bool on) {
  InputStateMachine::hasNotificationActiveIs(on);
  if (auto const task = task_) // a run may complete the scan and release it
    task->hasNotificationActiveIs(on);
}

void InputSm::zelDoZombieReactors(bool doIt) {
  if (auto const task = task_)
    task->zelDoZombieReactors(doIt);
}

Lumo::Tracer InputSm::trace() const {
  return {machine_->trace().handler(), names_.child};
}

bool InputSm::streamScanned() const {
  return machine_->inputSmScanState()->scan(input_);
}

void InputSm::scanYields(std::uint64_t iterations) {
  scanState_ = ScanState::yielded;
  auto const size = inputSize();
  auto & task = *task_;
  task->taskWorkCountInc(iterations);
  task->taskWorkPendingIs(size);
  task->scheduleTask();
  LUMO_TRACE(trace(), 8, "{} {} yielding after {} iterations ({} remaining)",
             machine_->names().machine, names_.child, iterations,
             size > scanned_ ? size - scanned_ : 1);
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
  machine_->inputSmScanState()->scanIs(input_, true);
  LUMO_TRACE(trace(), 9, "{}{} scan, and parent scan, complete.", names_.child, pass);
}

} // namespace TunnelIntfSnmp
