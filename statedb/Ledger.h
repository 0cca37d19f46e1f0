// What one publisher has of one collection: which keys are its own, and during a full read which of
// them were found and what was found to be different.
//
// The values themselves stand in the database alone. A found record that is right there already is
// marked with the number of the read, so that it costs a look-up and a comparison and no memory;
// what is not marked at the commit was not found.
#pragma once

#include "platform/zel/HashMap2018.h"
#include "statedb/NotifieeFailed.h"
#include <absl/container/btree_set.h>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

namespace StateDb {

/// `Place` (Places.h) knows one collection of the database: its Key, the Value that a record is
/// published as, and isSo(), isThere(), put(), remove() and pointer() of a key.
///
/// Notifiees run inside put() and remove() and may come back here, so what this ledger says is
/// right before the database changes, and nothing is held across the change.
template <class Place>
class Ledger {
public:
  using Key = typename Place::Key;
  using Value = typename Place::Value;
  using Kind = std::uint32_t;

  /// One change of a key in several steps. Between two of them a notifiee may have published
  /// something newer under that key: then the rest is void.
  class Underway {
  public:
    Underway(Ledger & ledger, Key key)
        : ledger_(ledger),
          key_(std::move(key)),
          outer_(std::exchange(ledger.underway_, this)) {}
    Underway(Underway const &) = delete;
    Underway & operator=(Underway const &) = delete;
    ~Underway() { ledger_.underway_ = outer_; }
    bool isVoid() const { return void_; }

  private:
    friend Ledger;
    Ledger & ledger_;
    Key const key_;
    Underway * const outer_;
    bool void_ = false;
  };

  Ledger(Place place, NotifieeFailed const & notifieeFailed)
      : place_(std::move(place)),
        notifieeFailed_(notifieeFailed) {}

  std::size_t size() const { return owned_.size(); }
  bool owns(Key const & key) const { return owned_.find(key) != nullptr; }
  /// Changes of the database made here.
  std::uint64_t changes() const { return changes_; }

  // Single changes.

  void is(Key const & key, Value const & value, Kind kind = 0) {
    settle(key);
    Underway const here(*this, key);
    removeOther(key, kind);
    if (here.isVoid())
      return;
    owned_.insertOrReplace(key, {read_, kind});
    put(key, value);
  }
  /// Removes what the publisher has there if it is of another kind.
  void removeOther(Key const & key, Kind kind) {
    auto const * own = owned_.find(key);
    if (own == nullptr || own->kind == kind)
      return;
    owned_.erase(key);
    remove(key);
  }
  void del(Key const & key) {
    settle(key);
    if (owned_.erase(key))
      remove(key);
  }
  /// The database is losing these keys in another way: nothing of them is the publisher's any more.
  template <class IsLost>
  void forget(Key const & first, IsLost const & isLost) {
    forgetIn(owned_, first, isLost);
    forgetIn(findings_, first, isLost);
    for (auto * change = underway_; change != nullptr; change = change->outer_)
      change->void_ |= isLost(change->key_);
  }

  // A full read. Its number is never 0, and another one than that of the read before.

  void beginRead(std::uint32_t read) {
    endRead();
    read_ = read;
    isReading_ = true;
  }
  void found(Key const & key, Value const & value, Kind kind = 0) {
    if (settled_.contains(key))
      return;
    auto const * own = owned_.find(key);
    auto const isKnown = own != nullptr && own->kind == kind;
    if (own != nullptr)
      owned_.insertOrReplace(key, {isKnown ? read_ : notFound, own->kind});
    if (isKnown && place_.isSo(key, value))
      findings_.erase(key);
    else
      findings_.insertOrReplace(key, {value, kind});
  }
  void stays(Key const & key) {
    auto const * own = owned_.find(key);
    if (own != nullptr && findings_.find(key) == nullptr)
      owned_.insertOrReplace(key, {read_, own->kind});
  }
  /// Nothing is handed over any more, and single changes need not be remembered.
  void commit() {
    settled_.clear();
    isReading_ = false;
    lookedAt_.reset();
  }
  /// Goes some keys further, and removes at most one: what was not found, or found to be of another
  /// kind. False when all have been looked at.
  bool removeNext(bool restStays) {
    auto next = lookedAt_ ? owned_.seekBehind(*lookedAt_) : owned_.begin();
    for (int i = 0; i != keysAStep && next != owned_.end(); ++i, ++next)
      if (isToGo(*next, restStays)) {
        auto const key = next->first;
        lookedAt_ = key;
        owned_.erase(key);
        remove(key);
        return true;
      }
    if (next == owned_.end())
      return false;
    lookedAt_ = std::prev(next)->first;
    return true;
  }
  /// Puts what was found to be different, key by key. False when nothing is left.
  bool putNext() {
    if (findings_.empty())
      return false;
    auto const [key, finding] = *findings_.begin();
    findings_.erase(key);
    owned_.insertOrReplace(key, {read_, finding.kind});
    put(key, finding.value);
    return true;
  }
  /// How many records are still to be put.
  std::size_t toPut() const { return findings_.size(); }
  /// The read is over, or dropped.
  void endRead() {
    commit();
    findings_.clear();
  }

private:
  static constexpr std::uint32_t notFound = 0;
  static constexpr int keysAStep = 64;

  struct Own {
    std::uint32_t read = notFound; ///< the last one that found it, or before which it was published
    Kind kind = 0;
  };
  struct Finding {
    Value value;
    Kind kind;
  };

  bool isToGo(auto const & own, bool restStays) const {
    return own.second.read != read_ && (!restStays || findings_.find(own.first) != nullptr);
  }
  // What the publisher says by itself is newer than anything that a read finds.
  void settle(Key const & key) {
    findings_.erase(key);
    if (isReading_)
      settled_.insert(key);
    for (auto * change = underway_; change != nullptr; change = change->outer_)
      change->void_ |= change->key_ == key;
  }
  void put(Key const & key, Value const & value) {
    if (!place_.isSo(key, value))
      change(key, [&] { place_.put(key, value); });
  }
  void remove(Key const & key) {
    if (place_.isThere(key))
      change(key, [&] { place_.remove(key); });
  }
  template <class Make>
  void change(Key const & key, Make const & make) {
    ++changes_;
    makeChange(notifieeFailed_, make, [&] { return place_.pointer(key); });
  }
  template <class Map, class IsLost>
  static void forgetIn(Map & map, Key const & first, IsLost const & isLost) {
    for (auto next = map.seek(first); next != map.end() && isLost(next->first);
         next = map.seek(first))
      map.erase(Key(next->first));
  }

  Place place_;
  NotifieeFailed const & notifieeFailed_;
  // A change asks several times for one key, and a read comes with keys in their order: that is
  // what these collections remember their place for.
  Zel::HashMap2018<Key, Own> owned_;
  Zel::HashMap2018<Key, Finding> findings_; // what the read found different, until it is put
  absl::btree_set<Key> settled_;  // what the publisher said by itself since the read began
  std::optional<Key> lookedAt_;   // the last key that removeNext() looked at
  Underway * underway_ = nullptr; // the innermost one
  std::uint32_t read_ = notFound;
  bool isReading_ = false;
  std::uint64_t changes_ = 0;
};

} // namespace StateDb
