// What a real strongSwan said: recordings/record makes them.
#pragma once

#include "sources/vici/Message.h"
#include "tests/sources/vici/ViciBytes.h"
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ViciBytes {

/// A packet that was recorded.
struct Recorded {
  bool isFromDaemon;
  std::string packet; ///< without the length before it; empty: the daemon closed the connection
};

inline std::string fromHexadecimal(std::string_view digits) {
  std::string octets;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    octets += static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
  return octets;
}

/// The packets of the file: recordings/record tells its form.
inline std::vector<Recorded> recording(std::filesystem::path const & path) {
  std::ifstream file(path);
  if (!file)
    throw std::runtime_error("there is no recording " + path.string());
  std::vector<Recorded> packets;
  for (std::string line; std::getline(file, line);)
    if (line.starts_with("> ") || line.starts_with("< "))
      packets.push_back(
          {line.front() == '<', line == "< end" ? "" : fromHexadecimal(line.substr(2))});
  return packets;
}

/// The messages of those events that the daemon sent in the recording.
inline std::vector<std::string> recordedEvents(std::filesystem::path const & path,
                                               std::string_view event) {
  std::vector<std::string> messages;
  for (auto const & one : recording(path)) {
    if (!one.isFromDaemon || one.packet.empty())
      continue;
    auto const packet = Sources::Vici::decodePacket(octets(one.packet));
    if (packet.type == Sources::Vici::PacketType::event && packet.name == event)
      messages.emplace_back(packet.message.begin(), packet.message.end());
  }
  return messages;
}

} // namespace ViciBytes
