// What only the destructor needs.
#include "os/Descriptor.h"
#include <cerrno>

namespace Os {

Descriptor::~Descriptor() {
  if (number_ == none)
    return;
  auto const error = errno;
  ::close(number_);
  errno = error;
}

} // namespace Os
