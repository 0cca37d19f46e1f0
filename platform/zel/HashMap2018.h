// The hashed collection of the input records and of the machines' own stores.
//
// A scan of it is cut into runs with other work in between, so its order must survive everything
// that can happen in between. It iterates by (hash, key), whatever its size and history. A position
// is therefore a key, never an iterator: seek(key) finds where a scan left off even if that key has
// been removed meanwhile.
//
// The entries stand in one array, in that order, each as near as the others let it behind the home
// that its hash gives it (linear probing that keeps its clusters sorted): a scan reads memory from
// front to back, and a look-up touches few entries, side by side. There are six such entries for
// each tunnel. Numbers in a row stand in a row (hashOfNumber()), so what is looked up next mostly
// stands behind what was looked up last, and is sought there first.
#pragma once

#include "platform/zel/Hash.h"
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Zel {

struct DefaultHasher {
  template <class Key>
  std::uint32_t operator()(Key const & key) const {
    return hashOf(key);
  }
};

/// Keys to values, one value a key. Look-up and change take constant time on average. An insertion,
/// a removal or reserve() ends every iterator and every pointer or reference into the map. For one
/// thread: a look-up notes where it ended.
template <class Key, class Value, class Hasher = DefaultHasher>
class HashMap2018 {
  using Entry = std::pair<Key, Value>;
  static_assert(std::is_nothrow_move_constructible_v<Entry>);
  static_assert(std::is_empty_v<Hasher>); // any of them hashes alike

public:
  class const_iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = value_type const *;
    using reference = value_type const &;

    const_iterator() = default;
    reference operator*() const { return map_->array_[index_]; }
    pointer operator->() const { return &map_->array_[index_]; }
    const_iterator & operator++() {
      index_ = map_->array_.usedFrom(index_ + 1);
      return *this;
    }
    const_iterator operator++(int) {
      auto const before = *this;
      ++*this;
      return before;
    }
    bool operator==(const_iterator const & other) const { return index_ == other.index_; }

  private:
    friend HashMap2018;
    const_iterator(HashMap2018 const * map, std::size_t index) : map_(map), index_(index) {}
    HashMap2018 const * map_ = nullptr;
    std::size_t index_ = none;
  };

  HashMap2018() = default;
  HashMap2018(HashMap2018 const &) = delete;
  HashMap2018 & operator=(HashMap2018 const &) = delete;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  /// A 23-bit counter that every insertion and every removal advances, and nothing else.
  std::uint32_t changeStamp() const { return changeStamp_; }

  const_iterator begin() const { return {this, array_.usedFrom(0)}; }
  const_iterator end() const { return {this, none}; }
  /// The first entry, in iteration order, that does not come before `key`; end() if there is none.
  const_iterator seek(Key const & key) const { return {this, array_.usedFrom(placeOf(key))}; }
  /// True if and only if iteration reaches `left` before `right`, were both keys of a map.
  static bool comesBefore(Key const & left, Key const & right) {
    if (left == right)
      return false;
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
  /// The value of `key`, or null. Lives until the next insertion or removal, or its replacement.
  Value const * find(Key const & key) const {
    if (holds(guess_, key))
      return foundAt(guess_);
    auto const hash = hasher_(key);
    for (auto place = homeOf(hash), far = place + nearHome; place != far; ++place) {
      if (!array_.isUsed(place)) // there is no gap between an entry and its home
        return nullptr;
      if (array_[place].first == key)
        return foundAt(place);
    }
    return findFar(hash, key);
  }

  /// Makes room for so many entries in all, and thus spares an insertion from having to.
  void reserve(std::size_t size) {
    if (size * 8 > homes_ * 7)
      rebuild(size * 8 / 7 + 1, shortestTail);
  }
  /// Inserts the value or puts it in the place of the present one. Returns it where it now is.
  /// Requires: the end of the replaced value does not change the map.
  Value & insertOrReplace(Key const & key, Value value) {
    auto const hash = hasher_(key);
    auto place = placeOf(hash, key);
    if (holds(place, key)) {
      std::swap(array_[place].second, value);
      return array_[place].second;
    }
    Entry entry(key, std::move(value)); // before room is made: a copy may throw
    if (rebuildIfFull(place))
      place = placeOf(hash, key);
    makeRoom(place);
    array_.put(place, hash, std::move(entry));
    guess_ = place + 1;
    ++size_;
    advanceStamp();
    return array_[place].second;
  }
  /// Removes the entry. True if and only if there was one.
  bool erase(Key const & key) {
    auto const place = placeOf(key);
    if (!holds(place, key))
      return false;
    [[maybe_unused]] auto const removed = std::move(array_[place]); // ends when all is consistent
    closeUp(place);
    guess_ = place;
    --size_;
    advanceStamp();
    return true;
  }
  /// Removes every entry; one step of the change stamp if there was any.
  void clear() {
    if (size_ == 0)
      return;
    auto const removed = std::exchange(array_, Array()); // ends when all is consistent
    homes_ = 0;
    size_ = 0;
    advanceStamp();
  }

private:
  static constexpr std::size_t none = SIZE_MAX;
  static constexpr std::size_t shortestTail = 32;
  /// Most keys are nearer to their home than this, numbers in a run as well, and so many are soon
  /// compared.
  static constexpr std::size_t nearHome = 16;
  /// The hash of a small plain key is sooner computed than fetched from a second array.
  static constexpr bool keepsHashes = !std::is_trivially_copyable_v<Key> ||
                                      sizeof(Key) > sizeof(std::uint64_t);

  // Places, each with an entry or without.
  class Array {
  public:
    Array() = default;
    explicit Array(std::size_t places)
        : entries_(std::allocator<Entry>().allocate(places)),
          places_(places),
          hashes_(keepsHashes ? places : 0),
          used_(places / 64 + 1) {}
    Array(Array && other) noexcept : Array() { *this = std::move(other); }
    Array & operator=(Array && other) noexcept {
      std::swap(entries_, other.entries_);
      std::swap(places_, other.places_);
      std::swap(hashes_, other.hashes_);
      std::swap(used_, other.used_);
      return *this;
    }
    ~Array() {
      for (auto place = usedFrom(0); place != none; place = usedFrom(place + 1))
        std::destroy_at(&entries_[place]);
      if (entries_ != nullptr)
        std::allocator<Entry>().deallocate(entries_, places_);
    }

    std::size_t places() const { return places_; }
    Entry & operator[](std::size_t place) { return entries_[place]; }
    Entry const & operator[](std::size_t place) const { return entries_[place]; }
    // False behind the last place.
    bool isUsed(std::size_t place) const {
      return place < places_ && (used_[place / 64] >> place % 64 & 1) != 0;
    }
    std::size_t usedFrom(std::size_t place) const {
      auto word = place / 64;
      auto bits = word < used_.size() ? used_[word] & ~std::uint64_t{0} << place % 64 : 0;
      while (bits == 0) {
        if (++word >= used_.size())
          return none;
        bits = used_[word];
      }
      return word * 64 + static_cast<std::size_t>(std::countr_zero(bits));
    }
    // places() when all are used.
    std::size_t unusedFrom(std::size_t place) const {
      for (; isUsed(place); place = place / 64 * 64 + 64)
        if (auto const used = std::countr_one(used_[place / 64] >> place % 64);
            place % 64 + static_cast<std::size_t>(used) < 64)
          return place + static_cast<std::size_t>(used);
      return std::min(place, places_);
    }
    // Requires: the place is used.
    std::uint32_t hashAt(std::size_t place) const {
      if constexpr (keepsHashes)
        return hashes_[place];
      else
        return Hasher()(entries_[place].first);
    }
    // Requires: the place is unused.
    void put(std::size_t place, [[maybe_unused]] std::uint32_t hash, Entry && entry) {
      std::construct_at(&entries_[place], std::move(entry));
      if constexpr (keepsHashes)
        hashes_[place] = hash;
      used_[place / 64] |= std::uint64_t{1} << place % 64;
    }
    void drop(std::size_t place) {
      std::destroy_at(&entries_[place]);
      used_[place / 64] &= ~(std::uint64_t{1} << place % 64);
    }

  private:
    Entry * entries_ = nullptr;
    std::size_t places_ = 0;
    std::vector<std::uint32_t> hashes_; // of the used places, if they are kept
    std::vector<std::uint64_t> used_;   // a bit for each place
  };

  // Ascends with the hash, so that what is sorted by hash is sorted by home as well.
  std::size_t homeOf(std::uint32_t hash) const {
    return static_cast<std::size_t>(hash * std::uint64_t{homes_} >> 32);
  }
  // Where the entry of `key` stands, or would stand: the first place from its home on that has no
  // entry before it. Mostly that is the home or one of the next places. It can be far when keys
  // come in the order of another map, which fills the first homes only: hence the growing steps.
  std::size_t placeOf(std::uint32_t hash, Key const & key) const {
    auto low = homeOf(hash);
    if (guess_ > low && standsBefore(guess_ - 1, hash, key))
      low = guess_; // no gap and nothing greater is between that entry's home, or this, and it
    std::size_t step = 1;
    for (; standsBefore(low, hash, key); step *= 2)
      low += step;
    auto high = low;
    low -= step == 1 ? 0 : step / 2 - 1; // behind the last one that was seen to stand before
    while (low != high)
      if (auto const middle = low + (high - low) / 2; standsBefore(middle, hash, key))
        low = middle + 1;
      else
        high = middle;
    return high;
  }
  std::size_t placeOf(Key const & key) const { return placeOf(hasher_(key), key); }
  bool standsBefore(std::size_t place, std::uint32_t hash, Key const & key) const {
    if (!array_.isUsed(place))
      return false;
    auto const present = array_.hashAt(place);
    return present != hash ? present < hash : array_[place].first < key;
  }
  bool holds(std::size_t place, Key const & key) const {
    return array_.isUsed(place) && array_[place].first == key;
  }
  Value const * findFar(std::uint32_t hash, Key const & key) const {
    auto const place = placeOf(hash, key);
    return holds(place, key) ? foundAt(place) : nullptr;
  }
  Value const * foundAt(std::size_t place) const {
    guess_ = place + 1;
    return &array_[place].second;
  }
  void move(std::size_t from, std::size_t to) {
    array_.put(to, array_.hashAt(from), std::move(array_[from]));
    array_.drop(from);
  }
  // Frees a place by moving what stands there, and behind it without a gap, one further.
  void makeRoom(std::size_t place) {
    for (auto gap = array_.unusedFrom(place); gap != place; --gap)
      move(gap - 1, gap);
  }
  // Drops an entry, and moves nearer to its home what could not stand there because of it.
  void closeUp(std::size_t place) {
    array_.drop(place);
    for (; array_.isUsed(place + 1) && homeOf(array_.hashAt(place + 1)) <= place; ++place)
      move(place + 1, place);
  }
  // Rebuilds if the array is too full, or has no room from `place` on. True if and only if it did.
  bool rebuildIfFull(std::size_t place) {
    if ((size_ + 1) * 8 > homes_ * 7)
      rebuild(std::max<std::size_t>(8, homes_ + homes_ / 2), shortestTail);
    else if (array_.unusedFrom(place) == array_.places())
      rebuild(homes_, std::max(shortestTail, size_));
    else
      return false;
    return true;
  }
  // Spreads the entries over so many homes, with places left behind the last one.
  void rebuild(std::size_t homes, std::size_t tail) {
    homes_ = homes;
    std::size_t behind = 0; // the last place that is needed
    for (auto from = array_.usedFrom(0); from != none; from = array_.usedFrom(from + 1))
      behind = std::max(behind, homeOf(array_.hashAt(from))) + 1;
    auto old = std::exchange(array_, Array(std::max(homes, behind) + tail));
    behind = 0;
    for (auto from = old.usedFrom(0); from != none; from = old.usedFrom(from + 1)) {
      auto const place = std::max(behind, homeOf(old.hashAt(from)));
      array_.put(place, old.hashAt(from), std::move(old[from]));
      behind = place + 1;
    }
  }
  void advanceStamp() { changeStamp_ = (changeStamp_ + 1) & 0x7FFFFF; }

  Array array_;
  std::size_t homes_ = 0; // the rest of the array is the tail, for what has no room at its home
  std::size_t size_ = 0;
  std::uint32_t changeStamp_ = 0;
  // Where the next key may be, behind the last one. Any place, or none.
  std::size_t mutable guess_ = 0;
  [[no_unique_address]] Hasher hasher_;
};

} // namespace Zel
