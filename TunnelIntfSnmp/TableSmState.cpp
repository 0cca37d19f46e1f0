// Which input scans are complete and which outputs are ready, told as it changes.
#include "TunnelIntfSnmp/TableSmState.h"
#include <algorithm>
#include <utility>

namespace TunnelIntfSnmp {

Zel::Attribute const & InputSmScanState::ifMibStreamScanAttribute() {
  static Zel::Attribute const attribute{"ifMibStreamScan", "bool"};
  return attribute;
}
Zel::Attribute const & InputSmScanState::idleAttribute() {
  static Zel::Attribute const attribute{"idle", "bool"};
  return attribute;
}

void InputSmScanState::ifMibStreamScanIs(bool complete) {
  if (std::exchange(ifMibStreamScan_, complete) != complete)
    tell(ifMibStreamScanAttribute());
}
void InputSmScanState::tisStreamScanIs(bool complete) {
  if (std::exchange(tisStreamScan_, complete) != complete)
    tell(names_.tisStreamScan);
}
void InputSmScanState::handleIdle() {
  if (!std::exchange(idle_, true))
    tell(idleAttribute());
}

Zel::Attribute const & OutputState::readyAttribute() {
  static Zel::Attribute const attribute{"ready", "bool"};
  return attribute;
}

void OutputState::outputBecomesReady(std::size_t output) {
  outputsReady_[output] = true;
  handleReady();
  tell(names_.outputs[output].ready);
}
void OutputState::handleReady() {
  if (std::find(outputsReady_.begin(), outputsReady_.end(), false) != outputsReady_.end())
    return;
  ready_ = true;
  tell(readyAttribute());
}

} // namespace TunnelIntfSnmp
