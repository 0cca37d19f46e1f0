// Any words at all on the daemon's command line: it takes them, or says what is wrong with them.
#include "agent/Options.h"
#include "fuzz/Require.h"
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  std::vector<std::string> words(1);
  for (std::size_t i = 0; i != size; ++i)
    if (data[i] == '\n' || data[i] == '\0')
      words.emplace_back();
    else
      words.back() += static_cast<char>(data[i]);
  auto const parsed = Agent::parseOptions(words, "plugin");
  if (parsed.options)
    Fuzz::require(!parsed.options->listen.empty(), "an address is empty");
  else
    Fuzz::require(!parsed.text.empty(), "a refusal without a reason");
  return 0;
}
