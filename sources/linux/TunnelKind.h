// The kinds of tunnel link that Linux has, by the names that the kernel gives them, and the choice
// of those that a source publishes.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Sources::Linux {

enum class TunnelKind : std::uint8_t {
  gre,
  ip6gre,
  ipip,
  sit,
  ip6tnl,
  vti,
  vti6,
  xfrm,
  gretap,
  ip6gretap,
  erspan,
  ip6erspan,
  vxlan,
  geneve,
  wireguard,
};
inline constexpr std::size_t tunnelKinds = 15;

/// The kernel's name of the kind, as in `ip link add type NAME`. Lives for ever.
std::string_view kindName(TunnelKind kind);
/// The kind of that name, or nothing.
std::optional<TunnelKind> tunnelKindFromName(std::string_view name);

/// A set of kinds.
class TunnelKindSet {
public:
  /// The kinds that carry IP: gre ip6gre ipip sit ip6tnl vti vti6 xfrm. The others are Ethernet or
  /// plain devices that the interface table shows well enough; the options ask for them.
  static TunnelKindSet defaults();
  /// The defaults, changed by what the options of the source say: "" or "kinds=+vxlan,-vti". Raises
  /// std::invalid_argument, one line that lists what is possible, for anything else.
  static TunnelKindSet fromOptions(std::string_view options);

  /// True if and only if the kind is in the set.
  bool has(TunnelKind kind) const { return kinds_.test(static_cast<std::size_t>(kind)); }
  void hasIs(TunnelKind kind, bool has) { kinds_.set(static_cast<std::size_t>(kind), has); }

private:
  std::bitset<tunnelKinds> kinds_;
};

} // namespace Sources::Linux
