// Which links a child is for, as its selectors say, and why they are for none.
#pragma once

#include "sources/ike/Ike.h"
#include "sources/ike/LinkIndex.h"
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Sources::Ike {

/// What a child is for. Of many selectors the first 16 of each side count.
struct Selection {
  Mode mode;
  std::span<Selector const> local;
  std::span<Selector const> remote;
  /// Those of the IKE_SA, or of the connection: for them dynamic selectors stand, and a child in
  /// transport mode is for no others. Nothing where they are not known.
  std::optional<Endpoints> own = {};
};

/// The links whose packets the selectors are for: single addresses that are the link's endpoints,
/// or, in transport mode, selectors that cover the link's endpoints, which are the own ones; of the
/// kind's protocol, or any; from all ports, to the link's. A link that leaves its local endpoint to
/// the routes counts as one that comes from the own address. vti links are not among them.
LinkIndex::Found selectedLinks(LinkIndex const & index, Selection const & selection);

/// Why there are none, one line for people; empty when the selectors leave more than single
/// addresses, so that there cannot be any.
std::string whyNoneSelected(LinkIndex const & index, Selection const & selection);

/// The links between those addresses, and those to the remote one that leave the local one open.
LinkIndex::Found linksBetween(LinkIndex const & index, Endpoints const & own);

} // namespace Sources::Ike
