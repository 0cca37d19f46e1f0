// Finds the links that a security association may be about, by what the association says.
#pragma once

#include "sources/Links.h"
#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace Sources::Ike {

/// Where packets come from and go to.
struct Endpoints {
  Plexa::IpGenAddr local;
  Plexa::IpGenAddr remote;
  bool operator==(Endpoints const &) const = default;
};
struct EndpointsHash {
  std::size_t operator()(Endpoints const & endpoints) const;
};

/// Where the packets of a link come from and go to, as it says itself. The local one is the empty
/// address where the routes decide.
Endpoints endpointsOf(Link const & link);
/// True if and only if what passes the link is protected by IPsec policies of its own, and never
/// by those for its outer packets.
bool isVti(Link const & link);

/// What the outer packets of links of that kind may be; empty of a kind that has no protocol of its
/// own, or whose packets go to no one place.
std::vector<std::uint8_t> const & protocolsOf(std::string_view kind);

/// Follows the links: a change of one costs the same, but for the depth of a tree, however many
/// there are. Where memory was too short to follow one, all are read again when the next is sought.
///
/// Requires: nothing is sought from inside a call that changes a link.
class LinkIndex {
public:
  /// Good until a link changes. In no particular order.
  using Found = std::vector<Link const *>;

  /// Reads all links. They outlive it.
  explicit LinkIndex(Links & links);
  LinkIndex(LinkIndex const &) = delete;
  LinkIndex & operator=(LinkIndex const &) = delete;

  Links const & links() const { return links_; }
  /// The xfrm links of that id; none of id 0.
  Found withIfId(std::uint32_t ifId) const;
  /// The vti links of that output key whose endpoints these are.
  Found withKey(std::uint32_t key, Endpoints const & endpoints) const;
  /// The links of all kinds whose endpoints these are. None of those without a remote endpoint.
  Found between(Endpoints const & endpoints) const;

private:
  /// A hash of what a link is found by; once in a while another link's as well.
  using Mark = std::uint32_t;
  using Marks = std::array<std::optional<Mark>, 3>;

  static Marks marksOf(Link const & link);
  void linkHasChanged(Plexa::IntfId intfId);
  void marksAre(Plexa::IntfId intfId, Marks const & marks) const;
  void build() const;
  template <class Is>
  Found collect(Mark mark, Is is) const;

  Links & links_;
  // Made again by whoever seeks, when they are not whole.
  bool mutable isWhole_ = false;
  absl::btree_map<Plexa::IntfId, Marks> mutable marks_; // of each link that has any
  absl::btree_set<std::pair<Mark, Plexa::IntfId>> mutable byMark_;
  Links::Handle const watch_;
};

} // namespace Sources::Ike
