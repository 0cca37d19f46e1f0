// Any JSON at all as a daemon's answer: the tool makes a text of it, or raises what it reports.
#include "ctl/Render.h"
#include "ctl/Status.h"
#include "ctl/Tunnels.h"
#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  using Json = nlohmann::ordered_json;
  auto const answer = Json::parse(data, data + size, nullptr, false);
  if (answer.is_discarded())
    return 0;
  std::function<std::string()> const texts[] = {
      [&] { return Ctl::tableText(answer); },
      [&] { return Ctl::pairsText(answer); },
      [&] { return Ctl::statusText(answer, std::chrono::system_clock::time_point()); },
      [&] { return Ctl::tablesText(answer, answer); },
      [&] { return Ctl::connectionsText(answer); },
      [&] { return Ctl::tunnelsText(Ctl::withRemarks(answer, answer)); },
  };
  for (auto const & text : texts)
    try {
      (void)text();
    } catch (std::exception const &) {
      continue;
    }
  return 0;
}
