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

#include "statedb/NotifieeFailed.h"
#include "statedb/StateDb.h"
#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace StateDb {

/// A patch, or a document, that cannot be used. what() is one line with the place and the reason.
class DocumentError : public std::runtime_error {
public:
  /// what() is "operation OPERATION (POINTER): REASON", or "POINTER: REASON" for operation npos.
  DocumentError(std::size_t operation, std::string pointer, std::string const & reason);
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  /// Which operation of the patch is wrong, counted from 0; npos when it is no patch's.
  std::size_t operation() const { return operation_; }
  /// The JSON pointer (RFC 6901) that the error is about.
  std::string const & pointer() const { return pointer_; }

private:
  std::size_t operation_;
  std::string pointer_;
};

/// A view; holds no state of its own but the report function. The database outlives it.
class StateDocument {
public:
  using NotifieeFailed = ::StateDb::NotifieeFailed;

  explicit StateDocument(StateDb & database, NotifieeFailed notifieeFailed = {});

  /// The part of the document at a JSON pointer; "" is all of it. Raises DocumentError when there
  /// is nothing at the pointer or it is malformed.
  nlohmann::json read(std::string_view pointer) const;

  /// Checks the whole patch, then carries it out: operation by operation in order, each
  /// notification delivered before the next change is made. add and replace at a record's own path
  /// put a new record object there; replace (and add) of one member changes the record in place;
  /// remove deletes a record. move, copy and test as in RFC 6902. What costs time is the patch, not
  /// the size of the document. Raises DocumentError, with nothing changed, when any operation is
  /// unusable.
  void apply(nlohmann::json const & patch);

private:
  StateDb & database_;
  NotifieeFailed notifieeFailed_;
};

} // namespace StateDb
