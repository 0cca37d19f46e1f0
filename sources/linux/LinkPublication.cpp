// One link becomes a tunnel's records and an entry of Links.
#include "sources/linux/LinkPublication.h"
#include <utility>

namespace Sources::Linux {

namespace {

Link linkOf(TunnelLink const & link) {
  return {.intfId = Plexa::IntfId(link.index),
          .name = link.name,
          .kind = kindName(link.kind),
          .ifId = link.ifId,
          .inputKey = link.inputKey,
          .outputKey = link.outputKey,
          .lower = link.lower};
}

StateDb::Publisher::Kind kindOf(TunnelLink const & link) {
  return static_cast<StateDb::Publisher::Kind>(link.kind);
}

} // namespace

LinkPublication::LinkPublication(TunnelKindSet kinds, StateDb::Publishers & publishers,
                                 Links & links)
    : kinds_(kinds),
      links_(links),
      publisher_(publishers) {}

bool LinkPublication::linkIs(LinkState const & state) {
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
  tunnelsRead_ = publisher_.beginFullRead();
  linksRead_.emplace(links_);
}

void LinkPublication::found(LinkState const & state) {
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

void LinkPublication::endReading(bool whole, Pace pace, std::function<void()> done) {
  if (whole)
    linksRead_->end();
  else
    tunnelsRead_->restStays();
  linksRead_.reset();
  auto read = *std::exchange(tunnelsRead_, std::nullopt); // `done` may begin the next one
  std::move(read).commit(pace, std::move(done));
}

bool LinkPublication::wants(LinkState const & state) const {
  return state.tunnel && kinds_.has(state.tunnel->kind);
}

} // namespace Sources::Linux
