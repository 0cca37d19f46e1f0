// How the connection of an interface is doing, from how far its security associations have come.
#pragma once

#include "platform/Ipsec.h"
#include "sources/ike/Ike.h"

namespace Sources::Ike {

/// True if and only if the CHILD_SA counts. One that is deleted is listed for some seconds more.
bool isThere(ChildState state);

/// Of an IKE_SA without a child, or of what has no child of it:
///
///   CREATED, CONNECTING              connecting
///   ESTABLISHED, PASSIVE             ikeUp
///   REKEYING                         rekeying
///   REKEYED, DELETING, DESTROYING    closing
::Ipsec::Ike::ConnState connectionState(IkeState ike);

/// Of one child of an IKE_SA. Requires: the child is there.
///
///   IKE_SA                           CHILD_SA
///   CREATED, CONNECTING              any                                        connecting
///   DELETING, DESTROYING             any                                        closing
///   ESTABLISHED, REKEYING, REKEYED   INSTALLED, UPDATING, REKEYING, REKEYED     up
///   ESTABLISHED, PASSIVE, REKEYING,
///   REKEYED                          DELETING                                   closing
///   the same                         any other that is known                    as without a child
///
/// A word that nobody knows makes it unknown, unless the other one decides alone.
::Ipsec::Ike::ConnState connectionState(IkeState ike, ChildState child);

/// True if and only if `one` is to be shown where both are true of one interface. From best to
/// worst: up, rekeying, ikeUp, connecting, closing, unknown, down.
bool isBetter(::Ipsec::Ike::ConnState one, ::Ipsec::Ike::ConnState other);
/// The better one.
::Ipsec::Ike::ConnState betterOf(::Ipsec::Ike::ConnState one, ::Ipsec::Ike::ConnState other);

} // namespace Sources::Ike
