// Brings what is known of the kernel's links to where others find it: the tunnels into the state
// database, the rest into Links. Knows no sockets; LinuxSource hands over what LinkDecoder read.
//
// The interface id and the ifIndex of a tunnel are both the kernel's link index.
#pragma once

#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "sources/Links.h"
#include "sources/linux/LinkDecoder.h"
#include "sources/linux/SkippedLinks.h"
#include "sources/linux/TunnelKind.h"
#include "statedb/Publisher.h"
#include <functional>
#include <optional>

namespace Sources::Linux {

/// Owns the records that it published, and no others: what somebody else does to them is undone by
/// the next full read, and records of other ids are left alone.
class LinkPublication {
public:
  using Pace = StateDb::FullRead::Pace;
  using Failed = StateDb::FullRead::Failed;

  /// Publishes links of these kinds. `publishers` and `links` outlive it. Raises
  /// std::invalid_argument, one line, when another one tells `links` already.
  LinkPublication(TunnelKindSet kinds, StateDb::Publishers & publishers, Links & links);
  LinkPublication(LinkPublication const &) = delete;
  LinkPublication & operator=(LinkPublication const &) = delete;
  ~LinkPublication() { run_->ownerDeletedIs(); }

  /// The link is now so; takes effect at once. True if and only if a record has changed. A link
  /// that became one of another kind under its index is removed and added.
  bool linkIs(LinkState const & state);

  /// Begins a full read, in the place of one that is under way.
  void beginReading();
  /// The read has found the link. Requires: as in the next ones, a read is under way.
  void found(LinkState const & state);
  /// The read has found a link but cannot tell what it is: what is known of it stays.
  void foundUnreadable(std::uint32_t index);
  /// The read is over, and its differences are published at that pace; `done` or `failed` is called
  /// as StateDb::FullRead::commit does. When it was not `whole`, links that it did not find stay.
  void endReading(bool whole, Pace pace, std::function<void()> done, Failed failed = {});

  StateDb::Publisher const & publisher() const { return publisher_; }
  SkippedLinks const & skipped() const { return skipped_; }

private:
  using Run = Flowa::Gen::InReactor<LinkPublication>;

  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  void forgetLinks();
  void publish(Pace pace);
  bool wants(LinkState const & state) const;
  void noteSkipped(LinkState const & state);

  TunnelKindSet const kinds_;
  Links & links_;
  Links::Writer const writer_;
  StateDb::Publisher publisher_;
  SkippedLinks skipped_;
  std::optional<StateDb::FullRead> tunnelsRead_;
  std::optional<Links::Reading> linksRead_;
  bool isEnding_ = false; // what was not found goes, before the rest is published
  std::function<void()> done_;
  Failed failed_;
  Zel::Ptr<Kiln::Task> const task_; // takes links away that a read did not find
  Zel::Ptr<Run> const run_;
};

} // namespace Sources::Linux
