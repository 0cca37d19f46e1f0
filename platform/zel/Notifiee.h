// Who hears of a change, and what the hearer is told.
#pragma once

#include "platform/zel/Ptr.h"
#include <cstddef>
#include <typeinfo>

namespace Zel {

namespace Detail {
[[noreturn]] void wrongKeyType(std::type_info const & told, std::type_info const & asked);
} // namespace Detail

/// One change: the object, its attribute and, for a collection, the key. Valid only inside the
/// notification; a notifiee that needs the key later copies it.
class Notification {
public:
  Notification(PtrInterface const & source, Attribute const & attribute)
      : source_(source),
        attribute_(attribute) {}
  template <class Key>
  Notification(PtrInterface const & source, Attribute const & attribute, Key const & key)
      : source_(source),
        attribute_(attribute),
        key_(&key),
        keyType_(&typeid(Key)) {}

  PtrInterface const & source() const { return source_; }
  /// Attributes are told apart by identity: compare addresses.
  Attribute const & attribute() const { return attribute_; }
  /// The key that changed. Asking for another type than the collection's own is fatal.
  template <class Key>
  Key const & key() const {
    if (keyType_ == nullptr || *keyType_ != typeid(Key))
      Detail::wrongKeyType(keyType_ ? *keyType_ : typeid(void), typeid(Key));
    return *static_cast<Key const *>(key_);
  }

private:
  PtrInterface const & source_;
  Attribute const & attribute_;
  void const * key_ = nullptr;
  std::type_info const * keyType_ = nullptr;
};

/// Hears the changes of one object, from its connection to its destruction or disconnection,
/// whichever comes first. Both ends may go in any order.
///
/// While a notification of that object is under way: a notifiee that leaves is not called any more;
/// one that comes hears the next change, not this one; a change made by a notifiee is told in full,
/// inside, before the rest of the outer notification goes on. An exception of a notifiee does not
/// stop the others. Where it goes depends on the object. A record lets the first exception through,
/// when all have been called, to the caller of the mutator; each further one is dropped and counted
/// ("zel-exceptions-dropped"), and the first one as well while the record is destroyed, when there
/// is no caller. A table, a store or a machine's flags contain every exception: it is counted
/// ("zel-exceptions-contained") and reported, and no caller sees it.
class Notifiee : public PtrInterface {
public:
  ~Notifiee() override;

  /// Listens to `notifier` from now on, and no longer to what it listened to before. Null: to none.
  void notifierIs(PtrInterface const * notifier);
  /// What it listens to, or null. Not owned.
  PtrInterface const * notifier() const { return notifier_; }

  /// Called after each change, when the object is consistent again. May change the object, connect
  /// and disconnect any notifiee, and release its own last reference.
  virtual void onNotification(Notification const & notification) = 0;

private:
  friend class PtrInterface;
  class Round;
  PtrInterface const * notifier_ = nullptr;
  Notifiee * next_ = nullptr; // among the notifiees of that object, in the order in which they came
};

template <class Key>
void PtrInterface::notify(Attribute const & attribute, Key const & key) const {
  if (notifiees_ != nullptr && hasNotificationActive())
    notifyAll(Notification(*this, attribute, key));
}
template <class Key>
void PtrInterface::tell(Attribute const & attribute, Key const & key) const {
  if (notifiees_ != nullptr && hasNotificationActive())
    tellAll(Notification(*this, attribute, key));
}

} // namespace Zel
