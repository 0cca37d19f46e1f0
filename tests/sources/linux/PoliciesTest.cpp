// Which policy decides, compared with a walk over all of them; and what it costs, in looks and not
// in time.
#include "sources/linux/Policies.h"
#include "sources/linux/LinkFlows.h"
#include <algorithm>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <tuple>

namespace Sources::Linux {

void PrintTo(Policy const & policy, std::ostream * out) {
  *out << "policy " << policy.index << " of priority " << policy.priority;
}

namespace {

using Plexa::IntfId;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

Plexa::IpGenAddr at(std::string const & text) {
  return *Plexa::IpGenAddr::fromString(text);
}
Flow const vxlanFlow{.local = at("10.0.0.1"),
                     .remote = at("10.0.0.2"),
                     .protocol = 17,
                     .localPort = std::nullopt,
                     .remotePort = 4789};

/// From hosts 10.0.0.1 to 10.0.0.2, with ESP.
Policy policyOf(std::uint32_t index, std::uint32_t priority = 0) {
  return {.index = index,
          .direction = Policy::Direction::out,
          .priority = priority,
          .isAllowed = true,
          .selector = {.family = Plexa::AddressFamily::ipv4,
                       .source = at("10.0.0.1"),
                       .destination = at("10.0.0.2"),
                       .sourceLength = 32,
                       .destinationLength = 32},
          .templates = {{.protocol = 50}}};
}
Policy withPrefixes(Policy policy, std::uint8_t source, std::uint8_t destination) {
  auto & selector = policy.selector;
  selector.source = maskedAddress(selector.source, source);
  selector.destination = maskedAddress(selector.destination, destination);
  selector.sourceLength = source;
  selector.destinationLength = destination;
  return policy;
}
/// The index of the policy that decides; 0: none.
std::uint32_t deciding(Policies const & policies, Flow const & flow = vxlanFlow) {
  auto const * const policy = policies.effective(flow);
  return policy == nullptr ? 0 : policy->index;
}

TEST(Policies, LetsTheLowestPriorityDecide) {
  Policies policies;
  EXPECT_EQ(deciding(policies), 0u);
  policies.policyIs(policyOf(1, 100));
  policies.policyIs(withPrefixes(policyOf(2, 50), 0, 0));
  EXPECT_EQ(deciding(policies), 2u) << "also when it is the less special one";
  policies.policyIs(policyOf(1, 10));
  EXPECT_EQ(deciding(policies), 1u);
  policies.policyDel(1);
  EXPECT_EQ(deciding(policies), 2u);
  policies.policyDel(2);
  EXPECT_EQ(deciding(policies), 0u);
}

TEST(Policies, LetsTheOldestOfEqualsDecide) {
  Policies policies;
  policies.policyIs(withPrefixes(policyOf(2), 24, 24));
  policies.policyIs(policyOf(1));
  EXPECT_EQ(deciding(policies), 2u);
  policies.policyIs(withPrefixes(policyOf(2), 24, 24));
  EXPECT_EQ(deciding(policies), 1u) << "an update makes it new";
}

TEST(Policies, TakesTheFirstOfADumpForTheNewest) {
  Policies policies;
  policies.beginReading();
  policies.found(policyOf(3));
  policies.found(withPrefixes(policyOf(1), 24, 24));
  policies.policyIs(withPrefixes(policyOf(7), 16, 16)); // an event meanwhile
  policies.found(withPrefixes(policyOf(5), 8, 8));
  EXPECT_EQ(policies.takeUnseen(), std::nullopt);
  std::vector<std::uint32_t> order;
  while (auto const index = deciding(policies)) {
    order.push_back(index);
    policies.policyDel(index);
  }
  EXPECT_THAT(order, ElementsAre(5, 1, 3, 7));
}

TEST(Policies, LetsTheOldestDecideAlsoWhileADumpComesIn) {
  Policies policies;
  policies.policyIs(withPrefixes(policyOf(2), 24, 24));
  policies.policyIs(policyOf(1));
  policies.beginReading();
  policies.found(policyOf(1));
  EXPECT_EQ(deciding(policies), 2u) << "which the dump has last";
  policies.found(withPrefixes(policyOf(2), 24, 24));
  EXPECT_EQ(deciding(policies), 2u);
}

/// A policy that is not for the flow although it is almost.
struct NotForIt {
  char const * name;
  void (*change)(Policy &);
};
class PolicyNotForTheFlow : public testing::TestWithParam<NotForIt> {};

TEST_P(PolicyNotForTheFlow, DoesNotDecide) {
  auto policy = policyOf(1);
  GetParam().change(policy);
  Policies policies;
  policies.policyIs(policy);
  EXPECT_EQ(deciding(policies), 0u);
  EXPECT_FALSE(covers(policy, vxlanFlow));
  EXPECT_TRUE(policies.policyDel(1).has_value()) << "all the same it is there";
}

INSTANTIATE_TEST_SUITE_P(
    Each, PolicyNotForTheFlow,
    testing::Values(NotForIt{"OfAnInterfaceId", [](Policy & one) { one.ifId = 1; }},
                    NotForIt{"OfAMark",
                             [](Policy & one) {
                               one.mark = {1, 0xff};
                             }},
                    NotForIt{"OfALink", [](Policy & one) { one.selector.interface = 3; }},
                    NotForIt{"OfOtherSource",
                             [](Policy & one) { one.selector.source = at("10.0.0.3"); }},
                    NotForIt{"OfOtherDestination",
                             [](Policy & one) { one.selector.destination = at("10.0.0.3"); }},
                    NotForIt{"OfOtherProtocol", [](Policy & one) { one.selector.protocol = 47; }},
                    NotForIt{"OfOtherPort",
                             [](Policy & one) {
                               one.selector.destinationPort = 4790;
                               one.selector.destinationPortMask = 0xffff;
                             }},
                    NotForIt{"OfTheOtherFamily",
                             [](Policy & one) {
                               Plexa::IpGenAddr const any(Plexa::AddressFamily::ipv6);
                               one.selector = {.family = Plexa::AddressFamily::ipv6,
                                               .source = any,
                                               .destination = any};
                             }},
                    NotForIt{"OfASourcePort", // which a vxlan link changes as it likes
                             [](Policy & one) { one.selector.sourcePortMask = 0xffff; }}),
    [](auto const & one) { return std::string(one.param.name); });

TEST(Policies, LetsAPolicyDecideWhoseMarkEveryPacketHas) {
  Policies policies;
  auto policy = policyOf(1);
  policy.mark = {0, 0xff};
  policies.policyIs(policy);
  EXPECT_EQ(deciding(policies), 1u);
}

TEST(Policies, FindsThoseOfAnInterfaceIdAndOfAMark) {
  Policies policies;
  auto const add = [&](std::uint32_t index, std::uint32_t priority, std::uint32_t ifId, Mark mark) {
    auto policy = policyOf(index, priority);
    policy.ifId = ifId;
    policy.mark = mark;
    policies.policyIs(policy);
  };
  add(1, 20, 42, {});
  add(2, 10, 42, {});
  add(3, 0, 43, {});
  add(4, 0, 0, {9, UINT32_MAX});
  add(5, 0, 0, {0x100, 0xff00});
  using Indexes = std::vector<std::uint32_t>;
  auto const ofInterface = [&](std::uint32_t ifId) {
    Indexes indexes;
    EXPECT_TRUE(policies.forEachOfInterface(ifId, [&](Policy const & policy) {
      indexes.push_back(policy.index);
      return true;
    }));
    return indexes;
  };
  auto const ofMark = [&](std::uint32_t mark) {
    Indexes indexes;
    EXPECT_TRUE(policies.forEachOfMark(mark, [&](Policy const & policy) {
      indexes.push_back(policy.index);
      return true;
    }));
    return indexes;
  };
  EXPECT_THAT(ofInterface(42), ElementsAre(2, 1));
  EXPECT_THAT(ofInterface(0), IsEmpty());
  EXPECT_THAT(ofMark(9), ElementsAre(4));
  EXPECT_THAT(ofMark(0x1ff), ElementsAre(5));
  EXPECT_THAT(ofMark(0), IsEmpty());
  EXPECT_FALSE(policies.forEachOfInterface(42, [](Policy const & policy) {
    EXPECT_EQ(policy.index, 2u) << "that was enough";
    return false;
  }));
  EXPECT_FALSE(policies.forEachOfMark(9, [](Policy const &) { return false; }));
  policies.policyDel(4);
  policies.policyDel(2);
  EXPECT_THAT(ofMark(9), IsEmpty());
  EXPECT_THAT(ofInterface(42), ElementsAre(1));
}

TEST(Policies, LeavesOutBitsOfAMarkOutsideItsMask) {
  Policies policies;
  auto policy = policyOf(1);
  policy.mark = {0x1ff, 0xff00};
  policies.policyIs(policy);
  EXPECT_FALSE(policies.forEachOfMark(0x100, [](Policy const &) { return false; }));
  EXPECT_TRUE(policies.policyDel(1).has_value());
  EXPECT_TRUE(policies.forEachOfMark(0x100, [](Policy const &) { return false; }));
}

// The halves of a gre link's key stand for its ports.
TEST(Policies, TakeOfASourcePortWhatItsMaskLeaves) {
  auto const flow = flowsOf({.intfId = IntfId(1),
                             .name = "g",
                             .kind = "gre",
                             .outputKey = 0x01020003,
                             .local = at("10.0.0.1"),
                             .remote = at("10.0.0.2")})
                        .front();
  auto policy = policyOf(1);
  policy.selector.sourcePort = 0x0100;
  policy.selector.sourcePortMask = 0xff00;
  Policies policies;
  policies.policyIs(policy);
  EXPECT_EQ(deciding(policies, flow), 1u);
  EXPECT_TRUE(covers(policy, flow));
  policy.selector.sourcePort = 0x0200;
  policies.policyIs(policy);
  EXPECT_EQ(deciding(policies, flow), 0u);
  EXPECT_FALSE(covers(policy, flow));
}

TEST(Policies, CostNoLookForAShapeOfWhichNoneIsLeft) {
  Policies policies;
  policies.policyIs(policyOf(1));
  policies.policyIs(withPrefixes(policyOf(2), 24, 24));
  policies.policyDel(2);
  auto const looks = policies.work().looks;
  EXPECT_EQ(deciding(policies), 1u);
  EXPECT_EQ(policies.work().looks, looks + 1);
}

TEST(Policies, TakesAwayWhatAReadingDidNotFind) {
  Policies policies;
  for (std::uint32_t index = 1; index <= 4; ++index)
    policies.policyIs(policyOf(index, index));
  policies.beginReading();
  policies.found(policyOf(2, 2));
  policies.stays(3); // it could not be read
  policies.policyDel(2);
  policies.found(policyOf(2, 2)); // the dump was made before
  policies.policyIs(policyOf(9, 9));
  EXPECT_EQ(policies.takeUnseen(), policyOf(1, 1));
  EXPECT_EQ(policies.takeUnseen(), policyOf(4, 4));
  EXPECT_EQ(policies.takeUnseen(), std::nullopt);
  EXPECT_EQ(policies.size(), 2u);
  EXPECT_EQ(deciding(policies), 3u);
}

/// Everything by walks.
struct Naive {
  std::map<std::uint32_t, std::pair<int, Policy>> policies; // by index, with its age
  int newest = 0;

