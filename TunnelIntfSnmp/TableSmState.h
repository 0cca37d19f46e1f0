// What a state machine says of its state: which input scans are complete and which outputs are
// ready; and the names by which its parts are known outside.
#pragma once

#include "platform/Zel.h"
#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace TunnelIntfSnmp {

/// One input of a machine, as it is known outside.
struct InputNames {
  std::string_view child;  ///< "IntfStatusSm0"
  std::string_view stream; ///< what its events are called: "tisStream"
  Zel::Attribute scan;     ///< of InputSmScanState: "tisStreamScan"
  Zel::Type type;          ///< of the child
};

/// One output of a machine, as it is known outside.
struct OutputNames {
  std::string_view output; ///< "mibTunnelIfTableOutput"
  Zel::Attribute ready;    ///< of OutputState
};

/// The names by which one machine's parts are known outside. Lives as long as the library.
struct TableSmNames {
  std::string_view machine; ///< "TunnelIfTableSm"; the unit and the trace handler as well
  /// In the order in which they are made and scanned.
  std::span<InputNames const> inputs;
  /// A machine's private stores, if it has any, and last its table of TunnelMib.
  std::span<OutputNames const> outputs;
  Zel::Type const & scanState;
  Zel::Type const & outputState;
  Zel::Type const & reconciliationTask;

  std::size_t mibOutput() const { return outputs.size() - 1; }
};

/// Which input scans are complete. Each setter stores and tells only a change. The machine waits
/// for what it is told here: what changes while notification is off is told when it comes on again.
class InputSmScanState : public Zel::PtrInterface {
public:
  explicit InputSmScanState(TableSmNames const & names);
  Zel::Type const & type() const override { return names_.scanState; }
  static Zel::Attribute const & idleAttribute();

  /// Inputs are numbered as in TableSmNames::inputs.
  bool scan(std::size_t input) const { return scans_[input]; }
  bool everyScan() const;
  bool idle() const { return idle_; }
  void scanIs(std::size_t input, bool complete);
  void handleIdle();

  void hasNotificationActiveIs(bool on) override;

  /// For the attribute of an input.
  template <std::size_t input>
  static Zel::Value scanOf(Zel::PtrInterface const & state) {
    return Zel::toValue(static_cast<InputSmScanState const &>(state).scan(input));
  }

private:
  void changed(Zel::Attribute const & attribute);

  TableSmNames const & names_;
  std::vector<bool> scans_;
  bool idle_ = false;
  std::vector<Zel::Attribute const *> untold_; // what changed while notification was off
};

/// Which outputs are ready. `ready` is true if and only if all are; it is told before the output's
/// own attribute.
class OutputState : public Zel::PtrInterface {
public:
  explicit OutputState(TableSmNames const & names);
  Zel::Type const & type() const override { return names_.outputState; }
  static Zel::Attribute const & readyAttribute();

  /// Outputs are numbered as in TableSmNames::outputs.
  bool outputReady(std::size_t output) const { return outputsReady_[output]; }
  bool ready() const { return ready_; }
  /// Requires: the output is not ready. It never ceases to be.
  void outputBecomesReady(std::size_t output);

  /// For the attribute of an output.
  template <std::size_t output>
  static Zel::Value readyOf(Zel::PtrInterface const & state) {
    return Zel::toValue(static_cast<OutputState const &>(state).outputReady(output));
  }

private:
  void handleReady();

  TableSmNames const & names_;
  std::vector<bool> outputsReady_;
  bool ready_ = false;
};

} // namespace TunnelIntfSnmp
