// How the reading of one kind of thing from the kernel is doing, where the kernel may not let us:
// that is no fault. It is said once, and what depends on it does without.
#pragma once

#include "platform/Lumo.h"
#include "sources/linux/NetlinkSockets.h"
#include <chrono>
#include <exception>
#include <functional>
#include <string>
#include <string_view>

namespace Sources::Linux {

class ReaderHealth {
public:
  /// `otherwise` is what is so as long as the kernel refuses. `changed` is called after each
  /// change. All of it outlives this. Requires: `changed` raises nothing.
  ReaderHealth(NetlinkSubject const & subject, Lumo::DebugHandler const & trace,
               std::string_view otherwise, std::function<void()> changed);

  /// What is wrong, one line; empty when nothing is, or the kernel refuses.
  std::string const & lastError() const { return lastError_; }
  /// Why the kernel refuses, and what would help; empty when it does not.
  std::string const & refusal() const { return refusal_; }

  // As KernelReader tells its user. A refusal is not tried again before `period` is over.
  void isInSync();
  void isDegraded(std::string_view error);
  std::chrono::milliseconds retryAfter(std::exception const & reason,
                                       std::chrono::milliseconds period);
  /// The kernel has answered.
  void isAnswered() { refusal_.clear(); }

private:
  std::string refusalOf(std::exception const & reason) const;

  NetlinkSubject const & subject_;
  Lumo::DebugHandler const & trace_;
  std::string_view const otherwise_;
  std::function<void()> const changed_;
  std::string lastError_;
  std::string refusal_;
};

} // namespace Sources::Linux
