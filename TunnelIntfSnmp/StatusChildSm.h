// What the machines do alike that follow attributes of single status records: a child machine for
// each interface, made when its status comes, replaced with it, and gone with it.
//
//   a child is  when                                     it hears  it is in the map
//   following   its status stands in the collection      yes       yes
//   leaving     its status went, and the event of that   no        yes, unless another replaced it
//               is under way: the row goes first
//   stopped     it was replaced, or its row is gone,     no        no
//               or the machine is
//
// What is hard here is the event in which a status goes. The child has to be in the map until the
// row is gone, and a listener of that row may put a status back, the very same record included.
// Such a record is a new one for the machine: it gets a child of its own, and an event. So a child
// that leaves hears nothing any more and is never kept for a record that comes. Nothing of a child
// may be used after an event without a look: it may have been replaced, stopped, or released.
#pragma once

#include "TunnelIntfSnmp/CollectionSm.h"
#include <absl/cleanup/cleanup.h>
#include <algorithm>
#include <bit>
#include <cstdint>
#include <string_view>
#include <utility>

namespace TunnelIntfSnmp {

/// Follows one interface's status record. `Child` says which of the record's attributes matter
/// (`static followed()`, at most 8 of them) and what its events are (`emit(machine, intfId,
/// status)`, where null means that the status is gone). It has no task: it scans inline, within its
/// parent's run.
///
/// There is one for each tunnel: it hears the record itself, without a reactor beside it. While its
/// notification is off it holds what it hears, each attribute once, as a reactor does.
template <class Child>
class StatusChildSm : public Flowa::Gen::InputStateMachine<Zel::Notifiee> {
public:
  Plexa::IntfId intfId() const { return intfId_; }
  StatusPtr const & status() const { return input_; }
  /// True if and only if the child is handling a change of its record.
  bool inReactor() const { return inReactor_; }
  /// True if and only if the record has been emitted once after the first pass.
  bool inputScanComplete() const { return scanComplete_; }
  /// True if and only if the child hears of its record: it neither leaves nor is stopped.
  bool isFollowing() const { return notifier() != nullptr; }

  /// Emits the record as it is now, once; during the first pass, when nothing may be emitted, only
  /// says so.
  void doInputScan() {
    Zel::Ptr<TableSmBase> const machine(machine_);
    if (!machine || scanComplete_)
      return;
    LUMO_ASSERT(en(), "Sm args can only be null if marked as Optional in the SM type declaration");
    if (machine->initialScanDone())
      Child::emit(*machine, intfId_, input_);
    LUMO_TRACE(traceOf(*machine), 9, "{}{} scan complete. ", Child::name,
               machine->initialScanDone() ? "" : " initial");
    scanComplete_ = machine->initialScanDone();
  }
  /// Emits that the status is gone.
  void doDeleteAll() {
    Zel::Ptr<TableSmBase> const machine(machine_);
    if (!machine)
      return;
    LUMO_TRACE(traceOf(*machine), 9, "");
    Child::emit(*machine, intfId_, nullptr);
  }

  /// From now on nothing of the record is heard.
  void leave() {
    held_ = 0;
    notifierIs(nullptr);
  }
  /// Nothing is done any more, either.
  void stop() {
    leave();
    initializedIs(false);
    machine_ = nullptr;
  }

  void onNotification(Zel::Notification const & notification) override {
    auto const followed = Child::followed();
    auto const found = std::ranges::find(followed, &notification.attribute());
    if (found == followed.end())
      return;
    held_ |= static_cast<std::uint8_t>(1u << (found - followed.begin()));
    if (hasNotificationActive())
      deliverHeld();
  }
  void hasNotificationActiveIs(bool on) override {
    InputStateMachine::hasNotificationActiveIs(on);
    if (on)
      deliverHeld();
  }
  /// Delivers what is held now, whether or not notification is on.
  void zelDoZombieReactors(bool doIt) {
    if (doIt)
      deliverHeld();
  }

protected:
  StatusChildSm(TableSmBase & machine, Plexa::IntfId intfId, StatusPtr status)
      : machine_(&machine),
        intfId_(intfId),
        input_(std::move(status)) {
    notifierIs(input_.get());
    initializedIs(true);
  }

private:
  StatusPtr const & en() const { return input_; }
  static Lumo::Tracer traceOf(TableSmBase const & machine) {
    return {machine.trace().handler(), Child::name};
  }

