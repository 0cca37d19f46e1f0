// What readings of policies and states cost where one thing concerns many others.
#include "tests/sources/linux/ScriptedKernel.h"
#include "tests/sources/linux/XfrmBytes.h"
#include <fmt/format.h>
#include <gmock/gmock.h>

namespace {

using Plexa::IntfId;
using testing::SizeIs;
using namespace XfrmBytes;

constexpr std::uint32_t policyCount = 60;

class ManyPolicies : public ScriptedKernel {};

Octets policyMessage(PolicyInfo const & info, Template const & asked, Octets const & more = {}) {
  return xfrmMessage(newPolicy, policyInfo(info),
                     joined({attribute(tmpl, templateOctets(asked)), more}));
}
Selector wide() {
  return {.source = "", .destination = "", .sourceLength = 0, .destinationLength = 0};
}
Sources::Link greLink(std::uint32_t number) {
  return {.intfId = IntfId(number),
          .name = fmt::format("g{}", number),
          .kind = "gre",
          .local = *Plexa::IpGenAddr::fromString("10.0.0.1"),
          .remote = *Plexa::IpGenAddr::fromString(fmt::format("10.0.1.{}", number))};
}

// Each of so many policies is for each of so many links.
TEST_F(ManyPolicies, AreReadWithoutALookAtEachLinkForEachOfThem) {
  for (std::uint32_t i = 1; i <= 50; ++i)
    links.linkIs(greLink(i));
  std::vector<Octets> messages;
  for (std::uint32_t i = 1; i <= policyCount; ++i)
    messages.push_back(policyMessage({.selector = wide(), .priority = i, .index = i}, {}));
  start(messages, {});
  EXPECT_EQ(policies->summary(), std::to_string(policyCount));
  EXPECT_EQ(policies->publisher().counts().statusClaims, 50u);
  EXPECT_EQ(policies->linkWork().links, 0u) << "all are looked at in the end";
}

// As on a gateway that has one xfrm link for all who dial in.
TEST_F(ManyPolicies, OfOneInterfaceAreNotAllLookedAtWhereTheFirstSays) {
  links.linkIs({.intfId = IntfId(1), .name = "x1", .kind = "xfrm", .ifId = 42});
  auto const id = attribute(ifId, native<std::uint32_t>(42));
  std::vector<Octets> messages;
  std::vector<Octets> stateMessages;
  for (std::uint32_t i = 1; i <= policyCount; ++i) {
    auto const peer = fmt::format("192.0.2.{}", i);
    messages.push_back(policyMessage({.selector = wide(), .index = i},
                                     {.mode = 1, .source = "198.51.100.1", .destination = peer},
                                     id));
    stateMessages.push_back(
        xfrmMessage(newState, stateInfo({.source = "198.51.100.1", .destination = peer, .mode = 1}),
                    joined({attribute(algAead, algorithm()), id})));
  }
  start(messages, stateMessages);
  EXPECT_THAT(states->connections(), SizeIs(1));
  auto const before = policies->policyWork().looks;
  states->lookAgain(IntfId(1));
  EXPECT_EQ(policies->policyWork().looks, before + 1);
}

} // namespace
