// Any octets at all to the decoder of AgentX messages: it must read nothing beyond them, and what
// it makes of them must come out the same when it is encoded and decoded again.
#include "agent/agentx/Pdu.h"
#include <cstdlib>
#include <cstring>

namespace {

using namespace Agent::AgentX;

void require(bool holds) {
  if (!holds)
    std::abort();
}

std::variant<Body, Malformed> decodeAgain(std::string const & octets) {
  auto const bytes =
      std::span(reinterpret_cast<std::uint8_t const *>(octets.data()), octets.size());
  auto const frame = decodeHeader(bytes.first<headerSize>());
  require(std::holds_alternative<Frame>(frame));
  require(std::get<Frame>(frame).payloadSize == octets.size() - headerSize);
  return decodeBody(std::get<Frame>(frame).header, bytes.subspan(headerSize));
}

void check(Header const & header, std::span<std::uint8_t const> payload) {
  auto const body = decodeBody(header, payload);
  if (auto const * malformed = std::get_if<Malformed>(&body)) {
    require(!malformed->reason.empty());
    return;
  }
  std::string again;
  encode(again, header, std::get<Body>(body));
  auto const second = decodeAgain(again);
  require(std::holds_alternative<Body>(second));
  require(std::get<Body>(second) == std::get<Body>(body));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  if (size < headerSize)
    return 0;
  auto const all = std::span(data, size);
  auto const frame = decodeHeader(all.first<headerSize>());
  if (auto const * read = std::get_if<Frame>(&frame))
    // Whatever the header says of the size: the payload is what there is.
    check(read->header, all.subspan(headerSize));
  return 0;
}
