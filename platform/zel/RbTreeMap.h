// The ordered collection of the output tables: a red-black tree whose nodes hold runs of entries.
//
// Tables are searched by every event and walked by managers row after row. With an entry a node,
// each step of a search or a walk through 100 000 rows fetches memory from another place; with a
// run a node, a walk reads forward and a search has a sixteenth of the nodes to pass. The tree over
// the runs is the standard map.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

namespace Zel {

/// Keys to values in ascending key order, one value a key. An insertion or a removal ends every
/// iterator; version() tells whether there was one.
template <class Key, class Value>
class RbTreeMap {
  using Entry = std::pair<Key, Value>;
  using Run = std::vector<Entry>;  // never empty, never above `capacity`
  using Runs = std::map<Key, Run>; // by a key that is above all of the run before, and above none
  using Place = typename Runs::const_iterator; // of the run itself

public:
  class const_iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = value_type const *;
    using reference = value_type const &;

    const_iterator() = default;
    reference operator*() const { return *entry_; }
    pointer operator->() const { return entry_; }
    const_iterator & operator++() {
      if (++entry_ == run_->second.data() + run_->second.size())
        *this = const_iterator(std::next(run_), end_);
      return *this;
    }
    const_iterator operator++(int) {
      auto const before = *this;
      ++*this;
      return before;
    }
    bool operator==(const_iterator const & other) const { return entry_ == other.entry_; }

  private:
    friend RbTreeMap;
    const_iterator(Place run, Place end)
        : run_(run),
          end_(end),
          entry_(run == end ? nullptr : run->second.data()) {}
    // At `index` of the run, which may be one too far.
    const_iterator(Place run, Place end, std::ptrdiff_t index) : const_iterator(run, end) {
      if (index == std::ssize(run->second))
        *this = const_iterator(std::next(run), end);
      else
        entry_ += index;
    }
    Place run_;
    Place end_;
    Entry const * entry_ = nullptr; // null at the end
  };

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  /// A number that every insertion, every removal and every clear() advances by one, and nothing
  /// else changes; it comes round after 2^32 of them.
  std::uint32_t version() const { return version_; }

  const_iterator begin() const { return {runs_.begin(), runs_.end()}; }
  const_iterator end() const { return {runs_.end(), runs_.end()}; }
  /// The entry with exactly this key, or end().
  const_iterator find(Key const & key) const {
    auto const place = findNotLess(key);
    return isAt(place, key) ? place : end();
  }
  /// The first entry whose key is greater than `key`, or end(). The key itself need not be present.
  const_iterator findNext(Key const & key) const {
    auto const place = findNotLess(key);
    return isAt(place, key) ? std::next(place) : place;
  }
  /// The first entry whose key is not less than `key`, or end().
  const_iterator findNotLess(Key const & key) const {
    auto run = runs_.upper_bound(key);
    if (run != runs_.begin())
      --run;
    else if (run == runs_.end())
      return end();
    auto const & entries = run->second;
    auto const found = std::ranges::lower_bound(entries, key, {}, &Entry::first);
    return {run, runs_.end(), found - entries.begin()};
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
    if (isAt(position, key)) {
      std::swap(const_cast<Entry *>(position.entry_)->second, value);
      return;
    }
    insert(position, {key, std::move(value)});
    ++size_;
    ++version_;
  }
  /// Removes the entry at `position` and returns its value.
  Value erase(const_iterator position) {
    auto const run = mutableRun(position.run_);
    auto & entries = run->second;
    auto const index = position.entry_ - entries.data();
    auto value = std::move(entries[static_cast<std::size_t>(index)].second);
    entries.erase(entries.begin() + index);
    if (entries.empty())
      runs_.erase(run);
    else
      takeNextRun(run);
    --size_;
    ++version_;
    return value;
  }
  void clear() {
    ++version_;
    size_ = 0;
    Runs().swap(runs_);
  }

private:
  // Half a kilobyte to one: less to move than a search through more runs would cost.
  static constexpr std::size_t capacity = std::max<std::size_t>(16, 512 / sizeof(Entry));

  bool isAt(const_iterator position, Key const & key) const {
    return position != end() && position->first == key;
  }
  typename Runs::iterator mutableRun(Place run) { return runs_.erase(run, run); }

  // Puts the entry before `position`: at the end of the run before where that is its run.
  void insert(const_iterator position, Entry entry) {
    auto run = mutableRun(position.run_);
    auto index = position == end() ? 0 : position.entry_ - run->second.data();
    if (run != runs_.begin() && (run == runs_.end() || entry.first < run->first))
      index = std::ssize((--run)->second);
    if (run == runs_.end() || (std::next(run) == runs_.end() && isFull(run, index))) {
      // Behind the last run, which is full: what comes in ascending order leaves full runs behind.
      run = newRun(runs_.end(), entry.first);
      index = 0;
    } else if (run->second.size() == capacity) {
      auto const half = std::ssize(run->second) / 2;
      auto const upper = split(run, half);
      if (index > half) {
        run = upper;
        index -= half;
      }
    }
    if (index == 0 && run == runs_.begin())
      run = renamed(run, entry.first);
    run->second.insert(run->second.begin() + index, std::move(entry));
  }
  typename Runs::iterator newRun(Place before, Key const & key) {
    auto const run = runs_.emplace_hint(before, key, Run());
    run->second.reserve(capacity);
    return run;
  }
  // The first run, about to begin with `key`.
  typename Runs::iterator renamed(typename Runs::iterator first, Key const & key) {
    auto node = runs_.extract(first);
    node.key() = key;
    return runs_.insert(runs_.begin(), std::move(node));
  }
  bool isFull(typename Runs::iterator run, std::ptrdiff_t index) const {
    return run->second.size() == capacity && index == std::ssize(run->second);
  }
  // Moves the entries from `half` on into a run of their own, and returns that.
  typename Runs::iterator split(typename Runs::iterator run, std::ptrdiff_t half) {
    auto & entries = run->second;
    auto const middle = entries.begin() + half;
    auto const upper = newRun(std::next(run), middle->first);
    std::move(middle, entries.end(), std::back_inserter(upper->second));
    entries.erase(middle, entries.end());
    return upper;
  }
  // Joins a run and the one behind it once the two fill half a run: many removals leave few runs.
  void takeNextRun(typename Runs::iterator run) {
    auto const next = std::next(run);
    if (next == runs_.end() || run->second.size() + next->second.size() > capacity / 2)
      return;
    std::ranges::move(next->second, std::back_inserter(run->second));
    runs_.erase(next);
  }

  Runs runs_;
  std::size_t size_ = 0;
  std::uint32_t version_ = 0;
};

} // namespace Zel
