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
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace Zel {

namespace Detail {

// Abseil goes through numbers one by one, which suits nodes of 15. These have up to 63.
template <class Key>
struct KeyLess : std::less<Key> {
  using absl_btree_prefer_linear_node_search = std::false_type;
};

// absl::btree_map as it is made (20220623), but for the size of a leaf, which it does not let one
// choose: its own hold four entries with addresses, the least there may be, and a search for one of
// 100 000 passes nine nodes. Of this size it passes five. Inner nodes have their pointers besides:
// 63 entries with a number make 1536 bytes.
constexpr int leafSize = 1024;
template <class Key, class Value>
using BTree = absl::container_internal::btree_map_container<
    absl::container_internal::btree<absl::container_internal::map_params<
        Key, Value, KeyLess<Key>, std::allocator<std::pair<Key const, Value>>, leafSize,
        /*Multi=*/false>>>;

} // namespace Detail

/// Keys to values in ascending key order, one value a key. An insertion or a removal ends every
/// iterator, end() as well; version() tells whether there was one.
template <class Key, class Value>
class RbTreeMap {
  using Tree = Detail::BTree<Key, Value>;

public:
  using const_iterator = typename Tree::const_iterator;

  std::size_t size() const { return tree_.size(); }
  bool empty() const { return tree_.empty(); }
  /// A number that every insertion, every removal and every clear() advances by one, and nothing
  /// else changes; it comes round after 2^32 of them.
  std::uint32_t version() const { return version_; }

  const_iterator begin() const { return tree_.begin(); }
  const_iterator end() const { return tree_.end(); }
  /// The entry with exactly this key, or end().
  const_iterator find(Key const & key) const { return tree_.find(key); }
  /// The first entry whose key is greater than `key`, or end(). The key itself need not be present.
  const_iterator findNext(Key const & key) const { return tree_.upper_bound(key); }
  /// The first entry whose key is not less than `key`, or end().
  const_iterator findNotLess(Key const & key) const { return tree_.lower_bound(key); }
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
    tree_.emplace_hint(position, key, std::move(value));
    ++version_;
  }
  /// Removes the entry at `position` and returns its value.
  Value erase(const_iterator position) {
    auto value = std::move(valueAt(position)); // ends when all is consistent
    tree_.erase(position);
    ++version_;
    return value;
  }
  void clear() {
    ++version_;
    Tree().swap(tree_); // what ends with a value sees an empty map
  }

private:
  Value & valueAt(const_iterator position) { return const_cast<Value &>(position->second); }

  Tree tree_;
  std::uint32_t version_ = 0;
};

} // namespace Zel
