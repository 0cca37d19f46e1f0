// The ordered collection of the output tables, which every event searches and managers walk row
// after row. It is a B-tree (BTree.h) that begins a search where the last one ended.
#pragma once

#include "platform/zel/BTree.h"
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

namespace Zel {

/// Keys to values in ascending key order, one value a key. An insertion or a removal ends every
/// iterator, end() as well; version() tells whether there was one. For one thread: a search notes
/// where it ended.
template <class Key, class Value>
class RbTreeMap {
  using Tree = Detail::BTree<Key, Value>;
  using Sought = Detail::Sought<Key>;

public:
  using const_iterator = typename Tree::const_iterator;

  RbTreeMap() : latest_(tree_.end()) {}
  RbTreeMap(RbTreeMap const &) = delete;
  RbTreeMap & operator=(RbTreeMap const &) = delete;

  std::size_t size() const { return tree_.size(); }
  bool empty() const { return tree_.empty(); }
  /// A number that every insertion, every removal and every clear() advances by one, and nothing
  /// else changes; it comes round after 2^32 of them.
  std::uint32_t version() const { return version_; }

  const_iterator begin() const { return tree_.begin(); }
  const_iterator end() const { return tree_.end(); }
  /// The entry with exactly this key, or end().
  const_iterator find(Key const & key) const {
    if (auto const near = atLatestOrBehind(key); near != end() && near->first == key)
      return latest_ = near;
    auto const place = findNotLess(key);
    return place != end() && place->first == key ? place : end();
  }
  /// The first entry whose key is greater than `key`, or end(). The key itself need not be present.
  const_iterator findNext(Key const & key) const { return tree_.upper_bound(Sought(key)); }
  /// The first entry whose key is not less than `key`, or end().
  const_iterator findNotLess(Key const & key) const {
    auto const near = atLatestOrBehind(key);
    return latest_ = isPlaceOf(key, near) ? near : tree_.lower_bound(Sought(key));
  }
  /// The value of `key`, or the empty value.
  Value operator[](Key const & key) const {
    auto const found = find(key);
    return found == end() ? Value() : found->second;
  }

  /// Inserts the value or puts it in the place of the present one. Returns where it now is.
  const_iterator insertOrReplace(Key const & key, Value value) {
    return insertOrReplace(findNotLess(key), key, std::move(value));
  }
  /// As above, without a search. Requires: `position` is findNotLess(key).
  const_iterator insertOrReplace(const_iterator position, Key const & key, Value value) {
    if (position != end() && position->first == key) {
      std::swap(valueAt(position), value);
      return position;
    }
    ++version_;
    return latest_ = tree_.emplace_hint(position, key, std::move(value));
  }
  /// Removes the entry at `position` and returns its value.
  Value erase(const_iterator position) {
    auto value = std::move(valueAt(position)); // ends when all is consistent
    latest_ = tree_.erase(position);
    ++version_;
    return value;
  }
  void clear() {
    Tree removed; // what ends with a value sees an empty map
    removed.swap(tree_);
    latest_ = tree_.end();
    ++version_;
  }

private:
  Value & valueAt(const_iterator position) { return const_cast<Value &>(position->second); }
  // The only place near the latest one at which `key` may stand, or have to be inserted.
  const_iterator atLatestOrBehind(Key const & key) const {
    return latest_ != end() && latest_->first < key ? std::next(latest_) : latest_;
  }
  bool isPlaceOf(Key const & key, const_iterator position) const {
    return (position == end() || !(position->first < key)) &&
           (position == begin() || std::prev(position)->first < key);
  }

  Tree tree_;
  std::uint32_t version_ = 0;
  // Where the latest find(), findNotLess() or change ended. The next is mostly there or one
  // further: a scan comes to neighbours one after the other, and an entry often takes the place of
  // the one that went last.
  const_iterator mutable latest_;
};

} // namespace Zel
