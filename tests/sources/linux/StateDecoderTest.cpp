// Messages about security associations as the kernel sends them, and others.
#include "sources/linux/StateDecoder.h"
#include "tests/sources/linux/XfrmBytes.h"
#include <gtest/gtest.h>

namespace Sources::Linux {
namespace {

using namespace XfrmBytes;

StateMessage decode(Octets const & octets) {
  return decodeState(bytes(octets));
}
StateIs decoded(StateInfo const & info, Octets const & attributes) {
  auto const message = decode(xfrmMessage(newState, stateInfo(info), attributes));
  auto const * const is = std::get_if<StateIs>(&message);
  EXPECT_NE(is, nullptr);
  return is == nullptr ? StateIs() : *is;
}
bool isMalformed(StateMessage const & message) {
  return std::holds_alternative<MalformedMessage>(message);
}

TEST(StateDecoder, ReadsByWhatAStateIsFound) {
  auto const state =
      decoded({.source = "2001:db8::1",
               .destination = "2001:db8::2",
               .protocol = 51,
               .mode = 1,
               .spi = 0x12345678,
               .reqid = 5,
               .family = 10},
              joined({attribute(algAuth, algorithm()), attribute(ifId, native<std::uint32_t>(42)),
                      attribute(mark, joined({native<std::uint32_t>(9), native(UINT32_MAX)}))}));
  EXPECT_EQ(state.id, (StateId{.source = *Plexa::IpGenAddr::fromString("2001:db8::1"),
                               .destination = *Plexa::IpGenAddr::fromString("2001:db8::2"),
                               .protocol = 51,
                               .mode = XfrmMode::tunnel,
                               .spi = 0x12345678,
                               .reqid = 5,
                               .ifId = 42,
                               .mark = {9, UINT32_MAX}}));
  EXPECT_TRUE(state.isUsable);
}

TEST(StateDecoder, TakesAStateForUsableThatHasANumberAndKeys) {
  EXPECT_TRUE(decoded({}, attribute(algAead, algorithm())).isUsable);
  EXPECT_TRUE(
      decoded({}, joined({attribute(algAuth, algorithm()), attribute(algCrypt, algorithm())}))
          .isUsable);
  EXPECT_TRUE(decoded({.protocol = 51}, attribute(algAuthTrunc, algorithm())).isUsable);
  EXPECT_TRUE(decoded({.protocol = 108}, attribute(algComp, algorithm(0))).isUsable)
      << "compression has no key, but a number and a method";
  EXPECT_FALSE(decoded({}, {}).isUsable) << "its keys are being negotiated";
  EXPECT_FALSE(decoded({.spi = 0}, attribute(algAead, algorithm())).isUsable);
}

TEST(StateDecoder, TakesAStateForUsedUpThatHasReachedALimit) {
  auto const keys = attribute(algAead, algorithm());
  EXPECT_FALSE(decoded({.hardBytes = 1000, .bytes = 1000}, keys).isUsable);
  EXPECT_TRUE(decoded({.hardBytes = 1000, .bytes = 999}, keys).isUsable);
  EXPECT_FALSE(decoded({.hardPackets = 10, .packets = 11}, keys).isUsable);
  EXPECT_TRUE(decoded({.hardPackets = 0, .packets = 11}, keys).isUsable) << "no limit";
}

// A state that was being acquired gets its keys so.
TEST(StateDecoder, TakesAnUpdateLikeANewOne) {
  auto const message =
      decode(xfrmMessage(updState, stateInfo({.reqid = 7}), attribute(algAead, algorithm())));
  EXPECT_EQ(std::get<StateIs>(message).id.reqid, 7u);
  EXPECT_TRUE(std::get<StateIs>(message).isUsable);
}

TEST(StateDecoder, FindsTheDeletedStateInTheAttribute) {
  auto const id = joined(
      {address("10.0.0.2"), bigEndian(std::uint32_t{0x100}), native<std::uint16_t>(2), {50, 0}});
  auto const message = decode(
      xfrmMessage(delState, id,
                  joined({attribute(sa, stateInfo({.reqid = 7})), attribute(algAead, algorithm()),
                          attribute(ifId, native<std::uint32_t>(3))})));
  EXPECT_EQ(std::get<StateGone>(message).id,
            decoded({.reqid = 7}, attribute(ifId, native<std::uint32_t>(3))).id);
  EXPECT_TRUE(isMalformed(decode(xfrmMessage(delState, id))));
}

TEST(StateDecoder, SeesTheEndOfAStateWhoseTimeIsOver) {
  auto const more =
      joined({attribute(ifId, native<std::uint32_t>(42)),
              attribute(mark, joined({native<std::uint32_t>(9), native(UINT32_MAX)}))});
  auto const expired = [&](std::uint8_t hard) {
    return decode(xfrmMessage(expire, joined({stateInfo({}), {hard, 0, 0, 0, 0, 0, 0, 0}}), more));
  };
  EXPECT_EQ(std::get<StateGone>(expired(1)).id, decoded({}, more).id);
  EXPECT_TRUE(std::holds_alternative<OtherMessage>(expired(0))) << "which is a warning";
}

TEST(StateDecoder, SeesAFlushAndLeavesOthersAlone) {
  EXPECT_TRUE(
      std::holds_alternative<StatesFlushed>(decode(xfrmMessage(flushStates, {50, 0, 0, 0}))));
  EXPECT_TRUE(std::holds_alternative<OtherMessage>(decode(xfrmMessage(newPolicy, policyInfo({})))));
}

TEST(StateDecoder, FindsAMessageMalformedThatIsCutOffAnywhere) {
  auto const whole = xfrmMessage(newState, stateInfo({}), attribute(algAead, algorithm()));
  for (std::size_t size = 0; size != whole.size(); ++size)
    EXPECT_TRUE(isMalformed(decode(Octets(whole.begin(), whole.begin() + size)))) << size;
}

TEST(StateDecoder, NamesNoKeyWhenItSaysWhatIsMalformed) {
  auto const message =
      decode(xfrmMessage(newState, stateInfo({.family = 7}), attribute(algAead, algorithm())));
  EXPECT_EQ(std::get<MalformedMessage>(message).reason, "7 is no address family");
}

} // namespace
} // namespace Sources::Linux
