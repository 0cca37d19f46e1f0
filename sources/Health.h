// How a source is doing: in step with what it reads, or not and why. Every source keeps one, so
// that whoever follows the sources is told alike.
#pragma once

#include "sources/Source.h"
#include <exception>
#include <functional>
#include <string>
#include <string_view>

namespace Sources {

/// Begins as stopped.
class Health {
public:
  using State = SourceStatus::State;

  /// Calls `changed` after each change of the state but the first one to inSync, which is a start
  /// that went well. What it raises is lost.
  explicit Health(std::function<void()> changed) : changed_(std::move(changed)) {}

  State state() const { return state_; }
  /// Empty unless the state is degraded.
  std::string const & lastError() const { return lastError_; }

  void inSyncIs();
  /// `error` is one line. Where there is no memory for it another one, shorter, stands.
  void degradedIs(std::string_view error);

private:
  void stateIs(State state);

  std::function<void()> const changed_;
  State state_ = State::stopped;
  std::string lastError_;
};

/// Keeps the error, one line; where there is no memory for it another one, shorter.
void errorIs(std::string & kept, std::string_view error);
/// What the exception says, in words for an operator.
std::string_view reasonOf(std::exception const & exception);

} // namespace Sources
