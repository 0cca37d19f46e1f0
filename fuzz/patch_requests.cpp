// Any bytes at all as a JSON Patch for the state database: what is refused changes nothing and is
// answered with one line, and after what is carried out the document can still be read and printed.
#include "statedb/StateDocument.h"
#include "json/Input.h"
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

namespace {

using nlohmann::json;

void require(bool holds) {
  if (!holds)
    std::abort();
}

constexpr std::string_view before = R"([
  {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/5", "value": {"srcAddr": "192.0.2.1", "mode": "gre"}},
  {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/6", "value": null},
  {"op": "add", "path": "/ifMib/ifIndexByIntfId/5", "value": 17},
  {"op": "add", "path": "/ikeStatus/ipsecTunnelInfo/5", "value": {"profileName": "a/b"}},
  {"op": "add", "path": "/ikeStatus/appliedProfiles/a~1b", "value": {"appliedIntfId": {"5": {}}}}
])";

void requireOneLine(std::string_view said) {
  require(!said.empty() && said.find('\n') == said.npos);
  require(said.find("json.exception") == said.npos);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  StateDb::StateDb database;
  StateDb::StateDocument document(database);
  document.apply(JsonInput::parse<json>(before));
  auto const unchanged = document.read("");
  try {
    document.apply(JsonInput::parse<json>({reinterpret_cast<char const *>(data), size}));
  } catch (JsonInput::Wrong const & wrong) {
    requireOneLine(wrong.what());
    require(document.read("") == unchanged);
  } catch (StateDb::DocumentError const & error) {
    require(document.read("") == unchanged);
  }
  require(!document.read("").dump(-1, ' ', true, json::error_handler_t::replace).empty());
  return 0;
}
