// Any text at all to the control socket: requests, patches, several lines, no line end. It may not
// end the daemon or keep another operator waiting.
#include "fuzz/Daemon.h"

namespace {

/// So that the state does not grow from input to input.
constexpr std::string_view undo =
    R"({"command":"patch","arguments":{"patch":[{"op":"replace","path":"","value":{}}]}})";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  auto & daemon = Fuzz::Daemon::instance();
  daemon.control({reinterpret_cast<char const *>(data), size});
  daemon.control(undo);
  return 0;
}
