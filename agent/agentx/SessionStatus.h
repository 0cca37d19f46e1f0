// What can be seen of a session with an AgentX master from outside. What the states mean stands in
// Session.h.
#pragma once

#include "agent/agentx/Pdu.h"
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::AgentX {

struct RegionStatus {
  enum class State : std::uint8_t { unasked, asked, registered, refused };
  Region region;
  State state = State::unasked;
  Error reason = Error::none; ///< of the last refusal
};

struct SessionStatus {
  enum class State : std::uint8_t { closed, waiting, connecting, opening, registering, serving };
  std::string address; ///< the master's, as it was given
  State state = State::closed;
  std::chrono::system_clock::time_point since; ///< when it began to serve, or ceased to
  std::uint32_t session = 0;                   ///< the master's number, in the last two states
  std::uint64_t sessions = 0;                  ///< that were opened up to now
  std::string lastError;                       ///< one line; empty when there was none
  std::vector<RegionStatus> regions;
};
std::string_view stateText(SessionStatus::State state);
std::string_view stateText(RegionStatus::State state);

} // namespace Agent::AgentX
