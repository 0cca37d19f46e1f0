// Any bytes at all to the decoder of link messages: it must read nothing beyond them, and what it
// makes of them must be fit to be published.
#include "fuzz/Require.h"
#include "sources/linux/LinkDecoder.h"
#include <cstring>
#include <linux/rtnetlink.h>
#include <vector>

namespace {

using namespace Sources::Linux;

void require(bool holds) {
  Fuzz::require(holds, "a link that is not fit to be published");
}

bool isEndpoint(Plexa::IpGenAddr const & address) {
  return address.family() == Plexa::AddressFamily::none || !address.isAddrZero();
}

void check(LinkMessage const & message) {
  if (auto const * malformed = std::get_if<MalformedMessage>(&message))
    require(!malformed->reason.empty());
  auto const * const state = std::get_if<LinkState>(&message);
  if (state == nullptr)
    return;
  require(state->index >= 1 && state->index <= INT32_MAX);
  if (!state->tunnel)
    return;
  require(state->tunnel->index == state->index);
  require(state->tunnel->status.tos <= 63);
  require(state->tunnel->status.mode != Plexa::TunnelIntfMode::unknown);
  require(isEndpoint(state->tunnel->status.srcAddr) && isEndpoint(state->tunnel->status.dstAddr));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  std::vector<std::uint8_t> bytes(data, data + size);
  auto const decode = [&] { check(decodeLink(std::as_bytes(std::span(bytes)), {61, 62})); };
  decode();
  // Once more as a link message of the right length, past the first checks.
  if (size < sizeof(nlmsghdr))
    return 0;
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(size);
  header.nlmsg_type = RTM_NEWLINK;
  std::memcpy(bytes.data(), &header, sizeof header);
  decode();
  return 0;
}
