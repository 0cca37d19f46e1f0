// Which input scans are complete and which outputs are ready, told as it changes.
#include "TunnelIntfSnmp/TableSmState.h"
#include <algorithm>
#include <utility>

namespace TunnelIntfSnmp {

InputSmScanState::InputSmScanState(TableSmNames const & names)
    : names_(names),
      scans_(names.inputs.size()) {}

Zel::Attribute const & InputSmScanState::idleAttribute() {
  static Zel::Attribute const attribute{"idle", "bool", Zel::getBy<&InputSmScanState::idle>};
  return attribute;
}

bool InputSmScanState::everyScan() const {
  return std::ranges::all_of(scans_, [](bool complete) { return complete; });
}

void InputSmScanState::scanIs(std::size_t input, bool complete) {
  if (scans_[input] == complete)
    return;
  scans_[input] = complete;
  changed(names_.inputs[input].scan);
}

void InputSmScanState::handleIdle() {
  if (!std::exchange(idle_, true))
    changed(idleAttribute());
}

void InputSmScanState::hasNotificationActiveIs(bool on) {
  PtrInterface::hasNotificationActiveIs(on);
  if (on)
    for (auto const * attribute : std::exchange(untold_, {}))
      changed(*attribute); // who hears of one may silence this again: the rest waits on then
}

void InputSmScanState::changed(Zel::Attribute const & attribute) {
  if (hasNotificationActive())
    tell(attribute);
  else if (std::ranges::find(untold_, &attribute) == untold_.end())
    untold_.push_back(&attribute);
}

OutputState::OutputState(TableSmNames const & names)
    : names_(names),
      outputsReady_(names.outputs.size()) {}

Zel::Attribute const & OutputState::readyAttribute() {
  static Zel::Attribute const attribute{"ready", "bool", Zel::getBy<&OutputState::ready>};
  return attribute;
}

void OutputState::outputBecomesReady(std::size_t output) {
  outputsReady_[output] = true;
  handleReady();
  tell(names_.outputs[output].ready);
}

void OutputState::handleReady() {
  if (std::ranges::find(outputsReady_, false) != outputsReady_.end())
    return;
  ready_ = true;
  tell(readyAttribute());
}

} // namespace TunnelIntfSnmp
