// Brings what binds connections to interfaces into the state database, in runs: an IKE daemon may
// have ten thousand connections.
//
// Of each interface that is bound: its profile, which is the connection's name; the state of that
// connection; and the claim that IPsec protects it.
#pragma once

#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "sources/ike/Binding.h"
#include "sources/ike/BoundLinks.h"
#include "statedb/Publisher.h"
#include <functional>
#include <optional>
#include <set>

namespace Sources::Vici {

/// Owns the records that it published, and no others. An interface is among `boundLinks` from
/// before its records come until after they are gone.
class Publication {
public:
  using Failed = StateDb::FullRead::Failed;

  /// Both outlive it. Its end leaves what was published in place.
  Publication(StateDb::Publishers & publishers, Ike::BoundLinks & boundLinks);
  Publication(Publication const &) = delete;
  Publication & operator=(Publication const &) = delete;
  ~Publication() { run_->ownerDeletedIs(); }

  /// Publishes all this and nothing else, in the place of what is under way, whose `done` is not
  /// called. Calls `done` in a later run, when all of it is in the database; or `failed`, when the
  /// memory for it is short and a part may have been published. Both may publish again, and raise
  /// nothing.
  void bindingsAre(Ike::Bindings bindings, std::function<void()> done, Failed failed);
  /// What was handed over last.
  Ike::Bindings const & bindings() const { return bindings_; }
  /// True if and only if there is more to publish.
  bool isUnderWay() const { return step_ != Step::none; }

  StateDb::Publisher const & publisher() const { return publisher_; }

private:
  using Run = Flowa::Gen::InReactor<Publication>;
  /// What is left to do.
  enum class Step {
    none,
    handOver, ///< the bindings, to the full read
    commit,   ///< which the full read does in runs of its own
    release,  ///< links that are bound no more
  };

  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  void doStep();
  void handOver();
  void publish(Plexa::IntfId intfId, Ike::Bound const & bound);
  void commit();
  void isCommitted();
  void release();
  void isDone();
  void fail(std::exception const & reason);

  Ike::BoundLinks & boundLinks_;
  StateDb::Publisher publisher_;
  Ike::Bindings bindings_;
  std::function<void()> done_;
  Failed failed_;
  Step step_ = Step::none;
  std::optional<StateDb::FullRead> read_;
  std::optional<Plexa::IntfId> lookedAt_; // the last one of this step
  std::set<Plexa::IntfId> bound_;         // among boundLinks_, by us
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Run> const run_;
};

} // namespace Sources::Vici
