// What can be mounted in the state database.
#pragma once

#include "platform/zel/Notifiee.h"
#include "platform/zel/Ptr.h"
#include <string>
#include <string_view>

namespace Zel {

using String = std::string;

/// An object with a name in a directory. Entities exist to be watched: notification is on from the
/// start.
class Entity : public PtrInterface {
public:
  explicit Entity(std::string_view name);
  String const & name() const { return name_; }

private:
  String const name_;
};

} // namespace Zel
