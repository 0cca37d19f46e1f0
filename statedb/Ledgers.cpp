// Changes that concern several collections, and the commit of a full read.
#include "statedb/Ledgers.h"
#include <algorithm>
#include <new>
#include <utility>

namespace StateDb {

namespace {

/// As urgent as the state machines, which are to hear of it: neither keeps the other waiting.
constexpr Kiln::TaskPriority priority = 3;

} // namespace

/// Does the runs of a commit.
class Ledgers::Runs final : public Zel::Notifiee {
public:
  explicit Runs(Ledgers & ledgers) : ledgers_(ledgers) {}
  void onNotification(Zel::Notification const &) override { ledgers_.run(); }

private:
  Ledgers & ledgers_;
};

Ledgers::Ledgers(Publishers & publishers)
    : statuses(StatusPlace(publishers), publishers.notifieeFailed()),
      ifIndexes(IfIndexPlace(publishers), publishers.notifieeFailed()),
      tunnelInfos(TunnelInfoPlace(publishers), publishers.notifieeFailed()),
      profiles(ProfilePlace(publishers), publishers.notifieeFailed()),
      connections(ConnectionPlace(publishers), publishers.notifieeFailed()),
      statusClaims(StatusClaimPlace(publishers, this), publishers.notifieeFailed()),
      publishers_(publishers) {
  publishers_.ledgers_.push_back(this);
}

Ledgers::~Ledgers() = default;

void Ledgers::end() {
  drop();
  std::erase(publishers_.ledgers_, this);
  publishers_.statusClaims().claimDelAll(this);
}

void Ledgers::tunnelIs(Plexa::IntfId intfId, std::uint32_t ifIndex,
                       StatusPlace::Value const & status, std::uint32_t kind) {
  Ledger<StatusPlace>::Underway const here(statuses, intfId);
  Ledger<IfIndexPlace>::Underway const hereIndex(ifIndexes, intfId);
  statuses.removeOther(intfId, kind);
  if (!hereIndex.isVoid())
    ifIndexes.removeOther(intfId, kind);
  if (!hereIndex.isVoid())
    ifIndexes.is(intfId, ifIndex, kind);
  if (!here.isVoid())
    statuses.is(intfId, status, kind);
}

void Ledgers::tunnelDel(Plexa::IntfId intfId) {
  Ledger<IfIndexPlace>::Underway const here(ifIndexes, intfId);
  statuses.del(intfId);
  if (!here.isVoid())
    ifIndexes.del(intfId);
}

void Ledgers::nullProfileIs(std::string const & profile) {
  forgetConnections(profile);
  profiles.is(profile, ProfilePlace::Value::null);
}

void Ledgers::profileDel(std::string const & profile) {
  forgetConnections(profile);
  profiles.del(profile);
}

void Ledgers::connectionIs(ConnectionPlace::Key const & key,
                           ConnectionPlace::Value const & connection) {
  Ledger<ConnectionPlace>::Underway const here(connections, key);
  profiles.is(key.profile, ProfilePlace::Value::record);
  if (!here.isVoid())
    connections.is(key, connection);
}

std::uint64_t Ledgers::changes() const {
  return statuses.changes() + ifIndexes.changes() + tunnelInfos.changes() + profiles.changes() +
         connections.changes() + statusClaims.changes();
}

std::uint32_t Ledgers::beginRead() {
  drop();
  read_ = std::max(1u, read_ + 1); // 0 is no read's
  isReading_ = true;
  restStays_ = false;
  forEachLedger([&](auto & ledger) { ledger.beginRead(read_); });
  return read_;
}

void Ledgers::foundConnection(ConnectionPlace::Key const & key,
                              ConnectionPlace::Value const & connection) {
  if (lostProfiles_.contains(key.profile))
    return;
  profiles.found(key.profile, ProfilePlace::Value::record);
  connections.found(key, connection);
}

void Ledgers::drop() {
  isReading_ = false;
  isCommitting_ = false;
  lostProfiles_.clear();
  done_ = {};
  failed_ = {};
  task_ = nullptr;
  runs_ = nullptr;
  forEachLedger([](auto & ledger) { ledger.endRead(); });
}

void Ledgers::commit(std::function<void()> done, FullRead::Failed failed) {
  beginCommit(std::move(done), std::move(failed));
  orFail([this] { goOn([] { return false; }); });
}

void Ledgers::commitInRuns(std::function<void()> done, FullRead::Failed failed) {
  beginCommit(std::move(done), std::move(failed));
  orFail([this] {
    task_ = Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), priority,
                                     "StateDb::Publisher-commitTask");
    runs_ = Zel::makePtr<Runs>(*this);
    runs_->notifierIs(task_.get());
    task_->scheduleTask();
  });
}

