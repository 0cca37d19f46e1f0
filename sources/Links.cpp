// A tree by id, and one by name that follows it.
#include "sources/Links.h"
#include "platform/Lumo.h"
#include <stdexcept>
#include <utility>

namespace Sources {

class Links::Watch {
public:
  explicit Watch(Changed changed) : changed_(std::move(changed)) {}
  void operator()(Plexa::IntfId intfId) const { changed_(intfId); }

private:
  Changed const changed_;
};

Link const * Links::find(Plexa::IntfId intfId) const {
  auto const * found = entry(intfId);
  return found == nullptr ? nullptr : &found->link;
}

Link const * Links::findByName(std::string_view name) const {
  auto const found = byName_.lower_bound({std::string(name), Plexa::IntfId()});
  return found == byName_.end() || found->first != name ? nullptr : find(found->second);
}

Links::Handle Links::watch(Changed changed) {
  auto handle = std::make_shared<Watch const>(std::move(changed));
  watches_.push_back(handle);
  return handle;
}

void Links::linkIs(Link const & link) {
  heardOf(link.intfId);
  store(link);
}

void Links::linkDel(Plexa::IntfId intfId) {
  heardOf(intfId);
  if (auto const * found = entry(intfId))
    remove(*found);
}

Links::Entry * Links::entry(Plexa::IntfId intfId) const {
  auto const * found = links_.find(intfId);
  return found == nullptr ? nullptr : found->get();
}

void Links::heardOf(Plexa::IntfId intfId) {
  if (isReading_)
    heardOf_.insert(intfId);
}

void Links::store(Link const & link) {
  auto * const known = entry(link.intfId);
  if (known != nullptr && known->link == link)
    return noteSeen(*known);
  auto const wasSeen = known != nullptr && known->reading == reading_;
  auto const nameBefore = known != nullptr ? known->link.name : link.name;
  auto made = std::make_unique<Entry>(Entry{link, reading_});
  byName_.insert({link.name, link.intfId});
  links_.insertOrReplace(link.intfId, std::move(made));
  // From here on nothing needs memory: what is stored is told.
  if (nameBefore != link.name)
    byName_.erase({nameBefore, link.intfId});
  if (!wasSeen)
    ++seen_;
  tell(link.intfId);
}

void Links::noteSeen(Entry & entry) {
  if (std::exchange(entry.reading, reading_) != reading_)
    ++seen_;
}

void Links::remove(Entry const & entry) {
  auto const intfId = entry.link.intfId;
  byName_.erase({entry.link.name, intfId});
  if (entry.reading == reading_)
    --seen_;
  links_.erase(intfId);
  tell(intfId);
}

// The list may grow inside a call: a new watch hears the next change. It shrinks when nobody goes
// through it.
void Links::tell(Plexa::IntfId intfId) {
  ++telling_;
  auto next = watches_.begin();
  for (auto left = watches_.size(); left != 0; --left, ++next)
    if (auto const watch = next->lock())
      (*watch)(intfId);
  if (--telling_ == 0)
    watches_.remove_if([](auto const & one) { return one.expired(); });
}

Links::Writer::Writer(Links & links) : links_(links) {
  if (std::exchange(links.isWritten_, true))
    throw std::invalid_argument("another source tells of links already; have one tell of all");
}

Links::Reading::Reading(Links & links) : links_(links), number_(++links.reading_) {
  links_.seen_ = 0;
  links_.heardOf_.clear();
  links_.isReading_ = true;
}

void Links::Reading::linkIs(Link const & link) {
  LUMO_ASSERT(number_ == links_.reading_, "a reading of links is used after the next has begun");
  if (!links_.heardOf_.contains(link.intfId))
    links_.store(link);
}

void Links::Reading::linkStays(Plexa::IntfId intfId) {
  if (auto * const found = links_.entry(intfId))
    links_.noteSeen(*found);
}

// As a rule every link was seen, and the count says so without a walk.
bool Links::Reading::endNext() {
  LUMO_ASSERT(number_ == links_.reading_, "a reading of links is used after the next has begun");
  auto & links = links_.links_;
  auto next = lookedAt_ ? links.seekBehind(*lookedAt_) : links.begin();
  for (int i = 0; i != linksAStep && links_.seen_ != links.size(); ++i) {
    lookedAt_ = next->first;
    if (next->second->reading != number_) {
      links_.remove(*next->second);
      return true;
    }
    ++next;
  }
  if (links_.seen_ != links.size())
    return true;
  links_.heardOf_.clear();
  links_.isReading_ = false;
  return false;
}

} // namespace Sources
