// The ordered collection of the output tables.
//
// Tables are searched by every event and walked by managers row after row. With an entry a node, as
// in a red-black tree, each step of a search or a walk through 100 000 rows fetches memory from
// another place. The tree beneath is therefore a B-tree: entries stand side by side in its nodes,
// 63 of a table that is indexed by a number and 14 where addresses are part of the index.
#pragma once

#include <absl/container/btree_map.h>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>

namespace Zel {

namespace Detail {

// absl::btree_map as it is made (20220623), but for the size of a leaf, which it does not let one
// choose: its own hold four entries with addresses, the least there may be, and a search for one of
// 100 000 passes nine nodes. Of this size it passes five. Inner nodes have their pointers besides:
// 63 entries with a number make 1536 bytes.
constexpr int leafSize = 1024;

// A key that is looked for. In a large tree each node is far from the last, and a search that goes
// by halves would wait for memory at each half: the first entry that it meets in a node, which is
// the middle one, has all entries there fetched.
template <class Key>
class Sought {
public:
  explicit Sought(Key const & key) : key_(key) {}

  bool isLess(Key const & entry) const { return key_ < met(entry); }
  bool isGreater(Key const & entry) const { return met(entry) < key_; }

private:
  Key const & met(Key const & entry) const {
    constexpr auto line = 64;
    auto const place = reinterpret_cast<std::uintptr_t>(&entry);
    if (place - first_ + leafSize / 2 > leafSize) {
      first_ = place;
      for (auto offset = -leafSize / 2; offset <= leafSize / 2; offset += line)
        __builtin_prefetch(reinterpret_cast<void const *>(place + offset));
    }
    return entry;
  }

  Key const & key_;
  std::uintptr_t mutable first_ = 0; // met in this node
};

// With std::less itself, Abseil would go through numbers one by one, which suits nodes of 15. These
// have up to 63.
template <class Key>
struct KeyLess {
  using is_transparent = void;

  bool operator()(Key const & a, Key const & b) const { return a < b; }
  bool operator()(Key const & entry, Sought<Key> const & key) const { return key.isGreater(entry); }
  bool operator()(Sought<Key> const & key, Key const & entry) const { return key.isLess(entry); }
};

template <class Key, class Value>
using BTree = absl::container_internal::btree_map_container<
    absl::container_internal::btree<absl::container_internal::map_params<
        Key, Value, KeyLess<Key>, std::allocator<std::pair<Key const, Value>>, leafSize,
        /*Multi=*/false>>>;

} // namespace Detail

/// Keys to values in ascending key order, one value a key. An insertion or a removal ends every
/// iterator, end() as well; version() tells whether there was one. For one thread: a search notes
/// where it ended.
template <class Key, class Value>
class RbTreeMap {
  using Tree = Detail::BTree<Key, Value>;
  using Sought = Detail::Sought<Key>;

public:
  using const_iterator = typename Tree::const_iterator;

  RbTreeMap() : last_(tree_.end()) {}
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
    auto const place = findNotLess(key);
    return place != end() && place->first == key ? place : end();
  }
  /// The first entry whose key is greater than `key`, or end(). The key itself need not be present.
  const_iterator findNext(Key const & key) const { return tree_.upper_bound(Sought(key)); }
  /// The first entry whose key is not less than `key`, or end().
  const_iterator findNotLess(Key const & key) const {
    auto near = last_;
    if (near != end() && near->first < key)
      ++near;
    return last_ = isPlaceOf(key, near) ? near : tree_.lower_bound(Sought(key));
  }
  /// The value of `key`, or the empty value.
  Value operator[](Key const & key) const {
    auto const found = find(key);
    return found == end() ? Value() : found->second;
  }

  /// Inserts the value or puts it in the place of the present one.
  void insertOrReplace(Key const & key, Value value) {
    insertOrReplace(findNotLess(key), key, std::move(value));
  }
  /// As above, without a search. Requires: `position` is findNotLess(key).
  void insertOrReplace(const_iterator position, Key const & key, Value value) {
    if (position != end() && position->first == key) {
      std::swap(valueAt(position), value);
      return;
    }
    last_ = tree_.emplace_hint(position, key, std::move(value));
    ++version_;
  }
  /// Removes the entry at `position` and returns its value.
  Value erase(const_iterator position) {
    auto value = std::move(valueAt(position)); // ends when all is consistent
    last_ = tree_.erase(position);
    ++version_;
    return value;
  }
  void clear() {
    Tree removed; // what ends with a value sees an empty map
    removed.swap(tree_);
    last_ = tree_.end();
    ++version_;
  }

private:
  Value & valueAt(const_iterator position) { return const_cast<Value &>(position->second); }
  bool isPlaceOf(Key const & key, const_iterator position) const {
    return (position == end() || !(position->first < key)) &&
           (position == begin() || std::prev(position)->first < key);
  }

  Tree tree_;
  std::uint32_t version_ = 0;
  // Where the last find(), findNotLess() or change ended. The next is mostly there or one further:
  // a scan comes to neighbours one after the other, and an entry often takes the place of the one
  // that went last.
  const_iterator mutable last_;
};

} // namespace Zel
