// Everything that a source finds when it reads all there is, on its way into the state database.
#pragma once

#include "platform/Interface.h"
#include "platform/Ipsec.h"
#include "statedb/Claim.h"
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace StateDb {

class Ledgers;

/// A full read, made by Publisher::beginFullRead(). The source hands over each record as it decodes
/// it; nothing is published before the commit, and a read that ends without one has changed
/// nothing. A record that is right already costs a comparison and is not kept; only differences
/// are.
///
/// The commit makes the database what the read found: first what the publisher has and the read did
/// not find goes, over all collections, statuses before ifIndexes; then come additions and changes,
/// ifIndexes before statuses. What others did to the publisher's records before they were handed
/// over is undone. Records of others are left alone, those in a profile too, unless the profile
/// itself is the publisher's and goes.
///
/// What the publisher publishes by itself while the read or its commit is under way is newer than
/// the read, and wins over what it found, or did not find, of that record. What goes with a profile
/// does so as well.
///
/// A record that is handed over twice is what it was the last time. When the publisher begins
/// another read, or ends, this one is over: every function does nothing then.
class FullRead {
public:
  using Status = Interface::TunnelIntfStatusValues;
  using TunnelInfo = Ipsec::Ike::TunnelInfoValues;
  using Connection = Ipsec::Ike::IpsecTunnelProfileInfoValues;
  using Kind = std::uint32_t;

  enum class Pace {
    inRuns, ///< in a task on the default scheduler that lets others work when its share is used up
    atOnce, ///< all of it, before commit() returns
  };

  FullRead(FullRead &&) noexcept;
  FullRead & operator=(FullRead &&) noexcept;
  ~FullRead();

  // What is there. The meaning of values, null and kind is Publisher's.
  void tunnelIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Status const & status, Kind kind = 0);
  void statusIs(Plexa::IntfId intfId, std::optional<Status> const & status, Kind kind = 0);
  void ifIndexIs(Plexa::IntfId intfId, std::uint32_t ifIndex, Kind kind = 0);
  void tunnelInfoIs(Plexa::IntfId intfId, std::optional<TunnelInfo> const & info);
  void profileIs(std::string const & profile);
  /// Requires: no connection of that profile is handed over.
  void nullProfileIs(std::string const & profile);
  void connectionIs(std::string const & profile, Plexa::IntfId intfId,
                    std::optional<Connection> const & connection);
  void statusClaimIs(Plexa::IntfId intfId, Claim<Status> const & claim);

  /// The status and the ifIndex that the publisher has of that id stay as they are, though the read
  /// cannot say what they are. One of the two that is handed over, before or after this call,
  /// becomes what was handed over.
  void tunnelStays(Plexa::IntfId intfId);
  /// The read did not see everything: what was not handed over stays as it is.
  void restStays();

  /// Publishes what was handed over. `done` is called once, when all of it is in the database:
  /// inside the last run, or inside this call. It may begin another read. It is not called when the
  /// commit is dropped because another read began or the publisher ended. Requires: it raises
  /// nothing.
  ///
  /// When the memory for it is short, a part of it has been published, the commit is dropped, and
  /// `failed` is called in the place of `done`, with the same rights and duties. Without a `failed`
  /// the exception goes to the caller, or out of the run.
  using Failed = std::function<void(std::exception const &)>;
  void commit(Pace pace, std::function<void()> done = {}, Failed failed = {}) &&;

private:
  friend class Publisher;
  explicit FullRead(std::shared_ptr<Ledgers> ledgers);
  /// The publisher's ledgers, or null when this read is over.
  Ledgers * ledgers() const;
  void drop();

  std::shared_ptr<Ledgers> ledgers_;
  std::uint32_t read_ = 0;
};

} // namespace StateDb
