// Any JSON at all as a daemon's answer: the tool makes a text of it, or raises what it reports.
#include "ctl/Render.h"
#include <cstdint>
#include <nlohmann/json.hpp>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  using Json = nlohmann::ordered_json;
  auto const answer = Json::parse(data, data + size, nullptr, false);
  if (answer.is_discarded())
    return 0;
  for (auto * const text : {Ctl::tableText, Ctl::pairsText, Ctl::statusText, Ctl::tablesText})
    try {
      (void)text(answer);
    } catch (std::exception const &) {
      continue;
    }
  return 0;
}
