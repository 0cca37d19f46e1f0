// The links that IPsec policies may be about, found by what a policy says.
#pragma once

#include "platform/Plexa.h"
#include "sources/Links.h"
#include "sources/linux/Flow.h"
#include "sources/linux/PolicyDecoder.h"
#include "sources/linux/RouteSource.h"
#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace Sources::Linux {

/// For one thread.
class LinkFlows {
public:
  /// How many links have been looked at, for who wonders what a change costs.
  struct Work {
    std::uint64_t links = 0;
  };
  /// What a policy may say something about.
  struct Entry {
    std::vector<Flow> flows; ///< all between the same two addresses
    /// The routes give the local address, now or later: what it is may change unannounced.
    bool isRouted = false;
    std::optional<std::uint32_t> ifId = {}; ///< of a link of kind xfrm
    std::optional<std::uint32_t> mark = {}; ///< of a link of kind vti or vti6
    /// Of a link with a mark: its endpoints, between which the tunnels of its policies must be.
    Plexa::IpGenAddr local{};
    Plexa::IpGenAddr remote{};
    bool operator==(Entry const &) const = default;
  };

  /// `sourceOfRoute` is asked for the local address of each link that leaves it to the routes.
  explicit LinkFlows(SourceOfRoute sourceOfRoute = sourceTowards)
      : sourceOfRoute_(std::move(sourceOfRoute)) {}

  std::size_t size() const { return entries_.size(); }
  /// The entry of the link, or null. Good until the link changes.
  Entry const * find(Plexa::IntfId intfId) const;
  /// The first link behind that one, or behind none; nothing when there is none.
  std::optional<Plexa::IntfId> next(std::optional<Plexa::IntfId> behind) const;

  /// The link is there and is so, and its route is as it is now. True if and only if that is news.
  bool linkIs(Link const & link);
  /// The link is gone. True if and only if it had an entry.
  bool linkDel(Plexa::IntfId intfId);

  /// How many links are looked at for one policy: a quarter of a millisecond's work, about.
  static constexpr std::uint64_t mostLooks = 1000;

  /// Puts into `links` those that the policy is about. Looks at those only that its longer prefix
  /// covers, and at the one behind them, or that have its if_id or its mark. False when those are
  /// more than mostLooks, of which the rest was not looked at.
  [[nodiscard]] bool findConcerned(Policy const & policy,
                                   absl::btree_set<Plexa::IntfId> & links) const;

  Work const & work() const { return work_; }

private:
  using Address = std::pair<Plexa::AddressFamily, std::array<std::uint8_t, 16>>;
  using ByAddress = absl::btree_set<std::pair<Address, Plexa::IntfId>>;
  using ByNumber = absl::btree_set<std::pair<std::uint32_t, Plexa::IntfId>>;

  static Address keyOf(Plexa::IpGenAddr const & address);
  Entry entryOf(Link const & link) const;
  Link asRouted(Link link) const;
  void enter(Plexa::IntfId intfId, Entry const & entry);
  void leave(Plexa::IntfId intfId, Entry const & entry);
  bool findByFlow(Policy const & policy, absl::btree_set<Plexa::IntfId> & links) const;
  bool findByMark(Mark const & mark, absl::btree_set<Plexa::IntfId> & links) const;

  SourceOfRoute sourceOfRoute_;
  absl::btree_map<Plexa::IntfId, Entry> entries_;
  ByAddress byLocal_;
  ByAddress byRemote_;
  ByNumber byIfId_;
  ByNumber byMark_;
  Work mutable work_;
};

} // namespace Sources::Linux
