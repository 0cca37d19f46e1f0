// Flowa, the reactive state-machine runtime: the control record that a machine is given, the base
// of its input machines, and the reactor by which each hears of changes.
#pragma once

#include "platform/Kiln.h"
#include "platform/Lumo.h"
#include "platform/Zel.h"
#include <compare>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace Skein {
/// The text form of a handle is its number.
inline void strepWrite(std::string & out, TraceHandle handle) {
  Zel::strepWrite(out, handle.ring);
}
inline void strepRead(Zel::StrepReader & in, TraceHandle & handle) {
  Zel::strepRead(in, handle.ring);
}
} // namespace Skein

namespace Flowa {

/// How a machine is to work. A value: each holder has its own copy. Its text form tells everything
/// but the scheduler, which is an object and has none.
class SmControl {
public:
  Zel::Ptr<Kiln::TaskScheduler> taskScheduler; ///< null: the machine takes the default scheduler
  Kiln::TaskPriority taskPriority = 0;
  std::string traceHandlerName;     ///< empty: the machine's own handler
  std::uint8_t synchronousMode = 0; ///< 1 synchronous, 2 in tasks, else the machine's default
  std::uint32_t version = 0;        // carried, not read by the machines
  bool codefEnabled = false;        // likewise
  bool defaultSynchronous = false;  // likewise

  Skein::TraceHandle qtHandle() const { return qtHandle_; }
  void qtHandleIs(Skein::TraceHandle handle) { qtHandle_ = handle; }

  static constexpr std::string_view typeName = "Flowa::SmControl";
  static constexpr auto fields();

private:
  Skein::TraceHandle qtHandle_;
};
constexpr auto SmControl::fields() {
  return std::tuple{Zel::Field{"taskPriority", &SmControl::taskPriority},
                    Zel::Field{"traceHandlerName", &SmControl::traceHandlerName},
                    Zel::Field{"synchronousMode", &SmControl::synchronousMode},
                    Zel::Field{"qtHandle", &SmControl::qtHandle_},
                    Zel::Field{"version", &SmControl::version},
                    Zel::Field{"codefEnabled", &SmControl::codefEnabled},
                    Zel::Field{"defaultSynchronous", &SmControl::defaultSynchronous}};
}

namespace Gen {

/// What every child machine is, one per input. `Base` is Zel::Notifiee for one that hears its input
/// itself, and has no reactor beside it.
template <class Base = Zel::PtrInterface>
class InputStateMachine : public Base {
public:
  /// A child does nothing before it is initialized.
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }
  /// While set, the child never yields.
  bool noYield() const { return noYield_; }
  void noYieldIs(bool noYield) { noYield_ = noYield; }

private:
  bool initialized_ = false;
  bool noYield_ = false;
};

/// The key of a change of an attribute that is no collection.
struct NoKey {
  auto operator<=>(NoKey const &) const = default;
};

/// Hands the changes of one object on to the machine that owns the reactor.
///
/// While its notification is switched off it holds what it hears, each (attribute, key) once and in
/// order, and delivers it when notification comes on again, or when zelDoZombieReactors() finds the
/// owner about to go. Keys are compared with `<` for that. An exception of one delivery does not
/// stop the others; the first one is thrown on at the end. Once ownerDeletedIs() has been called it
/// ignores everything. The owner may release its reactor from inside a delivery.
template <class Owner, class Key = NoKey>
class InReactor final : public Zel::Notifiee {
public:
  using Handler = void (Owner::*)(Zel::Attribute const &, Key const &);

  InReactor(Owner & owner, Handler handler, Zel::PtrInterface const * notifier)
      : owner_(&owner),
        handler_(handler) {
    Zel::PtrInterface::hasNotificationActiveIs(true);
    notifierIs(notifier);
  }

  void onNotification(Zel::Notification const & notification) override {
    if constexpr (std::is_same_v<Key, NoKey>)
      take(notification.attribute(), NoKey());
    else
      take(notification.attribute(), notification.template key<Key>());
  }
  void hasNotificationActiveIs(bool on) override {
    Zel::PtrInterface::hasNotificationActiveIs(on);
    if (on)
      deliverHeld();
  }
  /// Delivers what is held now, whether or not notification is on.
  void zelDoZombieReactors(bool doIt) {
    if (doIt)
      deliverHeld();
  }
  /// The owner is going: from now on nothing reaches it.
  void ownerDeletedIs() {
    owner_ = nullptr;
    order_.clear();
    held_.clear();
    notifierIs(nullptr);
  }

private:
  using Change = std::pair<Zel::Attribute const *, Key>;

  void take(Zel::Attribute const & attribute, Key const & key) {
    if (owner_ == nullptr)
      return;
    if (hasNotificationActive())
      deliver(attribute, key);
    else if (auto const [change, isNew] = held_.emplace(&attribute, key); isNew)
      order_.push_back(&*change);
  }
  void deliver(Zel::Attribute const & attribute, Key const & key) {
    (owner_->*handler_)(attribute, key);
  }
  void deliverHeld() {
    Zel::Ptr<InReactor> const self(this); // a delivery may release us
    Zel::FirstException exception;
    auto const held = std::exchange(held_, {});
    for (auto const * change : std::exchange(order_, {}))
      if (owner_ != nullptr)
        exception.run([&] { deliver(*change->first, change->second); });
    exception.rethrow();
  }

  Owner * owner_; // null once it is going
  Handler handler_;
  std::set<Change> held_;
  std::vector<Change const *> order_; // of those, in which they came
};

} // namespace Gen
} // namespace Flowa
