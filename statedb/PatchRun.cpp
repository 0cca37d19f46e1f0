// Three passes over the operations: checked, made, given back. The last is there because to destroy
// a hundred thousand operations at once would take as long as a whole run may.
#include "statedb/PatchRun.h"
#include "platform/Lumo.h"
#include "statedb/Patch.h"
#include <cstddef>
#include <cstdint>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace StateDb {

using nlohmann::json;

namespace {
Lumo::Counter checksBegunAnew("statedb-patch-checks-begun-anew");
} // namespace

struct PatchRun::State {
  StateDb & database;
  NotifieeFailed const & notifieeFailed;
  json patch; // an array
  std::optional<Patch> plan{};
  std::uint64_t changesBefore = 0; // when the checks began
  int restarts = 0;
  std::size_t checked = 0; // operations
  bool isChecked = false;  // all of them
  std::size_t made = 0;    // changes
};

PatchRun::PatchRun(StateDb & database, json patch, NotifieeFailed const & notifieeFailed)
    : state_(new State{database, notifieeFailed, std::move(patch)}) {
  if (!state_->patch.is_array())
    throw DocumentError(
        DocumentError::npos, "",
        fmt::format("a patch must be an array of operations, not {}", shown(state_->patch)));
  beginChecks();
}

PatchRun::PatchRun(PatchRun &&) noexcept = default;
PatchRun::~PatchRun() = default;

// The first change is made in the step of the last check: in between nobody can change what was
// checked.
bool PatchRun::step() {
  if (!state_->isChecked)
    state_->isChecked = checkNext();
  return !state_->isChecked || makeNext() || giveBackNext();
}

void PatchRun::giveUp() noexcept {
  state_->isChecked = true;
  state_->made = state_->plan->changes().size();
}

// True if and only if all are checked. A database that others change all the time must not keep a
// patch from ever being made.
bool PatchRun::checkNext() {
  auto & state = *state_;
  if (changesMade() != state.changesBefore) {
    checksBegunAnew.inc();
    ++state.restarts;
    beginChecks();
  }
  while (state.checked != state.patch.size()) {
    inOperation(state.checked, [&] { state.plan->plan(state.patch[state.checked]); });
    ++state.checked;
    if (state.restarts < restartsMost)
      break;
  }
  return state.checked == state.patch.size();
}

void PatchRun::beginChecks() {
  state_->checked = 0;
  state_->plan.emplace(state_->database);
  state_->changesBefore = changesMade();
}

bool PatchRun::makeNext() {
  auto & state = *state_;
  auto & changes = state.plan->changes();
  if (state.made == changes.size())
    return false;
  auto const change = std::exchange(changes[state.made], {});
  ++state.made;
  makeChange(
      state.notifieeFailed, [&] { carryOut(state.database, change); },
      [&] { return change.where.pointer; });
  return true;
}

bool PatchRun::giveBackNext() {
  auto & operations = state_->patch.get_ref<json::array_t &>();
  if (!operations.empty())
    operations.pop_back();
  return state_->plan->forgetNext() || !operations.empty();
}

} // namespace StateDb
