// What the machines do alike that follow attributes of single status records: a child machine for
// each interface, made when its status comes, replaced with it, and gone with it.
#pragma once

#include "TunnelIntfSnmp/CollectionSm.h"
#include <algorithm>
#include <bit>
#include <cstdint>
#include <string_view>
#include <utility>

namespace TunnelIntfSnmp {

/// Follows one interface's status record. `Child` says which of the record's attributes matter
/// (`static followed()`, at most 8 of them) and what its events are (`emit(intfId, status)`, where
/// null means that the status is gone). It has no task: it scans inline, within its parent's run,
/// and belongs to its parent.
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

  /// Emits the record as it is now, once; during the first pass, when nothing may be emitted, only
  /// says so.
  void doInputScan() {
    if (!initialized() || scanComplete_)
      return;
    LUMO_ASSERT(en(), "Sm args can only be null if marked as Optional in the SM type declaration");
    Zel::FirstException exception;
    if (machine_.initialScanDone())
      exception.run([&] { child().emit(intfId_, input_); });
    LUMO_TRACE(trace(), 9, "{}{} scan complete. ", Child::name,
               machine_.initialScanDone() ? "" : " initial");
    scanComplete_ = machine_.initialScanDone();
    exception.rethrow();
  }
  /// Emits that the status is gone.
  void doDeleteAll() {
    LUMO_TRACE(trace(), 9, "");
    child().emit(intfId_, nullptr);
  }

  /// From now on nothing of the record is heard: the child is no longer its parent's, though
  /// somebody may still hold it.
  void stop() {
    held_ = 0;
    notifierIs(nullptr);
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
    else if (notifier() != nullptr)
      machine_.inputUnheard();
  }
  /// Delivers what is held now, whether or not notification is on.
  void zelDoZombieReactors(bool doIt) {
    if (doIt)
      deliverHeld();
  }

protected:
  StatusChildSm(TableSmBase & machine, Plexa::IntfId intfId, StatusPtr status)
      : machine_(machine),
        intfId_(intfId),
        input_(std::move(status)) {
    InputStateMachine::hasNotificationActiveIs(true);
    notifierIs(input_.get());
    initializedIs(true);
    if (!input_ || !input_->hasNotificationActive() || input_->intfId() != intfId_)
      machine_.inputUnheard();
  }
  TableSmBase & machine() const { return machine_; }

private:
  StatusPtr const & en() const { return input_; }
  Child & child() { return static_cast<Child &>(*this); }
  Lumo::Tracer trace() const { return {machine_.trace().handler(), Child::name}; }

  // One event for each attribute that is held. A delivery may release the child.
  void deliverHeld() {
    if (held_ == 0 || notifier() == nullptr) // a child that was stopped may outlive its machine
      return;
    Zel::Ptr<TableSmBase> const keepMachine(&machine_);
    Zel::Ptr<StatusChildSm> const keepSelf(this);
    Zel::FirstException exception;
    for (auto left = std::popcount(std::exchange(held_, 0)); left != 0 && notifier(); --left)
      exception.run([&] { handleReactor(); });
    exception.rethrow();
  }
  void handleReactor() {
    Zel::FirstException exception;
    inReactor_ = true;
    exception.run([&] { child().emit(intfId_, input_); });
    inReactor_ = false;
    exception.rethrow();
  }

  bool inReactor_ = false;
  bool scanComplete_ = false;
  std::uint8_t held_ = 0; // a bit for each of followed()
  TableSmBase & machine_;
  Plexa::IntfId const intfId_;
  StatusPtr const input_;
};

/// The child machine over intfStatus of such a machine: it owns a `Child` for each interface.
template <class Machine, class Child>
class StatusParentSm final : public IntfStatusCollectionSm {
public:
  StatusParentSm(Machine & root, StatusDirPtr tunnelIntfStatusDir)
      : CollectionSm(root, std::move(tunnelIntfStatusDir), "IntfStatusSm0", tisStream),
        root_(root) {}
  ~StatusParentSm() override { childSmDelAll(); }

  /// The child of the interface, or null.
  Zel::Ptr<Child> childSm(Plexa::IntfId intfId) const {
    auto const * found = children_.find(intfId);
    return found == nullptr ? nullptr : *found;
  }
  /// Keeps the interface's child if it has this very record, else replaces it.
  Zel::Ptr<Child> childSmIs(StatusPtr const & status, Plexa::IntfId intfId) {
    if (auto child = childSm(intfId)) {
      if (child->status() == status)
        return child;
      child->stop();
    }
    return children_.insertOrReplace(intfId, Zel::makePtr<Child>(root_, intfId, status));
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

  /// Every child emits that its status is gone. What was missed of the collection does not matter
  /// here: the children are what was heard of.
  void doDeleteAll() override {
    Zel::Ptr<TableSmBase> const keepMachine(&root_);
    LUMO_TRACE(trace(), 9, "");
    Zel::FirstException exception;
    children_.forEach([&](Plexa::IntfId, Zel::Ptr<Child> const & child) {
      exception.run([&] { child->doDeleteAll(); });
    });
    exception.rethrow();
  }
  void hasNotificationActiveIs(bool on) override {
    Zel::FirstException exception;
    exception.run([&] { IntfStatusCollectionSm::hasNotificationActiveIs(on); });
    children_.forEach([&](Plexa::IntfId, Zel::Ptr<Child> const & child) {
      exception.run([&] { child->hasNotificationActiveIs(on); });
    });
    exception.rethrow();
  }
  void zelDoZombieReactors(bool doIt) override {
    Zel::FirstException exception;
    exception.run([&] { IntfStatusCollectionSm::zelDoZombieReactors(doIt); });
    children_.forEach([&](Plexa::IntfId, Zel::Ptr<Child> const & child) {
      exception.run([&] { child->zelDoZombieReactors(doIt); });
    });
    exception.rethrow();
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
    Zel::FirstException exception;
    exception.run([&] { child->doDeleteAll(); });
    if (childSm(intfId) == child) // else who heard of the deletion brought a new status
      childSmDel(intfId);
    exception.rethrow();
  }

  Machine & root_;
  Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<Child>> children_;
};

} // namespace TunnelIntfSnmp
