// Of which links an IKE daemon has spoken: whoever only concludes something from the kernel's state
// keeps silent about these.
#pragma once

#include "platform/Plexa.h"
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <vector>

namespace Sources::Ike {

/// For one thread. Several sources may speak of one link; it is bound until the last withdraws.
class BoundLinks {
public:
  /// Called with a link that has become bound, before its records are published, or has ceased to
  /// be, after they are gone. Requires: raises nothing; binds nothing.
  using Changed = std::function<void(Plexa::IntfId)>;
  /// A wish to hear of changes; ends with the last copy of its handle.
  using Handle = std::shared_ptr<Changed const>;

  BoundLinks() = default;
  BoundLinks(BoundLinks const &) = delete;
  BoundLinks & operator=(BoundLinks const &) = delete;

  bool has(Plexa::IntfId intfId) const { return counts_.contains(intfId); }
  [[nodiscard]] Handle watch(Changed changed);

  /// One more source speaks of the link.
  void add(Plexa::IntfId intfId);
  /// One fewer does. Requires: it did.
  void remove(Plexa::IntfId intfId);

private:
  void tell(Plexa::IntfId intfId);

  std::map<Plexa::IntfId, int> counts_;
  std::list<std::weak_ptr<Changed const>> watches_;
};

} // namespace Sources::Ike
