// Counts the sources that speak of each link.
#include "sources/ike/BoundLinks.h"
#include "platform/Lumo.h"
#include <utility>

namespace Sources::Ike {

BoundLinks::Handle BoundLinks::watch(Changed changed) {
  auto handle = std::make_shared<Changed const>(std::move(changed));
  watches_.push_back(handle);
  return handle;
}

void BoundLinks::add(Plexa::IntfId intfId) {
  if (++counts_[intfId] == 1)
    tell(intfId);
}

void BoundLinks::remove(Plexa::IntfId intfId) {
  auto const found = counts_.find(intfId);
  LUMO_ASSERT(found != counts_.end(), "a link is released that was not bound");
  if (--found->second != 0)
    return;
  counts_.erase(found);
  tell(intfId);
}

void BoundLinks::tell(Plexa::IntfId intfId) {
  auto const told = std::vector(watches_.begin(), watches_.end());
  for (auto const & one : told)
    if (auto const changed = one.lock())
      (*changed)(intfId);
  watches_.remove_if([](auto const & one) { return one.expired(); });
}

} // namespace Sources::Ike