  void policyIs(Policy const & policy) { policies[policy.index] = {++newest, policy}; }
  std::uint32_t deciding(Flow const & flow) const {
    std::tuple<std::uint32_t, int, std::uint32_t> best{UINT32_MAX, 0, 0};
    for (auto const & [index, one] : policies)
      if (covers(one.second, flow))
        best = std::min(best, {one.second.priority, one.first, index});
    return std::get<2>(best);
  }
};

/// Few enough values that policies and links meet.
class RandomWorld {
public:
  explicit RandomWorld(std::uint32_t seed) : random_(seed) {}

  std::uint32_t number(std::uint32_t below) {
    return static_cast<std::uint32_t>(random_() % below);
  }
  Plexa::IpGenAddr address() { return at(fmt::format("10.{}.0.{}", number(2), 1 + number(4))); }
  Link link(std::uint32_t id) {
    static constexpr std::string_view kinds[] = {"gre", "ipip", "ip6tnl", "vxlan", "xfrm", "vti"};
    Link link{.intfId = IntfId(id),
              .name = "t",
              .kind = kinds[number(6)],
              .ifId = 1 + number(3),
              .outputKey = 1 + number(3),
              .local = number(8) == 0 ? Plexa::IpGenAddr() : address(),
              .remote = address(),
              .port = static_cast<std::uint16_t>(4789 + number(2))};
    link.isCarriedElsewhere = number(10) == 0;
    return link;
  }
  Policy policy(std::uint32_t index) {
    auto policy = policyOf(index, number(3));
    policy.selector.source = address();
    policy.selector.destination = address();
    static constexpr std::uint8_t protocols[] = {0, 0, 4, 17, 41, 47};
    policy.selector.protocol = protocols[number(6)];
    if (number(4) == 0) {
      policy.selector.destinationPort = static_cast<std::uint16_t>(4789 + number(2));
      policy.selector.destinationPortMask = 0xffff;
    }
    if (number(8) == 0)
      policy.mark = {1 + number(3), number(2) == 0 ? UINT32_MAX : 1};
    if (number(8) == 0)
      policy.ifId = 1 + number(3);
    static constexpr std::uint8_t lengths[] = {0, 8, 16, 30, 32, 32};
    return withPrefixes(policy, lengths[number(6)], lengths[number(6)]);
  }

private:
  std::mt19937 random_;
};

TEST(Policies, DecideAsAWalkOverAllOfThemWould) {
  auto const seed = std::random_device()();
  SCOPED_TRACE(fmt::format("random number {}", seed));
  RandomWorld world(seed);
  Policies policies;
  Naive naive;
  for (int i = 0; i != 3000 && !testing::Test::HasFailure(); ++i) {
    auto const index = 1 + world.number(40);
    if (world.number(3) == 0) {
      policies.policyDel(index);
      naive.policies.erase(index);
    } else {
      auto const policy = world.policy(index);
      policies.policyIs(policy);
      naive.policyIs(policy);
    }
    for (auto const & flow : flowsOf(world.link(1)))
      ASSERT_EQ(deciding(policies, flow), naive.deciding(flow)) << "after " << i << " changes";
  }
}

TEST(LinkFlows, FindTheLinksThatAPolicyIsAboutAsAWalkWould) {
  auto const seed = std::random_device()();
  SCOPED_TRACE(fmt::format("random number {}", seed));
  RandomWorld world(seed);
  auto const routed = at("10.0.0.1");
  LinkFlows flows([&](Plexa::IpGenAddr const &) { return routed; });
  std::map<std::uint32_t, Link> links;
  for (int i = 0; i != 3000 && !testing::Test::HasFailure(); ++i) {
    auto const id = 1 + world.number(40);
    if (world.number(3) == 0) {
      flows.linkDel(IntfId(id));
      links.erase(id);
    } else {
      links.insert_or_assign(id, world.link(id));
      flows.linkIs(links.at(id));
    }
    auto const policy = world.policy(1);
    std::set<std::uint64_t> expected;
    for (auto const & [number, link] : links) {
      auto sent = link;
      if (isSentAsRouted(link))
        sent.local = routed;
      auto const all = flowsOf(sent);
      auto const isHere = !link.isCarriedElsewhere;
      if (std::ranges::any_of(all, [&](auto const & flow) { return covers(policy, flow); }) ||
          (isHere && policy.ifId != 0 && link.kind == "xfrm" && link.ifId == policy.ifId) ||
          (isHere && policy.ifId == 0 && !policy.mark.covers(0) && link.kind == "vti" &&
           policy.mark.covers(*link.outputKey)))
        expected.insert(number);
    }
    absl::btree_set<IntfId> found;
    ASSERT_TRUE(flows.findConcerned(policy, found));
    std::set<std::uint64_t> numbers;
    for (auto const intfId : found)
      numbers.insert(intfId.value());
    ASSERT_EQ(numbers, expected) << "after " << i << " changes";
  }
}

// 10 000 tunnels and as many policies, one for each: what one policy more costs.
TEST(Policies, CostNoMoreWhereThereAreManyAndManyTunnels) {
  constexpr std::uint32_t many = 10'000;
  Policies policies;
  LinkFlows flows;
  auto const remote = [](std::uint32_t number) {
    return at(fmt::format("10.{}.{}.{}", number >> 16, number >> 8 & 0xff, number & 0xff));
  };
  for (std::uint32_t i = 1; i <= many; ++i) {
    auto policy = policyOf(i, 1000);
    policy.selector.destination = remote(i);
    policies.policyIs(policy);
    flows.linkIs({.intfId = IntfId(i),
                  .name = "t",
                  .kind = "gre",
                  .local = at("10.0.0.1"),
                  .remote = remote(i)});
  }
  policies.policyIs(withPrefixes(policyOf(many + 1, 5000), 0, 0)); // a second shape
  auto const looks = policies.work().looks;
  auto const links = flows.work().links;
  auto changed = policyOf(17, 1000);
  changed.selector.destination = remote(17);
  changed.selector.protocol = 47; // a third one
  absl::btree_set<IntfId> concerned;
  auto const before = policies.policyIs(changed);
  ASSERT_TRUE(before);
  EXPECT_TRUE(flows.findConcerned(*before, concerned));
  EXPECT_TRUE(flows.findConcerned(changed, concerned));
  EXPECT_THAT(concerned, ElementsAre(IntfId(17)));
  EXPECT_EQ(flows.work().links, links + 4)
      << "that link and the next, for what the policy was and for what it is";
  EXPECT_EQ(policies.effective(flows.find(IntfId(17))->flows.front())->index, 17u);
  EXPECT_EQ(policies.work().looks, looks + 3) << "one for each shape";
}

TEST(Flow, IsWhatAKindSends) {
  auto const flows = [](char const * kind) {
    return flowsOf({.intfId = IntfId(1),
                    .name = "t",
                    .kind = kind,
                    .outputKey = 0x00020003,
                    .local = at("10.0.0.1"),
                    .remote = at("10.0.0.2"),
                    .port = 4789});
  };
  auto const protocols = [&](char const * kind) {
    std::vector<int> numbers;
    for (auto const & flow : flows(kind))
      numbers.push_back(flow.protocol);
    return numbers;
  };
  for (auto const * kind : {"gre", "gretap", "erspan", "ip6gre", "ip6gretap", "ip6erspan"})
    EXPECT_THAT(protocols(kind), ElementsAre(47)) << kind;
  EXPECT_THAT(protocols("ipip"), ElementsAre(4));
  EXPECT_THAT(protocols("sit"), ElementsAre(41));
  EXPECT_THAT(protocols("ip6tnl"), ElementsAre(4, 41));
  EXPECT_THAT(protocols("geneve"), ElementsAre(17));
  for (auto const * kind : {"vti", "vti6", "xfrm", "wireguard"})
    EXPECT_THAT(protocols(kind), IsEmpty()) << kind;
  EXPECT_THAT(flows("vxlan"), ElementsAre(vxlanFlow));
  EXPECT_EQ(flows("gre").front().localPort, 2) << "half of its key, as in the kernel";
  EXPECT_EQ(flows("gre").front().remotePort, 3);
}

TEST(LinkFlows, TakeTheAddressOfTheRouteWhereALinkHasNone) {
  auto route = at("10.0.0.1");
  LinkFlows flows([&](Plexa::IpGenAddr const & remote) {
    EXPECT_EQ(remote, at("10.0.0.2"));
    return route;
  });
  Link const link{
      .intfId = IntfId(1), .name = "t", .kind = "geneve", .remote = at("10.0.0.2"), .port = 6081};
  EXPECT_TRUE(flows.linkIs(link));
  ASSERT_THAT(flows.find(IntfId(1))->flows, SizeIs(1));
  EXPECT_EQ(flows.find(IntfId(1))->flows.front().local, at("10.0.0.1"));
  EXPECT_FALSE(flows.linkIs(link)) << "the route is the same";
  route = at("10.0.0.9");
  EXPECT_TRUE(flows.linkIs(link));
  EXPECT_EQ(flows.find(IntfId(1))->flows.front().local, at("10.0.0.9"));
  absl::btree_set<IntfId> concerned;
  auto policy = policyOf(1);
  policy.selector.source = at("10.0.0.9");
  policy.selector.sourceLength = 32;
  EXPECT_TRUE(flows.findConcerned(policy, concerned));
  EXPECT_THAT(concerned, ElementsAre(IntfId(1)));
  route = Plexa::IpGenAddr(Plexa::AddressFamily::ipv4);
  EXPECT_TRUE(flows.linkIs(link));
  EXPECT_THAT(flows.find(IntfId(1))->flows, IsEmpty()) << "no route leads there now";
  EXPECT_EQ(flows.next(std::nullopt), IntfId(1)) << "one may later";
}

TEST(Flow, IsSentAsRoutedWithoutALocalAddressOnly) {
  Link const geneve{
      .intfId = IntfId(1), .name = "t", .kind = "geneve", .remote = at("10.0.0.2"), .port = 6081};
  EXPECT_TRUE(isSentAsRouted(geneve));
  auto const with = [&](auto change) {
    auto link = geneve;
    change(link);
    return isSentAsRouted(link);
  };
  EXPECT_TRUE(with([](Link & link) { link.kind = "gre"; }));
  EXPECT_TRUE(with([](Link & link) { link.local = Plexa::IpGenAddr(Plexa::AddressFamily::ipv4); }));
  EXPECT_FALSE(with([](Link & link) { link.local = at("10.0.0.1"); }));
  EXPECT_FALSE(with([](Link & link) { link.remote = {}; }));
  EXPECT_FALSE(with([](Link & link) { link.port.reset(); }));
  EXPECT_FALSE(with([](Link & link) { link.kind = "wireguard"; }));
  EXPECT_FALSE(with([](Link & link) { link.isCarriedElsewhere = true; }));
}

TEST(Flow, IsNoneWhereItCannotBeKnown) {
  Link const whole{.intfId = IntfId(1),
                   .name = "t",
                   .kind = "vxlan",
                   .local = at("10.0.0.1"),
                   .remote = at("10.0.0.2"),
                   .port = 4789};
  EXPECT_EQ(flowsOf(whole).size(), 1u);
  auto const without = [&](auto change) {
    auto link = whole;
    change(link);
    return flowsOf(link).empty();
  };
  EXPECT_TRUE(without([](Link & link) { link.local = {}; }));
  EXPECT_TRUE(without([](Link & link) { link.remote = {}; }));
  EXPECT_TRUE(without([](Link & link) { link.port.reset(); }));
  EXPECT_TRUE(without([](Link & link) { link.isCarriedElsewhere = true; }));
  EXPECT_TRUE(without([](Link & link) { link.remote = at("2001:db8::2"); }));
}

} // namespace
} // namespace Sources::Linux
