// JSON as it goes out: the control socket's answers and what they are put together from.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace Agent {

/// One line without blanks. An octet that is no UTF-8, out of an attribute of a plug-in say, comes
/// out as U+FFFD: an answer always is JSON.
template <class AnyJson>
std::string jsonText(AnyJson const & json) {
  return json.dump(-1, ' ', false, AnyJson::error_handler_t::replace);
}

/// A text with its quotation marks.
inline std::string jsonText(std::string_view text) {
  return jsonText(nlohmann::json(text));
}

} // namespace Agent
