// Three walks, each of which goes on in the next run where it had to stop in the last.
#include "sources/vici/Publication.h"
#include <utility>

namespace Sources::Vici {

namespace {

/// As JsonSource's: what is known already is served before more is read.
constexpr Kiln::TaskPriority priority = 4;

using Status = StateDb::Publisher::Status;

StateDb::Claim<Status> const isProtected = StateDb::Claim<Status>().with<&Status::ipsec>(true);

/// The first element behind the key, or the first of all.
template <class Collection, class Key>
auto after(Collection & collection, std::optional<Key> const & key) {
  return key ? collection.upper_bound(*key) : collection.begin();
}

} // namespace

Publication::Publication(StateDb::Publishers & publishers, Ike::BoundLinks & boundLinks)
    : boundLinks_(boundLinks),
      publisher_(publishers),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), priority,
                                     "Vici::Publication-bindingsTask")),
      run_(Zel::makePtr<Run>(*this, &Publication::run, task_.get())) {}

void Publication::bindingsAre(Ike::Bindings bindings, std::function<void()> done, Failed failed) {
  task_->scheduleTask();
  bindings_ = std::move(bindings);
  done_ = std::move(done);
  failed_ = std::move(failed);
  read_ = publisher_.beginFullRead();
  lookedAt_.reset();
  step_ = Step::handOver;
}

void Publication::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  try {
    doStep();
  } catch (std::bad_alloc const & shortage) {
    fail(shortage);
  }
}

void Publication::doStep() {
  if (step_ == Step::handOver)
    handOver();
  else if (step_ == Step::release)
    release();
}

void Publication::handOver() {
  for (auto next = after(bindings_.interfaces, lookedAt_); next != bindings_.interfaces.end();
       ++next) {
    publish(next->first, next->second);
    lookedAt_ = next->first;
    if (task_->taskShouldYield())
      return task_->scheduleTask();
  }
  commit();
}

void Publication::publish(Plexa::IntfId intfId, Ike::Bound const & bound) {
  if (!bound_.contains(intfId)) {
    boundLinks_.add(intfId); // first: without memory, a link is rather held too long than twice
    bound_.insert(intfId);   // released
  }
  read_->tunnelInfoIs(intfId, StateDb::FullRead::TunnelInfo{bound.profile});
  read_->connectionIs(bound.profile, intfId, StateDb::FullRead::Connection{bound.state});
  read_->statusClaimIs(intfId, isProtected);
}

void Publication::commit() {
  step_ = Step::commit;
  auto read = *std::exchange(read_, std::nullopt);
  std::move(read).commit(
      StateDb::FullRead::Pace::inRuns, [this] { isCommitted(); },
      [this](std::exception const & reason) { fail(reason); });
}

void Publication::isCommitted() {
  step_ = Step::release;
  lookedAt_.reset();
  try {
    task_->scheduleTask();
  } catch (std::bad_alloc const & shortage) {
    fail(shortage);
  }
}

void Publication::release() {
  for (auto next = after(bound_, lookedAt_); next != bound_.end();) {
    auto const intfId = *next++;
    if (!bindings_.interfaces.contains(intfId)) {
      bound_.erase(intfId);
      boundLinks_.remove(intfId);
    }
    lookedAt_ = intfId;
    if (task_->taskShouldYield())
      return task_->scheduleTask();
  }
  isDone();
}

void Publication::isDone() {
  step_ = Step::none;
  failed_ = nullptr;
  if (auto const done = std::exchange(done_, nullptr))
    done();
}

void Publication::fail(std::exception const & reason) {
  step_ = Step::none;
  read_.reset();
  done_ = nullptr;
  if (auto const failed = std::exchange(failed_, nullptr))
    failed(reason);
}

} // namespace Sources::Vici
