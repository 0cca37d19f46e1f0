// How a source puts its records into the state database.
//
// Each source has a Publisher of its own, which owns what that source has published and nothing
// else. A change that the source hears of is published at once. A full read (FullRead.h) hands over
// everything that is there, and becomes the differences. Publishers.h is what all publishers of a
// database share.
#pragma once

#include "platform/Interface.h"
#include "platform/Ipsec.h"
#include "statedb/Claim.h"
#include "statedb/FullRead.h"
#include "statedb/Publishers.h"
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace StateDb {

/// What one source has published. A record is handed over as its plain values; the publisher
/// compares them with what stands in the database and sets what differs.
///
/// What holds of every change:
///  - A record that is there is changed in place: each attribute that differs is notified once, in
///    the order of the record's list, when all are stored. A new record is complete before it is
///    inserted. A record that is right already is left alone, and nothing is notified.
///  - std::nullopt puts null where a collection may hold a null record.
///  - Publishing a key makes it the publisher's, also where somebody else's record stands already.
///    Removing one that is not the publisher's does nothing. What somebody else has removed already
///    is not removed again, and not put back before the source publishes it again.
///  - `kind` says what the record is about (the type of a link, for instance). Where a record comes
///    under a key that the publisher has with another kind, the old one is removed first.
///  - What a notifiee raises is counted and reported (NotifieeFailed.h), and publication goes on.
///  - Notifiees may call the publisher again; what they publish is newer.
///
/// For one thread. Its end leaves what was published in place, and forgets its claims.
class Publisher {
public:
  using Status = Interface::TunnelIntfStatusValues;
  using TunnelInfo = Ipsec::Ike::TunnelInfoValues;
  using Connection = Ipsec::Ike::IpsecTunnelProfileInfoValues;
  using Kind = std::uint32_t;

  /// How many records are the publisher's now, by collection.
  struct Counts {
    std::size_t statuses = 0;
    std::size_t ifIndexes = 0;
    std::size_t tunnelInfos = 0;
    std::size_t profiles = 0;
    std::size_t connections = 0;
    std::size_t statusClaims = 0;
    bool operator==(Counts const &) const = default;
  };

  /// `publishers` outlives the publisher. Requires: the publisher does not end inside a
  /// notification that it causes.
  explicit Publisher(Publishers & publishers);
  Publisher(Publisher const &) = delete;
  Publisher & operator=(Publisher const &) = delete;
  ~Publisher();

  // A tunnel whose status and ifIndex come and go together. On arrival the ifIndex comes before the
  // status, on removal it goes after it, so that no row is left behind.
  void tunnelIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Status const & status, Kind kind = 0);
  void tunnelDel(Plexa::IntfId intfId);

  // Single records. The order of those that belong together is the caller's.
  void statusIs(Plexa::IntfId intfId, std::optional<Status> const & status, Kind kind = 0);
  void statusDel(Plexa::IntfId intfId);
  /// `ifIndex` is 1 to 2147483647 (RFC 2863 InterfaceIndex).
  void ifIndexIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Kind kind = 0);
  void ifIndexDel(Plexa::IntfId intfId);
  void tunnelInfoIs(Plexa::IntfId intfId, std::optional<TunnelInfo> const & info);
  void tunnelInfoDel(Plexa::IntfId intfId);

  /// Has a record for the profile there. A new one has no connections; those in a present one stay,
  /// those of other publishers as well.
  void profileIs(std::string const & profile);
  /// Puts null where the profile is; its connections go with it.
  void nullProfileIs(std::string const & profile);
  /// Removes the profile with all its connections, those of others as well.
  void profileDel(std::string const & profile);
  /// Publishes the profile as well, as profileIs() does.
  void connectionIs(std::string const & profile, Plexa::IntfId intfId,
                    std::optional<Connection> const & connection);
  /// The profile stays.
  void connectionDel(std::string const & profile, Plexa::IntfId intfId);

  /// Claims members of a status that another publisher publishes: Claim.h says what that does.
  /// Takes the place of what this publisher claimed of that status before. A claim without members
  /// is none.
  void statusClaimIs(Plexa::IntfId intfId, Claim<Status> const & claim);
  void statusClaimDel(Plexa::IntfId intfId);

  /// Begins a full read. Ends an earlier one: handing over to that does nothing any more, and what
  /// is left of its commit is dropped, with its `done` not called.
  [[nodiscard]] FullRead beginFullRead();

  Counts counts() const;
  /// How many records and claims have been put, changed or removed since the publisher was made.
  /// One record is one change, however many of its attributes differ.
  std::uint64_t changes() const;
  /// True if and only if a commit is not done yet.
  bool isCommitting() const;

private:
  std::shared_ptr<Ledgers> const ledgers_;
};

} // namespace StateDb
