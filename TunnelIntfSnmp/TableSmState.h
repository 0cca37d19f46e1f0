// What a state machine says of its state: which input scans are complete and which outputs are
// ready.
#pragma once

#include "platform/Zel.h"
#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace TunnelIntfSnmp {

/// One output of a machine, as it is known outside.
struct OutputNames {
  std::string_view output; ///< "mibTunnelIfTableOutput"
  Zel::Attribute ready;    ///< of OutputState
};

/// The names by which one machine's parts are known outside.
struct TableSmNames {
  std::string_view machine; ///< "TunnelIfTableSm"; the unit and the trace handler as well
  std::string_view tisStream;
  Zel::Attribute tisStreamScan; ///< of InputSmScanState
  /// A machine's private stores, if it has any, and last its table of TunnelMib.
  std::span<OutputNames const> outputs;

  std::size_t mibOutput() const { return outputs.size() - 1; }
};

/// Which input scans are complete. Each setter stores and notifies only a change.
class InputSmScanState : public Zel::PtrInterface {
public:
  explicit InputSmScanState(TableSmNames const & names) : names_(names) {}
  static Zel::Attribute const & ifMibStreamScanAttribute();
  static Zel::Attribute const & idleAttribute();

  bool ifMibStreamScan() const { return ifMibStreamScan_; }
  bool tisStreamScan() const { return tisStreamScan_; }
  bool idle() const { return idle_; }
  void ifMibStreamScanIs(bool complete);
  void tisStreamScanIs(bool complete);
  void handleIdle();

private:
  TableSmNames const & names_;
  bool ifMibStreamScan_ = false;
  bool tisStreamScan_ = false;
  bool idle_ = false;
};

/// Which outputs are ready. `ready` is true if and only if all are; it is notified before the
/// output's own attribute.
class OutputState : public Zel::PtrInterface {
public:
  explicit OutputState(TableSmNames const & names)
      : names_(names),
        outputsReady_(names.outputs.size()) {}
  static Zel::Attribute const & readyAttribute();

  /// Outputs are numbered as in TableSmNames::outputs.
  bool outputReady(std::size_t output) const { return outputsReady_[output]; }
  bool ready() const { return ready_; }
  /// Requires: the output is not ready. It never ceases to be.
  void outputBecomesReady(std::size_t output);

private:
  void handleReady();

  TableSmNames const & names_;
  std::vector<bool> outputsReady_;
  bool ready_ = false;
};

} // namespace TunnelIntfSnmp
