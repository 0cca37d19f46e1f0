// Any packet at all to the SNMP port: it may not end the daemon, read what is not there, hold it up
// or change anything.
//
// Of most mutations of a packet only the outermost length is looked at. An input that begins with
// an odd octet is therefore no packet but a choice of what a right one, which is made of it, says.
#include "fuzz/Ber.h"
#include "fuzz/Daemon.h"

namespace {

using namespace Fuzz;

/// Takes what an input says, piece by piece; zeros when it is used up.
class Choices {
public:
  explicit Choices(std::span<std::uint8_t const> octets) : octets_(octets) {}

  bool empty() const { return octets_.empty(); }
  std::uint8_t octet() {
    if (empty())
      return 0;
    auto const first = octets_.front();
    octets_ = octets_.subspan(1);
    return first;
  }
  /// Mostly small, but any.
  std::uint32_t number() {
    auto const first = octet();
    if (first < 0xF0)
      return first;
    std::uint32_t value = 0;
    for (int i = 0; i <= first % 4; ++i)
      value = value << 8 | octet();
    return value;
  }
  std::string text(std::size_t size) {
    std::string text;
    for (std::size_t i = 0; i != size; ++i)
      text += static_cast<char>(octet());
    return text;
  }

private:
  std::span<std::uint8_t const> octets_;
};

std::vector<std::uint32_t> subtree(std::uint8_t choice) {
  switch (choice % 5) {
  case 0:
    return {6, 1, 2, 1, 10, 131, 1, 1, 1, 1};
  case 1:
    return {6, 1, 2, 1, 10, 131, 1, 1, 3, 1};
  case 2:
    return {6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 1, 1, 1};
  case 3:
    return {6, 1, 2, 1, 10, 131};
  default:
    return {6, 1};
  }
}

std::string varbind(Choices & choices) {
  auto name = subtree(choices.octet());
  for (auto left = choices.octet() % 40; left != 0; --left)
    name.push_back(choices.number());
  auto const tag = choices.octet();
  return Ber::varbind(Ber::identifier(name), Ber::element(tag, choices.text(choices.octet() % 20)));
}

std::string packetOf(Choices choices) {
  auto const type = static_cast<unsigned char>(0xA0 + choices.octet() % 9);
  auto const first = choices.number();
  auto const second = choices.number();
  std::string varbinds;
  while (!choices.empty() && varbinds.size() < 30'000)
    varbinds += varbind(choices);
  return Ber::message(type, first, second, varbinds);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  auto const input = std::span(data, size);
  if (size == 0 || data[0] % 2 == 0) {
    Daemon::instance().packet(input);
    return 0;
  }
  auto const packet = packetOf(Choices(input.subspan(1)));
  Daemon::instance().packet(
      std::span(reinterpret_cast<std::uint8_t const *>(packet.data()), packet.size()));
  return 0;
}
