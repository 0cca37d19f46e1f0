// The tables of the header.
#include "sources/ike/ConnectionState.h"
#include <algorithm>
#include <iterator>

namespace Sources::Ike {

using ::Ipsec::Ike::ConnState;

namespace {

/// What a child amounts to under an IKE_SA that is in use.
enum class Use : std::uint8_t { carries, notYet, noLonger, unknown };

Use useOf(ChildState child) {
  switch (child) {
  case ChildState::installed:
  case ChildState::updating:
  case ChildState::rekeying:
  case ChildState::rekeyed:
    return Use::carries;
  case ChildState::created:
  case ChildState::routed:
  case ChildState::installing:
  case ChildState::retrying:
    return Use::notYet;
  case ChildState::deleting:
  case ChildState::deleted:
  case ChildState::destroying:
    return Use::noLonger;
  case ChildState::unknown:
    break;
  }
  return Use::unknown;
}

bool isInUse(IkeState ike) {
  return ike == IkeState::established || ike == IkeState::passive || ike == IkeState::rekeying ||
         ike == IkeState::rekeyed;
}

} // namespace

bool isThere(ChildState state) {
  return state != ChildState::deleted && state != ChildState::destroying;
}

ConnState connectionState(IkeState ike) {
  switch (ike) {
  case IkeState::created:
  case IkeState::connecting:
    return ConnState::connecting;
  case IkeState::established:
  case IkeState::passive:
    return ConnState::ikeUp;
  case IkeState::rekeying:
    return ConnState::rekeying;
  case IkeState::rekeyed:
  case IkeState::deleting:
  case IkeState::destroying:
    return ConnState::closing;
  case IkeState::unknown:
    break;
  }
  return ConnState::unknown;
}

ConnState connectionState(IkeState ike, ChildState child) {
  if (!isInUse(ike))
    return connectionState(ike);
  switch (useOf(child)) {
  case Use::carries: // the standby of a cluster carries nothing
    return ike == IkeState::passive ? ConnState::ikeUp : ConnState::up;
  case Use::notYet:
    return connectionState(ike);
  case Use::noLonger:
    return ConnState::closing;
  case Use::unknown:
    break;
  }
  return ConnState::unknown;
}

bool isBetter(ConnState one, ConnState other) {
  static constexpr ConnState order[] = {
      ConnState::up,      ConnState::rekeying, ConnState::ikeUp, ConnState::connecting,
      ConnState::closing, ConnState::unknown,  ConnState::down,  ConnState::none};
  return std::ranges::find(order, one) < std::ranges::find(order, other);
}

ConnState betterOf(ConnState one, ConnState other) {
  return isBetter(other, one) ? other : one;
}

} // namespace Sources::Ike
