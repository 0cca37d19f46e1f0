// What follows from a change in the kernel, link by link: a few links at once, in the same turn of
// the loop, and the rest in runs of a task that lets others work when its share is used up.
//
// After a reading there is more to do: what it did not find goes, then every link is looked at, and
// then the reading is over.
#pragma once

#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "platform/Plexa.h"
#include "statedb/FullRead.h"
#include <absl/container/btree_set.h>
#include <exception>
#include <functional>
#include <optional>
#include <string_view>

namespace Sources::Linux {

class LinkWork {
public:
  using Concerned = absl::btree_set<Plexa::IntfId>;
  using Pace = StateDb::FullRead::Pace;

  /// Whose work it is. Each function does some microseconds' work.
  class Owner {
  public:
    virtual ~Owner() = default;
    /// Takes away one thing that the reading did not find; whom that concerns it puts into
    /// concerned(). False when there is none left.
    virtual bool forgetOne() = 0;
    /// The first link behind that one, or behind none; nothing when there is none.
    virtual std::optional<Plexa::IntfId> nextLink(std::optional<Plexa::IntfId> behind) const = 0;
    /// The link, what is known of it, or both may have changed.
    virtual void look(Plexa::IntfId intfId) = 0;
    /// All that the reading has found is there.
    virtual void workIsDone() = 0;
    /// A run has raised this. What is left to do is left to the next reading.
    virtual void workFailed(std::exception const & reason) = 0;
  };

  /// `owner` outlives it.
  LinkWork(std::string_view name, Owner & owner);
  LinkWork(LinkWork const &) = delete;
  LinkWork & operator=(LinkWork const &) = delete;
  ~LinkWork() { run_->ownerDeletedIs(); }

  /// The links that are to be looked at, for who finds more.
  Concerned & concerned() { return concerned_; }
  /// All links are to be looked at, in runs: for a change that concerns too many to be found at
  /// once.
  void allAreConcerned();
  /// Looks at them: so many now that nobody has to wait, and at the rest in runs. Raises what
  /// look() does.
  void begin();
  /// A reading has ended, and has seen everything when `forgets`. At the pace atOnce all is done
  /// before this returns, and what is raised comes out of here.
  void readingEnds(bool forgets, Pace pace);
  /// The work of the last reading is not to be done any more; links that are concerned remain.
  void readingIsVoid();

private:
  using Run = Flowa::Gen::InReactor<LinkWork>;

  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  bool step();
  bool lookAtOneConcerned();
  bool lookAtNext();

  Owner & owner_;
  // In this order.
  bool isForgetting_ = false;
  Concerned concerned_;
  bool isLookingAtAll_ = false;
  std::optional<Plexa::IntfId> lookedAt_;
  bool isEnding_ = false;
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Run> const run_;
};

} // namespace Sources::Linux
