// Filling in what the system wants.
#include "os/UnixAddress.h"
#include <cstddef>

namespace Os {

std::optional<UnixAddress> UnixAddress::ofPath(std::string_view path) {
  if (path.size() > longestPath)
    return std::nullopt;
  UnixAddress result;
  result.address_.sun_family = AF_UNIX;
  path.copy(result.address_.sun_path, path.size());
  return result;
}

// A null stands before the name and none behind it: the size tells where it ends.
std::optional<UnixAddress> UnixAddress::ofAbstractName(std::string_view name) {
  if (name.size() > longestPath)
    return std::nullopt;
  UnixAddress result;
  result.address_.sun_family = AF_UNIX;
  name.copy(result.address_.sun_path + 1, name.size());
  result.size_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  return result;
}

} // namespace Os
