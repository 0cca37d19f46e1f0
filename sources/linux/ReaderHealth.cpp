// Words for what the kernel refuses; anything else is told as it is.
#include "sources/linux/ReaderHealth.h"
#include "sources/Health.h"
#include "sources/linux/KernelReader.h"
#include <fmt/format.h>
#include <utility>

namespace Sources::Linux {
namespace {

constexpr int fault = 0;

} // namespace

ReaderHealth::ReaderHealth(NetlinkSubject const & subject, Lumo::DebugHandler const & trace,
                           std::string_view otherwise, std::function<void()> changed)
    : subject_(subject),
      trace_(trace),
      otherwise_(otherwise),
      changed_(std::move(changed)) {}

void ReaderHealth::isInSync() {
  lastError_.clear();
  changed_();
}

void ReaderHealth::isDegraded(std::string_view error) {
  if (refusal_.empty()) {
    LUMO_TRACE(trace_, fault, "{}", error);
    errorIs(lastError_, error);
  }
  changed_();
}

std::chrono::milliseconds ReaderHealth::retryAfter(std::exception const & reason,
                                                   std::chrono::milliseconds period) {
  auto const refusal = refusalOf(reason);
  if (!refusal.empty() && refusal != refusal_)
    LUMO_TRACE(trace_, fault, "{}: {}", subject_.things, refusal);
  refusal_ = refusal;
  if (refusal.empty())
    return KernelReader::retryPeriod;
  lastError_.clear();
  return period;
}

std::string ReaderHealth::refusalOf(std::exception const & reason) const {
  auto const * const error = dynamic_cast<NetlinkError const *>(&reason);
  if (error == nullptr || error->reason() == NetlinkError::Reason::other)
    return {};
  auto const isPermission = error->reason() == NetlinkError::Reason::notPermitted;
  return fmt::format("{}; until then {}",
                     isPermission ? "not permitted: give CAP_NET_ADMIN"
                                  : "not supported by this kernel: load xfrm_user",
                     otherwise_);
}

} // namespace Sources::Linux
