// The tree beneath the collections: a B-tree whose nodes hold many entries side by side.
//
// Collections are searched by every event and walked from front to back. With an entry a node, as
// in a red-black tree, each step of a search or a walk through 100 000 entries fetches memory from
// another place. Abseil's B-tree is the right one but for the size of its nodes, which its public
// type does not let one choose: one of four entries with addresses, the least there may be, is nine
// nodes deep at 100 000, one of this size five, and a start of the machines takes half as long.
// Hence this reaches for what the public type is made of, in the one release that it was written
// for. With any other release, or where ZEL_PUBLIC_BTREE is defined, it takes the public type: as
// right, and slower.
#pragma once

#include <absl/base/config.h>
#include <absl/container/btree_map.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace Zel::Detail {

template <class Key>
struct KeyLess;

/// Unique keys in ascending order. An insertion or a removal ends every iterator and every pointer
/// or reference to an entry. `leafSize` is in bytes; inner nodes have their pointers besides: 63
/// entries with a number make 1536 bytes.
#if defined(ABSL_LTS_RELEASE_VERSION) && ABSL_LTS_RELEASE_VERSION == 20220623 &&                   \
    !defined(ZEL_PUBLIC_BTREE)
constexpr int leafSize = 1024;
template <class Key, class Value>
using BTree = absl::container_internal::btree_map_container<
    absl::container_internal::btree<absl::container_internal::map_params<
        Key, Value, KeyLess<Key>, std::allocator<std::pair<Key const, Value>>, leafSize,
        /*Multi=*/false>>>;
#else
constexpr int leafSize = 256;
template <class Key, class Value>
using BTree = absl::btree_map<Key, Value, KeyLess<Key>>;
#endif

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

} // namespace Zel::Detail