void Ledgers::beginCommit(std::function<void()> done, FullRead::Failed failed) {
  isReading_ = false;
  isCommitting_ = true;
  phase_ = 0;
  done_ = std::move(done);
  failed_ = std::move(failed);
  lostProfiles_.clear();
  forEachLedger([](auto & ledger) { ledger.commit(); });
}

/// Works on the commit; drops it, and tells, when there is no memory for that.
template <class Work>
void Ledgers::orFail(Work const & work) {
  try {
    work();
  } catch (std::bad_alloc const & shortage) {
    auto const failed = std::exchange(failed_, {});
    drop();
    if (!failed)
      throw;
    failed(shortage);
  }
}

void Ledgers::run() {
  auto const task = task_; // a notifiee may drop the commit
  orFail([&] {
    goOn([&] { return task->taskShouldYield(); });
    if (isCommitting_ && task == task_)
      task->scheduleTask();
  });
}

/// Publishes until all is done, the commit is dropped, or it is time to yield.
template <class ShouldYield>
void Ledgers::goOn(ShouldYield const & shouldYield) {
  auto const read = read_;
  auto const isMine = [&] { return isCommitting_ && read == read_; };
  while (step())
    if (!isMine() || shouldYield())
      return;
  finish();
}

/// One step of the commit, in the order that suits those who listen: a row needs both a status and
/// an ifIndex, so the status is the first to go and the last to come. False when all is done.
bool Ledgers::step() {
  static constexpr bool (*phases[])(Ledgers &) = {
      [](Ledgers & all) { return all.statuses.removeNext(all.restStays_); },
      [](Ledgers & all) { return all.ifIndexes.removeNext(all.restStays_); },
      [](Ledgers & all) { return all.tunnelInfos.removeNext(all.restStays_); },
      [](Ledgers & all) { return all.profiles.removeNext(all.restStays_); },
      [](Ledgers & all) { return all.connections.removeNext(all.restStays_); },
      [](Ledgers & all) { return all.statusClaims.removeNext(all.restStays_); },
      [](Ledgers & all) { return all.ifIndexes.putNext(); },
      [](Ledgers & all) { return all.statuses.putNext(); },
      [](Ledgers & all) { return all.tunnelInfos.putNext(); },
      [](Ledgers & all) { return all.profiles.putNext(); },
      [](Ledgers & all) { return all.connections.putNext(); },
      [](Ledgers & all) { return all.statusClaims.putNext(); },
  };
  for (; phase_ != std::size(phases); ++phase_)
    if (phases[phase_](*this))
      return true;
  return false;
}

void Ledgers::finish() {
  auto const done = std::exchange(done_, {});
  drop();
  if (done)
    done();
}

void Ledgers::forgetConnections(std::string const & profile) {
  if (isReading_)
    lostProfiles_.insert(profile);
  connections.forget({profile, Plexa::IntfId()},
                     [&](auto const & key) { return key.profile == profile; });
}

template <class Visit>
void Ledgers::forEachLedger(Visit visit) {
  visit(statuses);
  visit(ifIndexes);
  visit(tunnelInfos);
  visit(profiles);
  visit(connections);
  visit(statusClaims);
}

} // namespace StateDb
