// What readings of policies and states cost where one thing concerns many others.
#include "tests/sources/linux/ScriptedKernel.h"
#include "tests/sources/linux/XfrmBytes.h"
#include "tests/support/FailingMemory.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <new>

namespace {

using Plexa::IntfId;
using Sources::Linux::IpsecPolicies;
using Sources::Linux::KernelReader;
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
          .remote = *Plexa::IpGenAddr::fromString(
              fmt::format("10.0.{}.{}", 1 + number / 256, number % 256))};
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

// A policy for all packets comes or goes: its links are looked at in runs.
TEST_F(ManyPolicies, ForAllLinksLeaveTheThreadToOthers) {
  if (!ipSucceeds("xfrm policy >/dev/null"))
    GTEST_SKIP() << "this kernel has no IPsec policies";
  constexpr std::uint32_t many = 3 * Sources::Linux::LinkFlows::mostLooks;
  for (std::uint32_t i = 1; i <= many; ++i)
    links.linkIs(greLink(i));
  start({}, {});
  ip("xfrm policy add src 0.0.0.0/0 dst 0.0.0.0/0 dir out tmpl proto esp mode transport");
  loop.runOnce();
  EXPECT_LE(policies->linkWork().links, Sources::Linux::LinkFlows::mostLooks + 1);
  EXPECT_LT(policies->publisher().counts().statusClaims, many);
  settle();
  EXPECT_EQ(policies->publisher().counts().statusClaims, many);
  ip("xfrm policy delete src 0.0.0.0/0 dst 0.0.0.0/0 dir out");
  settle();
  EXPECT_EQ(policies->publisher().counts().statusClaims, 0u);
}

TEST_F(ManyPolicies, AreAppliedInTheEndToALinkForWhichThereWasNoMemory) {
  auto hasFailed = true;
  for (std::uint32_t before = 0; hasFailed && !HasFailure(); ++before) {
    SCOPED_TRACE(fmt::format("allocation {}", before));
    if (!policies)
      start({policyMessage({.selector = wide()}, {})}, {});
    {
      FailingMemory const failing(before, FailingMemory::Fails::once);
      try {
        links.linkIs(greLink(before + 1));
      } catch (std::bad_alloc const &) {
      }
    }
    hasFailed = FailingMemory::hasFailed();
    links.linkIs(greLink(before + 1)); // as who told of it does
    answer(policyDumps, {policyMessage({.selector = wide()}, {})});
    auto const asked = policyDumps.asked();
    loop.advance(KernelReader::retryPeriod);
    settle();
    if (policyDumps.asked() == asked)
      loop.advance(IpsecPolicies::fullReadPeriod - KernelReader::retryPeriod);
    settle();
    EXPECT_EQ(policies->publisher().counts().statusClaims, before + 1);
    policyDumps.forgetAnswers();
  }
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
