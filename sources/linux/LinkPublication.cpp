// One link becomes a tunnel's records and an entry of Links.
#include "sources/linux/LinkPublication.h"
#include <new>
#include <utility>

namespace Sources::Linux {

namespace {

/// As urgent as the commit that follows.
constexpr Kiln::TaskPriority priority = 3;

Link linkOf(TunnelLink const & link) {
  return {.intfId = Plexa::IntfId(link.index),
          .name = link.name,
          .kind = kindName(link.kind),
          .ifId = link.ifId,
          .inputKey = link.inputKey,
          .outputKey = link.outputKey,
          .lower = link.lower,
          .local = link.status.srcAddr,
          .remote = link.status.dstAddr,
          .port = link.port,
          .isCarriedElsewhere = link.isCarriedElsewhere};
}

StateDb::Publisher::Kind kindOf(TunnelLink const & link) {
  return static_cast<StateDb::Publisher::Kind>(link.kind);
}

} // namespace

LinkPublication::LinkPublication(TunnelKindSet kinds, StateDb::Publishers & publishers,
                                 Links & links)
    : kinds_(kinds),
      links_(links),
      writer_(links),
      publisher_(publishers),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), priority,
                                     "Linux::LinkPublication-linksTask")),
      run_(Zel::makePtr<Run>(*this, &LinkPublication::run, task_.get())) {}

bool LinkPublication::linkIs(LinkState const & state) {
  noteSkipped(state);
  auto const before = publisher_.changes();
  Plexa::IntfId const intfId(state.index);
  if (wants(state)) {
    links_.linkIs(linkOf(*state.tunnel));
    publisher_.tunnelIs(intfId, state.index, state.tunnel->status, kindOf(*state.tunnel));
  } else {
    publisher_.tunnelDel(intfId);
    links_.linkDel(intfId);
  }
  return publisher_.changes() != before;
}

void LinkPublication::beginReading() {
  skipped_.beginReading();
  tunnelsRead_ = publisher_.beginFullRead();
  linksRead_.emplace(links_);
  isEnding_ = false;
}

void LinkPublication::found(LinkState const & state) {
  noteSkipped(state);
  if (!wants(state))
    return;
  linksRead_->linkIs(linkOf(*state.tunnel));
  tunnelsRead_->tunnelIs(Plexa::IntfId(state.index), state.index, state.tunnel->status,
                         kindOf(*state.tunnel));
}

void LinkPublication::foundUnreadable(std::uint32_t index) {
  linksRead_->linkStays(Plexa::IntfId(index));
  tunnelsRead_->tunnelStays(Plexa::IntfId(index));
}

void LinkPublication::endReading(bool whole, Pace pace, std::function<void()> done, Failed failed) {
  skipped_.endReading(whole);
  isEnding_ = true;
  done_ = std::move(done);
  failed_ = std::move(failed);
  if (whole && pace == Pace::inRuns)
    return task_->scheduleTask();
  while (whole && linksRead_->endNext()) {
  }
  if (!whole)
    tunnelsRead_->restStays();
  publish(pace);
}

void LinkPublication::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  if (!isEnding_)
    return; // another read has begun
  try {
    forgetLinks();
  } catch (std::bad_alloc const & shortage) {
    isEnding_ = false;
    auto const failed = std::exchange(failed_, {});
    if (!failed)
      throw;
    failed(shortage);
  }
}

void LinkPublication::forgetLinks() {
  while (linksRead_->endNext())
    if (task_->taskShouldYield())
      return task_->scheduleTask();
  publish(Pace::inRuns);
}

void LinkPublication::publish(Pace pace) {
  isEnding_ = false;
  linksRead_.reset();
  auto read = *std::exchange(tunnelsRead_, std::nullopt); // `done` may begin the next one
  std::move(read).commit(pace, std::exchange(done_, {}), std::exchange(failed_, {}));
}

bool LinkPublication::wants(LinkState const & state) const {
  return state.tunnel && kinds_.has(state.tunnel->kind);
}

void LinkPublication::noteSkipped(LinkState const & state) {
  auto const isSkipped = state.tunnel && !kinds_.has(state.tunnel->kind);
  skipped_.linkIs(state.index, isSkipped ? std::optional(state.tunnel->kind) : std::nullopt);
}

} // namespace Sources::Linux
