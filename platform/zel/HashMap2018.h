// The collection of the input records and of the machines' own stores.
//
// A scan of it is cut into runs with other work in between, and takes up again by the key at which
// it left off. Its order is therefore that of the keys, whatever its size and history: growth hides
// no key and shows none twice, and where a removed key stood is found as well as before. The key
// order is also that in which others come with keys, and in which the tables keep their rows, so
// what is looked up or written next mostly stands beside what was last.
//
// The name is older than the tree beneath.
#pragma once

#include "platform/zel/RbTreeMap.h"
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

namespace Zel {

/// Keys to values in ascending key order, one value a key. An insertion or a removal ends every
/// iterator and every pointer or reference into the map. A position to be kept is therefore a key:
/// seek(). For one thread: a look-up notes where it ended.
template <class Key, class Value>
class HashMap2018 {
  using Entries = RbTreeMap<Key, Value>;

public:
  using const_iterator = typename Entries::const_iterator;

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  /// A 23-bit counter that every insertion and every removal advances by one, and nothing else.
  std::uint32_t changeStamp() const { return entries_.version() & 0x7FFFFF; }

  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  /// The first entry, in iteration order, that does not come before `key`; end() if there is none.
  const_iterator seek(Key const & key) const { return entries_.findNotLess(key); }
  /// Where iteration goes on behind `key`, which may be gone.
  const_iterator seekBehind(Key const & key) const { return entries_.findNext(key); }
  /// True if and only if iteration reaches `left` before `right`, were both keys of a map.
  static bool comesBefore(Key const & left, Key const & right) { return left < right; }
  /// Calls `visit(key, value)` for each entry. `visit` may change the map: what it removes is not
  /// visited, what it inserts is if it comes later in the order. It is given copies.
  template <class Visit>
  void forEach(Visit visit) const {
    forEachFrom(begin(), visit);
  }
  /// As forEach(), from `position` on.
  template <class Visit>
  void forEachFrom(const_iterator position, Visit visit) const {
    while (position != end()) {
      auto const entry = *position;
      auto const stamp = changeStamp();
      visit(entry.first, entry.second);
      position = stamp == changeStamp() ? std::next(position) : seekBehind(entry.first);
    }
  }
  /// The value of `key`, or null. Lives until the next insertion or removal, or its replacement.
  Value const * find(Key const & key) const {
    auto const found = entries_.find(key);
    return found == end() ? nullptr : &found->second;
  }

  /// Inserts the value or puts it in the place of the present one. Returns it where it now is.
  /// Requires: the end of the replaced value does not change the map.
  Value const & insertOrReplace(Key const & key, Value value) {
    return entries_.insertOrReplace(key, std::move(value))->second;
  }
  /// Removes the entry. True if and only if there was one.
  bool erase(Key const & key) {
    auto const found = entries_.find(key);
    if (found == end())
      return false;
    entries_.erase(found);
    return true;
  }
  /// Removes every entry; one step of the change stamp if there was any.
  void clear() {
    if (!empty())
      entries_.clear();
  }

private:
  Entries entries_;
};

} // namespace Zel
