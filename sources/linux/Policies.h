// The outbound IPsec policies of the kernel, found by the packets that they are for.
//
// As the kernel finds them: policies of one shape, that is of the same prefix lengths, protocol and
// port masks, lie in one tree by what remains of a packet under that shape. Finding the one
// that decides takes a look into each tree, and there are as many trees as shapes, a few as a
// rule, however many policies there are.
#pragma once

#include "sources/linux/Flow.h"
#include "sources/linux/PolicyDecoder.h"
#include "sources/linux/ReadMap.h"
#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

namespace Sources::Linux {

/// For one thread. Policies of other directions are not kept.
///
/// The lowest priority decides; of equal ones the oldest, as was seen of the kernel. Nobody says
/// how old a policy is, but the kernel's dumps begin with the newest. One that is updated counts as
/// new, as for the kernel unless both are for the same two prefixes.
class Policies {
public:
  /// How many looks into trees have been taken, and policies handed over, for who wonders what
  /// finding costs.
  struct Work {
    std::uint64_t looks = 0;
  };

  Policies() = default;
  Policies(Policies const &) = delete;
  Policies & operator=(Policies const &) = delete;

  std::size_t size() const { return entries_.size(); }
  /// The policy of that index, or null. As all pointers from here good until policies change.
  Policy const * find(std::uint32_t index) const;
  /// The one that decides on packets of that flow, or null.
  Policy const * effective(Flow const & flow) const;
  /// Is handed policies one by one, until it says false.
  using Take = std::function<bool(Policy const &)>;
  /// Hands over those of that if_id, that which decides first; none for 0. False if and only if
  /// `take` has said so.
  bool forEachOfInterface(std::uint32_t ifId, Take const & take) const;
  /// The same of those without an if_id whose mark is needed and covers `mark`, in the same order
  /// for each mark.
  bool forEachOfMark(std::uint32_t mark, Take const & take) const;

  /// The newest policy is so; it takes the place of the one of its index. Gives what was there.
  std::optional<Policy> policyIs(Policy const & policy);
  /// Gives what was there.
  std::optional<Policy> policyDel(std::uint32_t index);

  // A reading of all, as ReadMap has it.
  void beginReading();
  /// The dump has the policy; those that it has afterwards are older. Gives what was there before.
  /// Does nothing but give the policy itself where an event has told of it meanwhile.
  std::optional<Policy> found(Policy const & policy);
  /// The dump has something of that index that cannot be understood: what is known of it stays.
  void stays(std::uint32_t index) { entries_.stays(index); }
  /// Ends a reading that saw everything: takes away a policy that was not found and gives it.
  /// Nothing when there is none left; the reading is over then.
  std::optional<Policy> takeUnseen();
  /// Ends a reading that did not.
  void endReading() { entries_.endReading(); }

  Work const & work() const { return work_; }

private:
  /// What two policies must share to lie in one tree.
  struct Shape {
    Plexa::AddressFamily family;
    std::uint8_t sourceLength;
    std::uint8_t destinationLength;
    std::uint8_t protocol;
    std::uint16_t sourcePortMask;
    std::uint16_t destinationPortMask;
    auto operator<=>(Shape const &) const = default;
  };
  /// What is left of a packet under a shape: as many octets as that says.
  using Remains = std::array<std::uint8_t, 36>;
  /// In order of who decides.
  struct Rank {
    std::uint32_t priority;
    std::int64_t age; ///< the oldest has the least
    std::uint32_t index;
    auto operator<=>(Rank const &) const = default;
  };
  using Ranking = absl::btree_set<Rank>;
  struct Entry {
    Policy policy;
    std::int64_t age;
  };

  static Shape shapeOf(PolicySelector const & selector);
  static Remains remainsOf(Shape const & shape, Flow const & flow);
  static Remains remainsOf(PolicySelector const & selector);
  static Rank rankOf(Entry const & entry);
  static bool isForFlows(Policy const & policy);

  /// An entry has come in the place of another one, if there was one.
  std::optional<Policy> stored(Entry const & entry, std::optional<Entry> before);
  void enter(Entry const & entry);
  void leave(Entry const & entry);
  /// Puts the rank into the ranking at `key`, or takes it out; no empty one stays.
  template <class Map>
  static void enter(Map & rankings, typename Map::key_type const & key, Rank const & rank);
  template <class Map>
  static void leave(Map & rankings, typename Map::key_type const & key, Rank const & rank);
  bool forEach(Ranking const & ranking, Take const & take) const;

  ReadMap<std::uint32_t, Entry> entries_;                      // by index
  std::map<Shape, absl::btree_map<Remains, Ranking>> byShape_; // those for flows
  absl::btree_map<std::uint32_t, Ranking> byIfId_;
  std::map<std::uint32_t, absl::btree_map<std::uint32_t, Ranking>> byMark_; // mask, value
  std::int64_t newest_ = 0;
  std::int64_t nextFound_ = 0;
  Work mutable work_;
};

} // namespace Sources::Linux
