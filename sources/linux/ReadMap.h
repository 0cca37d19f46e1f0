// What the kernel has of one kind, by key: kept in step by events, and by readings of everything,
// during which events go on.
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

namespace Sources::Linux {

/// For one thread. What is() and del() say while a reading is under way is newer than the reading,
/// and wins. What a reading finds is there at once; what it does not find goes at its end.
template <class Key, class Value>
class ReadMap {
public:
  std::size_t size() const { return entries_.size(); }
  /// The value, or null. Good until that key's value changes.
  Value const * find(Key const & key) const {
    auto const found = entries_.find(key);
    return found == entries_.end() ? nullptr : &found->second->value;
  }

  /// Calls `take(key, value)` for each key that is not less, in order, while that is true.
  template <class Take>
  void forEachFrom(Key const & least, Take take) const {
    for (auto next = entries_.lower_bound(least);
         next != entries_.end() && take(next->first, next->second->value); ++next) {
    }
  }

  /// Gives what was there before.
  std::optional<Value> is(Key const & key, Value value) {
    heardOf(key);
    return store(key, std::move(value));
  }
  /// Gives what was there.
  std::optional<Value> del(Key const & key) {
    heardOf(key);
    auto const found = entries_.find(key);
    if (found == entries_.end())
      return std::nullopt;
    if (found->second->reading == reading_)
      --seen_;
    auto gone = std::move(found->second->value);
    entries_.erase(found);
    return gone;
  }

  /// Begins a reading, in the place of one that is under way.
  void beginReading() {
    isReading_ = true;
    ++reading_;
    seen_ = 0;
    lookedAt_.reset();
    heardOf_.clear();
  }
  /// True if and only if is() or del() spoke of the key during the reading: found() must not.
  bool isNewer(Key const & key) const { return heardOf_.contains(key); }
  /// The reading has found it. Gives what was there before. Requires: not isNewer(key).
  std::optional<Value> found(Key const & key, Value value) { return store(key, std::move(value)); }
  /// The reading cannot tell what it found there: what is known stays.
  void stays(Key const & key) {
    if (auto const found = entries_.find(key); found != entries_.end())
      noteSeen(*found->second);
  }
  /// Ends a reading that saw everything: gives one key that it did not find, to be deleted. Nothing
  /// when there is none left; the reading is over then.
  std::optional<Key> unseen() {
    // As a rule all were seen, and the count says so without a walk.
    auto next = lookedAt_ ? entries_.upper_bound(*lookedAt_) : entries_.begin();
    for (; seen_ != entries_.size() && next != entries_.end(); ++next) {
      lookedAt_ = next->first;
      if (next->second->reading != reading_)
        return next->first;
    }
    endReading();
    return std::nullopt;
  }
  /// Ends a reading that did not see everything.
  void endReading() {
    isReading_ = false;
    heardOf_.clear();
  }

private:
  struct Entry {
    Value value;
    std::uint64_t reading; // the last one in which it was there
  };

  void heardOf(Key const & key) {
    if (isReading_)
      heardOf_.insert(key);
  }
  std::optional<Value> store(Key const & key, Value value) {
    auto & entry = entries_[key];
    if (!entry) {
      entry = std::make_unique<Entry>(Entry{std::move(value), reading_});
      ++seen_;
      return std::nullopt;
    }
    noteSeen(*entry);
    return std::exchange(entry->value, std::move(value));
  }
  void noteSeen(Entry & entry) {
    if (std::exchange(entry.reading, reading_) != reading_)
      ++seen_;
  }

  absl::btree_map<Key, std::unique_ptr<Entry>> entries_;
  bool isReading_ = false;
  std::uint64_t reading_ = 0; // the number of the last one
  std::size_t seen_ = 0;      // entries that bear it
  std::optional<Key> lookedAt_;
  absl::btree_set<Key> heardOf_; // since the reading that is under way began
};

} // namespace Sources::Linux
