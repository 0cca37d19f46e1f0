// What is known of each tunnel, out of the inputs and of what sources know of links besides: for
// people, who want to see one line a tunnel and why one is missing from a table.
#pragma once

#include "sources/Links.h"
#include "statedb/StateDb.h"
#include <optional>
#include <string>

namespace Agent {

/// Writes the tunnels piece by piece, in order of their ids, as [{intfId, interface, kind, ifIndex,
/// local, remote, mode, hopLimit, ipsec, profile, connState}, ...] in JSON. What there is none of
/// is left out: a name and a kind of which no source knows, an ifIndex, a profile, a state.
/// Addresses are text, "" for none; mode and connState are the enumerators' names. No text has a
/// control character in it. A tunnel that is there all the while is written once; one that comes or
/// goes meanwhile may be. The database and the links outlive it.
class TunnelsWriter {
public:
  TunnelsWriter(StateDb::StateDb const & database, Sources::Links const & links)
      : database_(database),
        links_(links) {}

  /// Appends the next piece, some hundred tunnels at most. True if and only if there is more.
  bool next(std::string & out);

private:
  StateDb::StateDb const & database_;
  Sources::Links const & links_;
  std::optional<Plexa::IntfId> last_; // the tunnel behind which the next piece begins
  bool begun_ = false;
  bool anyTunnel_ = false;
};

} // namespace Agent
