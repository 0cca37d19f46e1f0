// All that one publisher has: a ledger for each collection, and the course of a full read through
// them.
#pragma once

#include "platform/Kiln.h"
#include "statedb/FullRead.h"
#include "statedb/Ledger.h"
#include "statedb/Places.h"
#include "statedb/Publishers.h"
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

namespace StateDb {

/// Shared by the publisher and its full reads, so that a read which outlives the publisher finds
/// out that it is over.
class Ledgers {
public:
  explicit Ledgers(Publishers & publishers);
  Ledgers(Ledgers const &) = delete;
  Ledgers & operator=(Ledgers const &) = delete;
  ~Ledgers();

  /// The publisher ends. Nothing but isReading() is called from then on.
  void end();

  // What takes more than one ledger. The meaning is Publisher's.
  void tunnelIs(Plexa::IntfId intfId, std::uint32_t ifIndex, StatusPlace::Value const & status,
                std::uint32_t kind);
  void tunnelDel(Plexa::IntfId intfId);
  void nullProfileIs(std::string const & profile);
  void profileDel(std::string const & profile);
  void connectionIs(ConnectionPlace::Key const & key, ConnectionPlace::Value const & connection);
  std::uint64_t changes() const;

  /// Begins a full read, and ends an earlier one. Returns its number.
  std::uint32_t beginRead();
  /// True if and only if that read is not committed, dropped or ended yet.
  bool isReading(std::uint32_t read) const { return isReading_ && read == read_; }
  /// As of a found connection. Requires: a read.
  void foundConnection(ConnectionPlace::Key const & key, ConnectionPlace::Value const & connection);
  void restStays() { restStays_ = true; }
  /// Ends the read or its commit, with what is done of it.
  void drop();
  void commit(std::function<void()> done, FullRead::Failed failed);
  void commitInRuns(std::function<void()> done, FullRead::Failed failed);
  bool isCommitting() const { return isCommitting_; }

  Ledger<StatusPlace> statuses;
  Ledger<IfIndexPlace> ifIndexes;
  Ledger<TunnelInfoPlace> tunnelInfos;
  Ledger<ProfilePlace> profiles;
  Ledger<ConnectionPlace> connections;
  Ledger<StatusClaimPlace> statusClaims;

private:
  class Runs;

  template <class Visit>
  void forEachLedger(Visit visit);
  void forgetConnections(std::string const & profile);
  void beginCommit(std::function<void()> done, FullRead::Failed failed);
  template <class Work>
  void orFail(Work const & work);
  void run();
  template <class ShouldYield>
  void goOn(ShouldYield const & shouldYield);
  bool step();
  void finish();

  Publishers & publishers_;
  std::set<std::string> lostProfiles_; // since the read began
  std::uint32_t read_ = 0;
  bool isReading_ = false;
  bool restStays_ = false;
  bool isCommitting_ = false;
  std::size_t phase_ = 0;
  std::function<void()> done_;
  FullRead::Failed failed_;
  Zel::Ptr<Kiln::Task> task_;
  Zel::Ptr<Runs> runs_;
};

} // namespace StateDb
