// The inputs of the state database as one JSON document, read whole or in part, and changed by
// JSON Patch (RFC 6902).
//
//   /tunnelIntfStatusDir/intfStatus/<intfId>   {srcAddr, dstAddr, mode, hopLimit, tos, ipsec}
//   /ifMib/ifIndexByIntfId/<intfId>            ifIndex, 1 to 2147483647 (RFC 2863 InterfaceIndex)
//   /ikeStatus/ipsecTunnelInfo/<intfId>        {profileName}
//   /ikeStatus/appliedProfiles/<profile>       {appliedIntfId: {<intfId>: {connState}}}
//
// <intfId> is decimal, 0 to 2^64-1. Addresses are text, "" for none; mode and connState are a
// number or an enumerator's name on the way in, and a name (a number where there is none) on the
// way out. null stands where a collection holds a null record. A member left out of a new record
// has its default; a member that a record does not have is an error.
#pragma once

#include "statedb/DocumentError.h"
#include "statedb/NotifieeFailed.h"
#include "statedb/PatchRun.h"
#include "statedb/StateDb.h"
#include <nlohmann/json_fwd.hpp>
#include <string_view>

namespace StateDb {

/// A view; holds no state of its own but the report function. The database outlives it.
class StateDocument {
public:
  using NotifieeFailed = ::StateDb::NotifieeFailed;

  explicit StateDocument(StateDb & database, NotifieeFailed notifieeFailed = {});

  /// The part of the document at a JSON pointer; "" is all of it. Raises DocumentError when there
  /// is nothing at the pointer or it is malformed.
  nlohmann::json read(std::string_view pointer) const;

  /// Checks the whole patch, then carries it out, in one go; PatchRun.h says how, and does the same
  /// step by step. Raises DocumentError, with nothing changed, when any operation is unusable.
  void apply(nlohmann::json patch);
  /// The patch, to be carried out step by step. Raises DocumentError when it is no array.
  PatchRun begin(nlohmann::json patch);

private:
  StateDb & database_;
  NotifieeFailed notifieeFailed_;
};

} // namespace StateDb
