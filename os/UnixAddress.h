// The address of a Unix socket: a place in the file system, or a name without one.
#pragma once

#include <optional>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace Os {

/// Where a Unix socket is, as the system's calls take it.
class UnixAddress {
public:
  /// The longest path in characters; the system keeps one more for its end.
  static constexpr std::size_t longestPath = sizeof(sockaddr_un::sun_path) - 1;

  /// The address of that path; nothing when the path is longer than longestPath.
  static std::optional<UnixAddress> ofPath(std::string_view path);
  /// The address of that name in the abstract namespace (unix(7)), where no file stands for it;
  /// nothing when the name is longer than longestPath.
  static std::optional<UnixAddress> ofAbstractName(std::string_view name);

  /// Lives as long as this.
  sockaddr const * get() const { return reinterpret_cast<sockaddr const *>(&address_); }
  /// In bytes.
  socklen_t size() const { return size_; }

private:
  UnixAddress() = default;
  sockaddr_un address_{};
  socklen_t size_ = sizeof(sockaddr_un);
};

} // namespace Os
