// The states in words.
#include "agent/agentx/SessionStatus.h"

namespace Agent::AgentX {

std::string_view stateText(SessionStatus::State state) {
  switch (state) {
  case SessionStatus::State::closed:
    return "closed";
  case SessionStatus::State::waiting:
    return "waiting to try again";
  case SessionStatus::State::connecting:
    return "connecting";
  case SessionStatus::State::opening:
    return "opening";
  case SessionStatus::State::registering:
    return "registering";
  case SessionStatus::State::serving:
    return "serving";
  }
  return "unknown";
}

std::string_view stateText(RegionStatus::State state) {
  switch (state) {
  case RegionStatus::State::unasked:
    return "not asked for";
  case RegionStatus::State::asked:
    return "asked for";
  case RegionStatus::State::registered:
    return "registered";
  case RegionStatus::State::refused:
    return "refused";
  }
  return "unknown";
}

} // namespace Agent::AgentX
