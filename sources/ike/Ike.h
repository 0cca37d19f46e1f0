// What an IKE daemon has: the connections that it is configured for, and the security associations
// that exist now. Plain values, as any daemon could tell them.
#pragma once

#include "platform/Plexa.h"
#include "sources/ike/Selector.h"
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Sources::Ike {

/// How far an IKE_SA has come, in strongSwan's words.
enum class IkeState : std::uint8_t {
  created,
  connecting,
  established,
  passive, ///< the standby of a cluster
  rekeying,
  rekeyed,
  deleting,
  destroying,
  unknown, ///< a word that nobody knows
};

/// How far a CHILD_SA has come.
enum class ChildState : std::uint8_t {
  created,
  routed,
  installing,
  installed,
  updating,
  rekeying,
  rekeyed,
  retrying,
  deleting,
  deleted,
  destroying,
  unknown, ///< a word that nobody knows
};

enum class Mode : std::uint8_t { tunnel, transport, beet, other };

/// Numbers are in the order of this machine; nothing where none is set.
struct ChildSa {
  std::string name;
  std::uint32_t uniqueId = 0;
  ChildState state = ChildState::unknown;
  Mode mode = Mode::other;
  std::optional<std::uint32_t> ifIdIn = {};
  std::optional<std::uint32_t> ifIdOut = {};
  std::optional<std::uint32_t> markIn = {};
  std::optional<std::uint32_t> markOut = {};
  std::vector<Selector> local = {};
  std::vector<Selector> remote = {};
  bool operator==(ChildSa const &) const = default;
};

struct IkeSa {
  std::string connection; ///< the name of its connection
  std::uint32_t uniqueId = 0;
  IkeState state = IkeState::unknown;
  Plexa::IpGenAddr local{};
  Plexa::IpGenAddr remote{};
  std::vector<ChildSa> children = {};
  bool operator==(IkeSa const &) const = default;
};

/// A child as it is configured.
struct ChildConfig {
  std::string name;
  Mode mode = Mode::other;
  std::vector<Selector> local = {};
  std::vector<Selector> remote = {};
  bool operator==(ChildConfig const &) const = default;
};

/// A connection as it is configured.
struct Connection {
  std::string name;
  /// Single addresses only; of a configuration by name, range or prefix nothing is here.
  std::vector<Plexa::IpGenAddr> local = {};
  std::vector<Plexa::IpGenAddr> remote = {};
  std::vector<ChildConfig> children = {};
  bool operator==(Connection const &) const = default;
};

} // namespace Sources::Ike
