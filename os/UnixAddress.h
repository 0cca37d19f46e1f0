// The address of a Unix socket in the file system.
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

  /// Lives as long as this.
  sockaddr const * get() const { return reinterpret_cast<sockaddr const *>(&address_); }
  /// In bytes.
  socklen_t size() const { return sizeof address_; }

private:
  UnixAddress() = default;
  sockaddr_un address_{};
};

} // namespace Os
