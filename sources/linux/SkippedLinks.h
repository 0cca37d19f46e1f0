// The tunnel links that are not published because nobody asked for their kind: only so that an
// operator who misses one can be told.
#pragma once

#include "sources/linux/TunnelKind.h"
#include <absl/container/btree_map.h>
#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace Sources::Linux {

/// Follows events and full reads as LinkPublication does. What an event says while a read is under
/// way counts until the next read, at most.
class SkippedLinks {
public:
  /// The link of that index is of this kind, which is not published; nothing: it is none of these.
  void linkIs(std::uint32_t index, std::optional<TunnelKind> kind);

  /// A full read begins, in the place of one that is under way.
  void beginReading() { ++reading_; }
  /// It is over: links that linkIs() has not told of since it began are gone, if it saw all.
  void endReading(bool whole);

  /// How many there are of each kind, and what publishes them: one line; empty when there are none.
  std::string summary() const;

private:
  struct Entry {
    TunnelKind kind;
    std::uint64_t reading; // the last one in which it was there
  };
  using Links = absl::btree_map<std::uint32_t, Entry>;

  std::size_t & countOf(Entry const & entry) {
    return counts_[static_cast<std::size_t>(entry.kind)];
  }
  Links::iterator erase(Links::iterator position);

  Links links_;
  std::array<std::size_t, tunnelKinds> counts_{}; // of the links, by kind
  std::uint64_t reading_ = 0;
};

} // namespace Sources::Linux
