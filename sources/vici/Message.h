// The words of vici, strongSwan's interface for programs: packets in segments, and messages made
// of elements. Touches no socket; Connection.h has those.
//
// A segment is a length, 32 bits in network order, and that many octets: a packet. A packet is its
// type, for some types a name (its length in one octet, then its text), and a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Sources::Vici {

using Octets = std::span<std::uint8_t const>;

/// What a packet is at most, in octets.
inline constexpr std::size_t largestPacket = 512 * 1024;
/// How long a name can be.
inline constexpr std::size_t longestName = 255;
/// How deep sections may stand in each other.
inline constexpr std::size_t deepestSection = 8;

/// What was received is not vici. One line.
class Malformed : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

enum class PacketType : std::uint8_t {
  request = 0,         ///< named
  response = 1,        ///< to a request
  unknownCommand = 2,  ///< to a request
  registerEvent = 3,   ///< named
  unregisterEvent = 4, ///< named
  confirmed = 5,       ///< to a registration, or its end
  unknownEvent = 6,    ///< to a registration, or its end
  event = 7,           ///< named
};

struct Packet {
  PacketType type;
  std::string_view name; ///< empty where the type has none
  Octets message;
};

/// The packet as a segment. Requires: the name is not longer than longestName; the packet is not
/// larger than largestPacket.
std::string encodeSegment(PacketType type, std::string_view name = {},
                          std::string_view message = {});

/// The packet of a segment; it refers to `octets`. Raises Malformed.
Packet decodePacket(Octets octets);

/// Puts packets together from octets that come piece by piece.
class Segments {
public:
  void take(Octets octets);
  /// The next packet that is there whole, which lives until the next call; nothing when there is
  /// none. Raises Malformed, also for a length that is too large as soon as that is there; nothing
  /// can be made of what follows then.
  std::optional<Packet> next();

private:
  Octets waiting() const { return Octets(octets_).subspan(taken_); }

  std::vector<std::uint8_t> octets_; // at most one packet and one piece
  std::size_t taken_ = 0;
};

/// Is handed the elements of a message in their order. Texts live as long as the message.
class Visitor {
public:
  virtual ~Visitor() = default;
  virtual void sectionBegins(std::string_view name) = 0;
  virtual void sectionEnds() = 0;
  virtual void value(std::string_view key, std::string_view value) = 0;
  /// An item of the list of that name.
  virtual void item(std::string_view list, std::string_view value) = 0;
};

/// Hands over the elements of the message. Raises Malformed when they do not fit into each other,
/// stand deeper than deepestSection, or are cut off; those before that were handed over.
void decodeElements(Octets message, Visitor & visitor);

} // namespace Sources::Vici
