// The ordered collection of the output tables. The standard map is a red-black tree already; what
// it lacks is the version stamp by which a walk sees that rows came or went.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

namespace Zel {

/// Keys to values in ascending key order. Iterators stay valid until their own entry is removed.
template <class Key, class Value>
class RbTreeMap {
  using Map = std::map<Key, Value>;

public:
  using const_iterator = typename Map::const_iterator;

  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  /// A number that every insertion and every removal advances by one, and nothing else changes; it
  /// comes round after 2^32 of them.
  std::uint32_t version() const { return version_; }

  const_iterator begin() const { return map_.begin(); }
  const_iterator end() const { return map_.end(); }
  /// The entry with exactly this key, or end().
  const_iterator find(Key const & key) const { return map_.find(key); }
  /// The first entry whose key is greater than `key`, or end(). The key itself need not be present.
  const_iterator findNext(Key const & key) const { return map_.upper_bound(key); }
  /// The first entry whose key is not less than `key`, or end().
  const_iterator findNotLess(Key const & key) const { return map_.lower_bound(key); }
  /// The value of `key`, or the empty value.
  Value operator[](Key const & key) const {
    auto const found = map_.find(key);
    return found == map_.end() ? Value() : found->second;
  }

  /// Inserts the value or puts it in the place of the present one.
  void insertOrReplace(Key const & key, Value value) {
    insertOrReplace(findNotLess(key), key, std::move(value));
  }
  /// As above, without a search. Requires: `position` is findNotLess(key).
  void insertOrReplace(const_iterator position, Key const & key, Value value) {
    if (position != end() && !(key < position->first)) {
      std::swap(map_.erase(position, position)->second, value);
      return;
    }
    map_.emplace_hint(position, key, std::move(value));
    ++version_;
  }
  /// Removes the entry at `position` and returns its value.
  Value erase(const_iterator position) {
    ++version_;
    return std::move(map_.extract(position).mapped());
  }
  void clear() {
    ++version_;
    Map().swap(map_);
  }

private:
  Map map_;
  std::uint32_t version_ = 0;
};

} // namespace Zel
