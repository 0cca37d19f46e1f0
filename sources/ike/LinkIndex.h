// Finds the links that a security association may be about, by what the association says.
#pragma once

#include "sources/Links.h"
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
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

/// Good until a link changes. What is found comes in no particular order.
class LinkIndex {
public:
  using Found = std::vector<Link const *>;

  explicit LinkIndex(Links const & links);

  /// The xfrm links of that id.
  Found withIfId(std::uint32_t ifId) const;
  /// The vti links of that output key whose endpoints these are.
  Found withKey(std::uint32_t key, Endpoints const & endpoints) const;
  /// The links of all kinds whose endpoints these are. None of those without a remote endpoint.
  Found between(Endpoints const & endpoints) const;

private:
  static constexpr std::size_t none = SIZE_MAX;
  struct Entry {
    Link const * link;
    std::size_t next; // among those of the same endpoints, or of the same id
  };

  template <class Heads, class Key>
  void add(Heads & heads, Key const & key, Link const & link);
  template <class Heads, class Key, class Is>
  Found collect(Heads const & heads, Key const & key, Is is) const;

  std::vector<Entry> entries_;
  std::unordered_map<std::uint32_t, std::size_t> byIfId_;
  std::unordered_map<Endpoints, std::size_t, EndpointsHash> byEndpoints_;
  // Many vti links may have the same endpoints, and keys of their own.
  std::unordered_map<std::uint64_t, std::size_t> byKey_;
};

} // namespace Sources::Ike