  // One event for each attribute that is held.
  void deliverHeld() {
    Zel::Ptr<TableSmBase> const machine(machine_);
    Zel::Ptr<StatusChildSm> const self(this);
    for (auto left = std::popcount(std::exchange(held_, 0)); left != 0 && isFollowing(); --left)
      handleReactor(*machine);
  }
  void handleReactor(TableSmBase & machine) {
    inReactor_ = true;
    absl::Cleanup const end = [this] { inReactor_ = false; };
    Child::emit(machine, intfId_, input_);
  }

  bool inReactor_ = false;
  bool scanComplete_ = false;
  std::uint8_t held_ = 0; // a bit for each of followed()
  TableSmBase * machine_; // null once it is stopped
  Plexa::IntfId const intfId_;
  StatusPtr const input_;
};

/// The child machine over intfStatus of such a machine: it owns a `Child` for each interface.
/// `Child::lossNeedsTheStamp` says whether the loss of all statuses is fatal when one of them came
/// or went unheard.
template <class Machine, class Child>
class StatusParentSm final : public IntfStatusCollectionSm {
public:
  StatusParentSm(Machine & root, std::size_t input, StatusDirPtr tunnelIntfStatusDir)
      : CollectionSm(root, input, std::move(tunnelIntfStatusDir)),
        root_(root) {}
  ~StatusParentSm() override { childSmDelAll(); }

  /// The child of the interface, or null.
  Zel::Ptr<Child> childSm(Plexa::IntfId intfId) const {
    auto const * found = children_.find(intfId);
    return found == nullptr ? nullptr : *found;
  }
  /// Keeps the interface's child if it follows this very record, else replaces it. A new one holds
  /// what it hears for as long as its parent does.
  Zel::Ptr<Child> childSmIs(StatusPtr const & status, Plexa::IntfId intfId) {
    if (auto child = childSm(intfId)) {
      if (child->status() == status && child->isFollowing())
        return child;
      child->stop();
    }
    auto child = Zel::makePtr<Child>(root_, intfId, status);
    child->hasNotificationActiveIs(this->deliversChanges());
    return children_.insertOrReplace(intfId, child);
  }
  void childSmDel(Plexa::IntfId intfId) {
    if (auto const child = childSm(intfId))
      child->stop();
    children_.erase(intfId);
  }
  void childSmDelAll() {
    children_.forEach([](Plexa::IntfId, Zel::Ptr<Child> const & child) { child->stop(); });
    children_.clear();
  }

  /// True if and only if each change of that interface's record is heard now: it is the record of
  /// the child, which has its notification on, as the record has, and it says itself that it is
  /// this interface's.
  bool hears(Plexa::IntfId intfId, StatusPtr const & status) const {
    auto const * child = children_.find(intfId);
    return child != nullptr && (*child)->status() == status && (*child)->isFollowing() &&
           (*child)->hasNotificationActive() && status->hasNotificationActive() &&
           status->intfId() == intfId;
  }

  void stop() override {
    childSmDelAll();
    IntfStatusCollectionSm::stop();
  }
  /// Every child emits that its status is gone.
  void doDeleteAll() override {
    auto const machine = this->keepMachine();
    if (!initialized())
      return;
    LUMO_TRACE(trace(), 9, "");
    if (Child::lossNeedsTheStamp)
      assertNothingMissed();
    children_.forEach([](Plexa::IntfId, Zel::Ptr<Child> const & child) { child->doDeleteAll(); });
  }
  void hasNotificationActiveIs(bool on) override {
    IntfStatusCollectionSm::hasNotificationActiveIs(on);
    children_.forEach([this, on](Plexa::IntfId, Zel::Ptr<Child> const & child) {
      if (hasNotificationActive() == on) // else a listener has switched back
        child->hasNotificationActiveIs(on);
    });
  }
  void zelDoZombieReactors(bool doIt) override {
    IntfStatusCollectionSm::zelDoZombieReactors(doIt);
    children_.forEach(
        [doIt](Plexa::IntfId, Zel::Ptr<Child> const & child) { child->zelDoZombieReactors(doIt); });
  }

private:
  void handleKey(Plexa::IntfId const & intfId) override {
    if (!initialized())
      return;
    observeChangeStamp();
    LUMO_TRACE(trace(), 9, "k: {}", intfId);
    if (auto const status = valueOf(intfId))
      childSmIs(*status, intfId)->doInputScan();
    else
      handleGone(intfId);
  }
  void handleGone(Plexa::IntfId const & intfId) override {
    auto const child = childSm(intfId);
    if (!child)
      return;
    child->leave();
    child->doDeleteAll();
    if (childSm(intfId) == child) // else who heard of the deletion brought a status
      childSmDel(intfId);
  }

  Machine & root_; // not used once it is stopped
  Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<Child>> children_;
};

} // namespace TunnelIntfSnmp
