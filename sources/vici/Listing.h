// What strongSwan says of its connections and security associations, as values that any IKE daemon
// could give.
//
// Texts that the daemon chose come out printable: a control character or an octet that is not
// UTF-8 becomes "\xNN". A word that nobody knows, or a number that is none, makes the state of the
// security association it belongs to unknown. A traffic selector that cannot be read is left out:
// it is for a service by name, and no tunnel has one. Keys that nobody asks for are passed over.
#pragma once

#include "sources/ike/Ike.h"
#include "sources/vici/Message.h"
#include <string>
#include <vector>

namespace Sources::Vici {

/// Traffic selectors that one message may have; more are left out.
inline constexpr std::size_t mostSelectors = 4096;

/// The security associations of a list-sa event, which has one. A responder's that is not known to
/// belong to a connection yet is left out. Raises Malformed.
std::vector<Ike::IkeSa> decodeSas(Octets message);

/// The connections of a list-conn event, which has one. Raises Malformed.
std::vector<Ike::Connection> decodeConnections(Octets message);

/// The answer to "version" in words: "strongSwan 5.9.8". Raises Malformed.
std::string decodeVersion(Octets message);

/// What an answer says is wrong, one line; empty when nothing is. Raises Malformed.
std::string decodeError(Octets message);

} // namespace Sources::Vici
