// Filling in what the system wants.
#include "os/UnixAddress.h"

namespace Os {

std::optional<UnixAddress> UnixAddress::ofPath(std::string_view path) {
  if (path.size() > longestPath)
    return std::nullopt;
  UnixAddress result;
  result.address_.sun_family = AF_UNIX;
  path.copy(result.address_.sun_path, path.size());
  return result;
}

} // namespace Os
