// Which security associations a template asks for, and what is known of them as they come and go.
#include "sources/linux/States.h"
#include <gtest/gtest.h>

namespace Sources::Linux {
namespace {

using Progress = States::Progress;

Plexa::IpGenAddr at(char const * text) {
  return *Plexa::IpGenAddr::fromString(text);
}
/// An ESP tunnel from 192.0.2.1 to 192.0.2.2.
PolicyTemplate const tunnel{.protocol = 50,
                            .mode = XfrmMode::tunnel,
                            .source = at("192.0.2.1"),
                            .destination = at("192.0.2.2"),
                            .reqid = 5};
StateIs stateOf(std::uint32_t spi, bool isUsable = true) {
  return {{.source = tunnel.source,
           .destination = tunnel.destination,
           .protocol = 50,
           .mode = XfrmMode::tunnel,
           .spi = spi,
           .reqid = 5},
          isUsable};
}
/// Of what the template asks for in a policy for all packets, or for those of a mark.
Progress progress(States const & states, PolicyTemplate const & one = tunnel, Mark mark = {}) {
  Policy policy;
  policy.mark = mark;
  return states.progress(*States::wanted(policy, one, States::endsBehind(one, {})));
}

TEST(States, FromNoCertainAddressServeEachThatFits) {
  States states;
  auto state = stateOf(0x100);
  state.id.source = {};
  states.stateIs(state);
  EXPECT_EQ(progress(states), Progress::usable) << "as the kernel looks for them";
}

TEST(States, ComeFromAnyAddressWhereTheTemplateSaysNone) {
  States states;
  states.stateIs(stateOf(0x100));
  auto open = tunnel;
  open.source = {};
  EXPECT_EQ(progress(states, open), Progress::usable);
  open.source = at("192.0.2.9");
  EXPECT_EQ(progress(states, open), Progress::none);
}

TEST(States, HaveTheNumberThatTheTemplateAsksFor) {
  States states;
  states.stateIs(stateOf(0x100));
  auto one = tunnel;
  one.spi = 0x100;
  EXPECT_EQ(progress(states, one), Progress::usable);
  one.spi = 0x101;
  EXPECT_EQ(progress(states, one), Progress::none);
  states.stateIs(stateOf(0, false));
  EXPECT_EQ(progress(states, one), Progress::acquiring) << "it may become that";
}

TEST(States, CoverTheMarkOfThePackets) {
  States states;
  auto marked = stateOf(0x100);
  marked.id.mark = {9, UINT32_MAX};
  states.stateIs(marked);
  EXPECT_EQ(progress(states, tunnel, {9, UINT32_MAX}), Progress::usable);
  EXPECT_EQ(progress(states, tunnel, {8, UINT32_MAX}), Progress::none);
  EXPECT_EQ(progress(states), Progress::none) << "packets without a mark";
}

TEST(States, AreLookedForInBeetModeByTheEndsOfTheTunnel) {
  States states;
  auto beet = stateOf(0x100);
  beet.id.mode = XfrmMode::beet;
  states.stateIs(beet);
  auto one = tunnel;
  one.mode = XfrmMode::beet;
  EXPECT_EQ(progress(states, one), Progress::usable);
  EXPECT_EQ(progress(states), Progress::none) << "another mode";
}

TEST(States, OfTransportModeAreThoseOfThePacketsAsTheTemplateBeforeLeavesThem) {
  PolicyTemplate const transport{.protocol = 50, .reqid = 5};
  EXPECT_EQ(States::wanted({}, transport, {}), std::nullopt) << "of unknown packets";
  auto inner = stateOf(0x100);
  inner.id.mode = XfrmMode::transport;
  States states;
  states.stateIs(inner);
  auto const ends = States::endsBehind(tunnel, {at("10.0.0.1"), at("10.0.0.2")});
  EXPECT_EQ(states.progress(*States::wanted({}, transport, States::endsBehind(transport, ends))),
            Progress::usable);
  EXPECT_EQ(states.progress(*States::wanted({}, transport, {at("10.0.0.1"), at("10.0.0.2")})),
            Progress::none);
}

TEST(States, AreNewsWhenTheyComeChangeOrGo) {
  States states;
  EXPECT_TRUE(states.stateIs(stateOf(0x100, false)));
  EXPECT_FALSE(states.stateIs(stateOf(0x100, false)));
  EXPECT_TRUE(states.stateIs(stateOf(0x100, true))) << "it has its keys now";
  EXPECT_TRUE(states.stateIs(stateOf(0x100, false))) << "it is used up";
  EXPECT_TRUE(states.stateDel(stateOf(0x100).id));
  EXPECT_FALSE(states.stateDel(stateOf(0x100).id));
}

TEST(States, AreNewsToAReadingToo) {
  States states;
  states.beginReading();
  EXPECT_TRUE(states.found(stateOf(0x100, false)));
  EXPECT_EQ(states.takeUnseen(), std::nullopt);
  states.beginReading();
  EXPECT_FALSE(states.found(stateOf(0x100, false)));
  EXPECT_TRUE(states.found(stateOf(0x100, true)));
}

// While keys are renewed there is a new one beside the old one.
TEST(States, AreToldApartByTheirNumber) {
  States states;
  states.stateIs(stateOf(0x100));
  states.stateIs(stateOf(0x200));
  EXPECT_EQ(states.size(), 2u);
  states.stateDel(stateOf(0x100).id);
  EXPECT_EQ(progress(states), Progress::usable);
  states.stateDel(stateOf(0x200).id);
  EXPECT_EQ(progress(states), Progress::none);
}

// Such have no number yet.
TEST(States, ThatAreAcquiredAreToldApartByAllElse) {
  States states;
  auto other = stateOf(0, false);
  other.id.source = at("192.0.2.7");
  auto marked = stateOf(0, false);
  marked.id.mark = {9, UINT32_MAX};
  states.stateIs(stateOf(0, false));
  states.stateIs(other);
  states.stateIs(marked);
  EXPECT_EQ(states.size(), 3u);
  states.stateDel(other.id);
  states.stateDel(marked.id);
  EXPECT_EQ(progress(states), Progress::acquiring);
}

TEST(States, AreAsTheLastEventSaysWhateverADumpFindsLater) {
  States states;
  states.stateIs(stateOf(0x100));
  states.stateIs(stateOf(0x200, false));
  states.beginReading();
  states.stateDel(stateOf(0x100).id);
  states.stateIs(stateOf(0x200, true));
  EXPECT_FALSE(states.found(stateOf(0x100))) << "the dump was made before";
  EXPECT_FALSE(states.found(stateOf(0x200, false)));
  EXPECT_EQ(states.takeUnseen(), std::nullopt);
  EXPECT_EQ(states.size(), 1u);
  EXPECT_EQ(progress(states), Progress::usable);
}

} // namespace
} // namespace Sources::Linux
