// Any bytes at all to the decoder of messages about IPsec policies: it must read nothing beyond
// them, and what it makes of them must be fit for the table of policies.
#include "fuzz/Require.h"
#include "fuzz/XfrmInput.h"
#include "sources/linux/Policies.h"
#include <linux/xfrm.h>

namespace {

using namespace Sources::Linux;

void require(bool holds) {
  Fuzz::require(holds, "a policy that is not fit for the table");
}

void check(PolicyMessage const & message) {
  if (auto const * malformed = std::get_if<MalformedMessage>(&message))
    require(!malformed->reason.empty());
  auto const * const is = std::get_if<PolicyIs>(&message);
  if (is == nullptr)
    return;
  auto const & selector = is->policy.selector;
  require(selector.family != Plexa::AddressFamily::none);
  require(maskedAddress(selector.source, selector.sourceLength) == selector.source);
  require(maskedAddress(selector.destination, selector.destinationLength) == selector.destination);
  require((selector.destinationPort & ~selector.destinationPortMask) == 0);
  Policies policies;
  policies.policyIs(is->policy);
  require(policies.policyDel(is->policy.index) == is->policy);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  constexpr std::uint16_t types[] = {XFRM_MSG_NEWPOLICY, XFRM_MSG_DELPOLICY, XFRM_MSG_POLEXPIRE,
                                     XFRM_MSG_FLUSHPOLICY};
  Fuzz::forEachType(data, size, types, [](Bytes bytes) { check(decodePolicy(bytes)); });
  return 0;
}
