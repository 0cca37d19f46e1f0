// Any bytes at all to the decoder of messages about security associations: it must read nothing
// beyond them, nor anything of the keys, and what it makes of them must be fit for the table.
#include "fuzz/Require.h"
#include "fuzz/XfrmInput.h"
#include "sources/linux/States.h"
#include <linux/xfrm.h>

namespace {

using namespace Sources::Linux;

void require(bool holds) {
  Fuzz::require(holds, "a state that is not fit for the table");
}

void check(StateMessage const & message) {
  if (auto const * malformed = std::get_if<MalformedMessage>(&message))
    require(!malformed->reason.empty());
  auto const * const is = std::get_if<StateIs>(&message);
  if (is == nullptr)
    return;
  require(!is->isUsable || is->id.spi != 0);
  States states;
  require(states.stateIs(*is));
  require(states.stateDel(is->id));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  constexpr std::uint16_t types[] = {XFRM_MSG_NEWSA, XFRM_MSG_DELSA, XFRM_MSG_EXPIRE,
                                     XFRM_MSG_FLUSHSA};
  Fuzz::forEachType(data, size, types, [](Bytes bytes) { check(decodeState(bytes)); });
  return 0;
}
