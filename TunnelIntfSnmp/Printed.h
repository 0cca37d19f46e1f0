// How values stand in trace lines.
#pragma once

#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Zel.h"
#include <fmt/format.h>
#include <string>

namespace TunnelIntfSnmp {

/// How a value stands in a trace line.
template <class T>
std::string printed(T const & value) {
  return fmt::format("{}", value);
}
template <Zel::FieldedValue T>
std::string printed(T const & value) {
  return Zel::valueToStrep(value);
}
inline std::string printed(Snmp::Bytes const & bytes) {
  return valueToStrep(bytes);
}
inline std::string printed(StatusPtr const & status) {
  return status ? fmt::format("Interface::TunnelIntfStatus( {} )", status->intfId()) : "null";
}
inline std::string printed(IkeStatusPtr const & status) {
  return status ? fmt::format("Ipsec::Ike::Status( {} )", status->name()) : "null";
}
template <class T>
std::string printed(Zel::Optional<T> const & value) {
  return value ? "Optional( " + printed(*value) + " )" : "None";
}

} // namespace TunnelIntfSnmp
