// The hashed collection of the input records and of the machines' own stores.
//
// A scan of it is cut into runs with other work in between, so its order must survive everything
// that can happen in between. It iterates by (hash, key): the bucket of an entry is the top bits of
// its hash, and each bucket's chain is sorted, so growing splits each bucket in place and moves no
// entry past another. A position is therefore a key, never an iterator: seek(key) finds where a
// scan left off even if that key has been removed meanwhile.
#pragma once

#include "platform/zel/Hash.h"
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace Zel {

struct DefaultHasher {
  template <class Key>
  std::uint32_t operator()(Key const & key) const {
    return hashOf(key);
  }
};

/// Keys to values, one value a key. Look-up and change take constant time on average.
/// Any change but the replacement of a value ends the iterators of the entries it touches.
template <class Key, class Value, class Hasher = DefaultHasher>
class HashMap2018 {
  struct Node { // without its hash, which is quicker computed than fetched with a larger node
    std::unique_ptr<Node> next;
    std::pair<Key const, Value> entry;
  };

public:
  class const_iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::pair<Key const, Value>;
    using difference_type = std::ptrdiff_t;
    using pointer = value_type const *;
    using reference = value_type const &;

    const_iterator() = default;
    reference operator*() const { return node_->entry; }
    pointer operator->() const { return &node_->entry; }
    const_iterator & operator++() {
      node_ = node_->next ? node_->next.get()
                          : map_->firstFrom(map_->bucketOf(map_->hasher_(node_->entry.first)) + 1);
      return *this;
    }
    const_iterator operator++(int) {
      auto const before = *this;
      ++*this;
      return before;
    }
    bool operator==(const_iterator const & other) const { return node_ == other.node_; }

  private:
    friend HashMap2018;
    const_iterator(HashMap2018 const * map, Node const * node) : map_(map), node_(node) {}
    HashMap2018 const * map_ = nullptr;
    Node const * node_ = nullptr;
  };

  HashMap2018() : buckets_(1) {}
  HashMap2018(HashMap2018 const &) = delete;
  HashMap2018 & operator=(HashMap2018 const &) = delete;
  ~HashMap2018() { clear(); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  /// A 23-bit counter that every insertion and every removal advances, and nothing else.
  std::uint32_t changeStamp() const { return changeStamp_; }

  const_iterator begin() const { return {this, firstFrom(0)}; }
  const_iterator end() const { return {this, nullptr}; }
  /// The first entry, in iteration order, that does not come before `key`; end() if there is none.
  const_iterator seek(Key const & key) const {
    auto const hash = hasher_(key);
    auto const bucket = bucketOf(hash);
    Node const * node = link(hash, key)->get();
    return {this, node ? node : firstFrom(bucket + 1)};
  }
  /// True if and only if iteration reaches `left` before `right`, were both keys of a map.
  static bool comesBefore(Key const & left, Key const & right) {
    auto const leftHash = Hasher()(left);
    auto const rightHash = Hasher()(right);
    return leftHash != rightHash ? leftHash < rightHash : left < right;
  }
  /// Where iteration goes on behind `key`, which may be gone.
  const_iterator seekBehind(Key const & key) const {
    auto const position = seek(key);
    return position != end() && position->first == key ? std::next(position) : position;
  }
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
      auto const stamp = changeStamp_;
      visit(entry.first, entry.second);
      position = stamp == changeStamp_ ? std::next(position) : seekBehind(entry.first);
    }
  }
  /// The value of `key`, or null. Lives until that key is removed or its value replaced.
  Value const * find(Key const & key) const {
    auto const hash = hasher_(key);
    Node const * node = link(hash, key)->get();
    return node && node->entry.first == key ? &node->entry.second : nullptr;
  }

  /// Inserts the value or puts it in the place of the present one. Returns it where it now is.
  /// Requires: the end of the replaced value does not remove the entry.
  Value & insertOrReplace(Key const & key, Value value) {
    auto const hash = hasher_(key);
    auto * place = link(hash, key);
    if (*place && (*place)->entry.first == key) {
      std::swap((*place)->entry.second, value);
      return (*place)->entry.second;
    }
    if (size_ >= buckets_.size()) {
      grow();
      place = link(hash, key);
    }
    place->reset(new Node{std::move(*place), {key, std::move(value)}});
    ++size_;
    advanceStamp();
    return (*place)->entry.second;
  }
  /// Removes the entry. True if and only if there was one.
  bool erase(Key const & key) {
    auto const hash = hasher_(key);
    auto * place = link(hash, key);
    if (!*place || !((*place)->entry.first == key))
      return false;
    auto const removed = std::move(*place); // destroyed last, when the map is consistent again
    *place = std::move(removed->next);
    --size_;
    advanceStamp();
    return true;
  }
  /// Removes every entry; one step of the change stamp if there was any.
  void clear() {
    if (size_ == 0)
      return;
    auto buckets = std::exchange(buckets_, std::vector<std::unique_ptr<Node>>(1));
    size_ = 0;
    advanceStamp();
    for (auto & head : buckets) // one by one: a long chain must not recurse
      while (head)
        head = std::move(head->next);
  }

private:
  std::size_t bucketOf(std::uint32_t hash) const {
    auto const bits = std::bit_width(buckets_.size()) - 1;
    return bits == 0 ? 0 : hash >> (32 - bits);
  }
  // Where the entry of `key` hangs, or would hang.
  std::unique_ptr<Node> * link(std::uint32_t hash, Key const & key) const {
    auto * place = const_cast<std::unique_ptr<Node> *>(&buckets_[bucketOf(hash)]);
    while (*place && comesBefore(**place, hash, key))
      place = &(*place)->next;
    return place;
  }
  bool comesBefore(Node const & node, std::uint32_t hash, Key const & key) const {
    if (node.entry.first == key)
      return false;
    auto const nodeHash = hasher_(node.entry.first);
    return nodeHash != hash ? nodeHash < hash : node.entry.first < key;
  }
  Node const * firstFrom(std::size_t bucket) const {
    for (; bucket < buckets_.size(); ++bucket)
      if (buckets_[bucket])
        return buckets_[bucket].get();
    return nullptr;
  }
  // Doubles the buckets. Each chain splits into two consecutive runs, so the order stays.
  void grow() {
    std::vector<std::unique_ptr<Node>> old(buckets_.size() * 2);
    old.swap(buckets_);
    for (auto & head : old) {
      std::unique_ptr<Node> * tail = nullptr;
      std::size_t tailBucket = 0;
      while (head) {
        auto rest = std::move(head->next);
        auto const bucket = bucketOf(hasher_(head->entry.first));
        if (tail == nullptr || bucket != tailBucket)
          tail = &buckets_[tailBucket = bucket];
        *tail = std::move(head);
        tail = &(*tail)->next;
        head = std::move(rest);
      }
    }
  }
  void advanceStamp() { changeStamp_ = (changeStamp_ + 1) & 0x7FFFFF; }

  std::vector<std::unique_ptr<Node>> buckets_; // a power of two of them
  std::size_t size_ = 0;
  std::uint32_t changeStamp_ = 0;
  [[no_unique_address]] Hasher hasher_;
};

} // namespace Zel
