// Counted objects and the pointers that hold them.
//
// Every object of the model, the machines and the input records is a PtrInterface and lives on the
// heap for exactly as long as a Ptr refers to it. An object can also notify: Notifiee.h says how.
#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace Zel {

struct Type;
struct Attribute;
class Notifiee;
class Notification;

/// Switches the whole process between plain reference counts (off, the default) and atomic ones.
/// Requires: no other thread uses a Ptr while the switch is turned.
void threadSafePtrsIs(bool on);
/// True if and only if counts are changed atomically.
bool threadSafePtrs();

/// How often the notification of any object was switched off so far. While the number stays the
/// same, no object that told of its changes has ceased to.
std::uint64_t silencings();

namespace Detail {
extern bool threadSafePtrs;
[[noreturn]] void nullDereference(char const * typeName);
} // namespace Detail

/// Base of every counted object: a reference count, a description of the type, and the notifiees.
///
/// A new object has one reference, which makePtr() hands to the Ptr that it returns, so that an
/// object may refer to itself while it is constructed; nothing else may create one on the heap. The
/// end of the last reference destroys it through handleZeroReferences(). Notification is off at
/// first. Never copied.
/// Not thread-safe but for the count, and that only while threadSafePtrs() is on.
class PtrInterface {
public:
  PtrInterface() noexcept;
  PtrInterface(PtrInterface const &) = delete;
  PtrInterface & operator=(PtrInterface const &) = delete;
  virtual ~PtrInterface();

  /// Names the type and lists the attributes that can be reached by name. Lives until the module
  /// that defines the type is unloaded.
  virtual Type const & type() const;

  /// True if and only if changes of this object are told to its notifiees.
  bool hasNotificationActive() const {
    return (references_.load(std::memory_order_relaxed) & notificationActive) != 0;
  }
  /// Switches notification on or off. A change made while it is off is not told later.
  virtual void hasNotificationActiveIs(bool on);
  /// True if and only if no notifiee listens.
  bool notifieesEmpty() const { return notifiees_ == nullptr; }

  void refInc() const noexcept;
  void refDec() const;

protected:
  /// Tells every notifiee, in the order in which they came, that `attribute` changed. What holds
  /// while notifiees come, go and throw stands at Notifiee. This object survives the call even if
  /// its last Ptr goes meanwhile. Does nothing while notification is off.
  void notify(Attribute const & attribute) const;
  /// As above, for one key of a collection. `Key` must be the exact key type of that collection.
  template <class Key>
  void notify(Attribute const & attribute, Key const & key) const;
  /// As notify(), but its caller never sees what a notifiee throws: that is contained
  /// (contained()). For what is written in the middle of other work, which a listener must not cut
  /// short.
  void tell(Attribute const & attribute) const;
  template <class Key>
  void tell(Attribute const & attribute, Key const & key) const;
  /// Lets go of all notifiees; they hear nothing more of this object.
  void notifieesDelAll();

private:
  friend class Notifiee;
  virtual void handleZeroReferences() const { delete this; }
  void notifyAll(Notification const & notification) const;
  void tellAll(Notification const & notification) const;
  template <class Call>
  void callEach(Call call) const;

  void addNotifiee(Notifiee & notifiee) const;
  void delNotifiee(Notifiee & notifiee) const;

  // Of the word that counts the references. While an object is destroyed its count stands at
  // `destroying`, so that Ptrs made of it by its destructor (a notification, say) never destroy it
  // again.
  static constexpr std::uint32_t notificationActive = 1u << 31;
  static constexpr std::uint32_t destroying = 1u << 30;
  static constexpr std::uint32_t countMask = notificationActive - 1;

  // One word with the flag, and last: a derived object's first small members stand beside it. There
  // are a dozen objects for each tunnel.
  Notifiee mutable * notifiees_ = nullptr; // the first one; each knows the next
  std::atomic<std::uint32_t> mutable references_{1};
};

/// A counted pointer. Null by default; dereferencing null is a fatal assertion, never undefined.
template <class T>
class Ptr {
public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  /// Another reference to an object that has one already. Null gives a null pointer.
  explicit Ptr(T * object) noexcept : object_(object) { inc(); }
  Ptr(Ptr const & other) noexcept : object_(other.object_) { inc(); }
  Ptr(Ptr && other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  requires std::convertible_to<U *, T *> Ptr(Ptr<U> const & other)
  noexcept : object_(other.get()) { inc(); }
  template <class U>
  requires std::convertible_to<U *, T *> Ptr(Ptr<U> && other)
  noexcept : object_(other.release()) {}
  ~Ptr() { dec(object_); }

  /// Takes over a reference that somebody gave up: release(), or the one a new object has.
  static Ptr adopt(T * object) noexcept {
    Ptr adopted;
    adopted.object_ = object;
    return adopted;
  }

  Ptr & operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T * get() const noexcept { return object_; }
  T & operator*() const { return *checked(); }
  T * operator->() const { return checked(); }
  explicit operator bool() const noexcept { return object_ != nullptr; }
  /// Gives the reference up to the caller, who must end it with refDec().
  [[nodiscard]] T * release() noexcept { return std::exchange(object_, nullptr); }

  /// Two pointers are equal if and only if they refer to the same object.
  template <class U>
  bool operator==(Ptr<U> const & other) const noexcept {
    return object_ == other.get();
  }
  bool operator==(std::nullptr_t) const noexcept { return object_ == nullptr; }

private:
  T * checked() const {
    if (object_ == nullptr) [[unlikely]]
      Detail::nullDereference(typeid(T).name());
    return object_;
  }
  void inc() const noexcept {
    if (object_ != nullptr)
      object_->refInc();
  }
  static void dec(T * object) {
    if (object != nullptr)
      object->refDec();
  }

  T * object_ = nullptr;
};

/// Makes a T on the heap and returns its first reference.
template <class T, class... Args>
Ptr<T> makePtr(Args &&... args) {
  return Ptr<T>::adopt(new T(std::forward<Args>(args)...));
}

/// The object as a U, or null when it is none.
template <class U, class T>
Ptr<U> dynamicCast(Ptr<T> const & object) {
  return Ptr<U>(dynamic_cast<U *>(object.get()));
}

inline void PtrInterface::refInc() const noexcept {
  if (Detail::threadSafePtrs) [[unlikely]]
    references_.fetch_add(1, std::memory_order_relaxed);
  else
    references_.store(references_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

} // namespace Zel

template <class T>
struct std::hash<Zel::Ptr<T>> {
  std::size_t operator()(Zel::Ptr<T> const & pointer) const noexcept {
    return std::hash<T *>()(pointer.get());
  }
};
