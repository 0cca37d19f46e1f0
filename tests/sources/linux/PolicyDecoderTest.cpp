// Messages about policies as the kernel sends them, and messages that it would not send.
#include "sources/linux/PolicyDecoder.h"
#include "tests/sources/linux/XfrmBytes.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Sources::Linux {
namespace {

using namespace XfrmBytes;
using Plexa::IpGenAddr;
using testing::HasSubstr;

IpGenAddr at(char const * text) {
  return *IpGenAddr::fromString(text);
}
PolicyMessage decode(Octets const & octets) {
  return decodePolicy(bytes(octets));
}
/// The policy of a NEWPOLICY; fails when there is none.
Policy decoded(PolicyInfo const & info, Octets const & attributes = {}) {
  auto const message = decode(xfrmMessage(newPolicy, policyInfo(info), attributes));
  auto const * const is = std::get_if<PolicyIs>(&message);
  EXPECT_NE(is, nullptr);
  return is == nullptr ? Policy() : is->policy;
}
bool isMalformed(PolicyMessage const & message) {
  return std::holds_alternative<MalformedMessage>(message);
}
bool isOther(PolicyMessage const & message) {
  return std::holds_alternative<OtherMessage>(message);
}

TEST(PolicyDecoder, ReadsWhichPacketsAPolicyIsFor) {
  auto const policy = decoded({.selector = {.source = "10.0.0.0",
                                            .destination = "10.1.0.0",
                                            .sourceLength = 24,
                                            .destinationLength = 16,
                                            .protocol = 17,
                                            .sourcePort = 500,
                                            .sourceMask = 0xffff,
                                            .destinationPort = 4789,
                                            .destinationMask = 0xffff,
                                            .interface = 7},
                               .priority = 1234,
                               .index = 17});
  EXPECT_EQ(policy, (Policy{.index = 17,
                            .direction = Policy::Direction::out,
                            .priority = 1234,
                            .isAllowed = true,
                            .selector = {.family = Plexa::AddressFamily::ipv4,
                                         .source = at("10.0.0.0"),
                                         .destination = at("10.1.0.0"),
                                         .sourceLength = 24,
                                         .destinationLength = 16,
                                         .protocol = 17,
                                         .sourcePort = 500,
                                         .sourcePortMask = 0xffff,
                                         .destinationPort = 4789,
                                         .destinationPortMask = 0xffff,
                                         .interface = 7}}));
}

TEST(PolicyDecoder, ReadsIpv6AndTheAddressZero) {
  auto const & selector = decoded({.selector = {.source = "",
                                                .destination = "2001:db8::",
                                                .sourceLength = 0,
                                                .destinationLength = 32,
                                                .family = 10}})
                              .selector;
  EXPECT_EQ(selector.source, IpGenAddr(Plexa::AddressFamily::ipv6));
  EXPECT_EQ(selector.destination, at("2001:db8::"));
}

TEST(PolicyDecoder, DropsWhatIsBehindAPrefixOrOutsideAMask) {
  auto const selector = decoded({.selector = {.source = "10.0.0.7",
                                              .destination = "10.1.255.255",
                                              .sourceLength = 24,
                                              .destinationLength = 20,
                                              .sourcePort = 0x5678,
                                              .sourceMask = 0x0ff0,
                                              .destinationPort = 0x1234,
                                              .destinationMask = 0xff00}})
                            .selector;
  EXPECT_EQ(selector.source, at("10.0.0.0"));
  EXPECT_EQ(selector.destination, at("10.1.240.0"));
  EXPECT_EQ(selector.sourcePort, 0x0670);
  EXPECT_EQ(selector.sourcePortMask, 0x0ff0);
  EXPECT_EQ(selector.destinationPort, 0x1200);
  EXPECT_EQ(selector.destinationPortMask, 0xff00);
}

TEST(PolicyDecoder, ReadsPrefixesOfIpv6OfAnyLength) {
  auto const selector = decoded({.selector = {.source = "2001:db8:0:1::7",
                                              .destination = "2001:db8::2",
                                              .sourceLength = 64,
                                              .destinationLength = 128,
                                              .family = 10}})
                            .selector;
  EXPECT_EQ(selector.source, at("2001:db8:0:1::"));
  EXPECT_EQ(selector.sourceLength, 64);
  EXPECT_EQ(selector.destination, at("2001:db8::2"));
  EXPECT_EQ(selector.destinationLength, 128);
  EXPECT_TRUE(isMalformed(decode(
      xfrmMessage(newPolicy, policyInfo({.selector = {.destinationLength = 129, .family = 10}})))));
}

TEST(PolicyDecoder, ReadsAsManyTemplatesAsTheKernelAllows) {
  Octets templates;
  for (std::uint32_t i = 0; i != 6; ++i)
    templates = joined({templates, templateOctets({.reqid = i})});
  auto const policy = decoded({}, attribute(tmpl, templates));
  ASSERT_EQ(policy.templates.size(), 6u);
  EXPECT_EQ(policy.templates[5].reqid, 5u);
}

TEST(PolicyDecoder, ReadsTheEndsOfATunnelInBeetModeAndOfNoneInTransportMode) {
  auto const ofMode = [](std::uint8_t mode) {
    return decoded({}, attribute(tmpl, templateOctets({.mode = mode,
                                                       .source = "192.0.2.1",
                                                       .destination = "192.0.2.2"})))
        .templates.front();
  };
  EXPECT_EQ(ofMode(4).mode, XfrmMode::beet);
  EXPECT_EQ(ofMode(4).source, at("192.0.2.1"));
  EXPECT_EQ(ofMode(4).destination, at("192.0.2.2"));
  EXPECT_EQ(ofMode(0).source, IpGenAddr());
}

TEST(PolicyDecoder, ReadsTemplatesMarkAndInterfaceId) {
  auto const templates = joined({templateOctets({.protocol = 50,
                                                 .mode = 1,
                                                 .source = "192.0.2.1",
                                                 .destination = "192.0.2.2",
                                                 .reqid = 5,
                                                 .spi = 0x12345678}),
                                 templateOctets({.protocol = 108, .optional = 1})});
  auto const policy =
      decoded({}, joined({attribute(tmpl, templates),
                          attribute(mark, joined({native<std::uint32_t>(9), native(UINT32_MAX)})),
                          attribute(ifId, native<std::uint32_t>(42))}));
  ASSERT_EQ(policy.templates.size(), 2u);
  EXPECT_EQ(policy.templates[0], (PolicyTemplate{.protocol = 50,
                                                 .mode = XfrmMode::tunnel,
                                                 .isOptional = false,
                                                 .source = at("192.0.2.1"),
                                                 .destination = at("192.0.2.2"),
                                                 .reqid = 5,
                                                 .spi = 0x12345678}));
  EXPECT_TRUE(policy.templates[1].isOptional);
  EXPECT_EQ(policy.mark, (Mark{9, UINT32_MAX}));
  EXPECT_EQ(policy.ifId, 42u);
}

struct Demand {
  char const * name;
  std::uint8_t action;
  std::vector<Template> templates;
  bool demandsIpsec;
};
class PolicyDemand : public testing::TestWithParam<Demand> {};

TEST_P(PolicyDemand, IsForEspOrAhThatIsNotOptional) {
  Octets templates;
  for (auto const & one : GetParam().templates)
    templates = joined({templates, templateOctets(one)});
  EXPECT_EQ(decoded({.action = GetParam().action}, attribute(tmpl, templates)).demandsIpsec(),
            GetParam().demandsIpsec);
}

INSTANTIATE_TEST_SUITE_P(
    Each, PolicyDemand,
    testing::Values(Demand{"Esp", 0, {{.protocol = 50}}, true},
                    Demand{"Ah", 0, {{.protocol = 51}}, true},
                    Demand{"CompressionAndEsp", 0, {{.protocol = 108}, {.protocol = 50}}, true},
                    Demand{"OptionalEsp", 0, {{.protocol = 50, .optional = 1}}, false},
                    Demand{"CompressionAlone", 0, {{.protocol = 108}}, false},
                    Demand{"Bypass", 0, {}, false}, Demand{"Block", 1, {{.protocol = 50}}, false}),
    [](auto const & one) { return std::string(one.param.name); });

TEST(PolicyDecoder, TakesAnUpdateLikeANewOne) {
  auto const message = decode(xfrmMessage(updPolicy, policyInfo({.priority = 3, .index = 17})));
  EXPECT_EQ(std::get<PolicyIs>(message).policy.priority, 3u);
}

// What a deletion was asked for by stands in front, the policy in an attribute.
TEST(PolicyDecoder, FindsTheDeletedPolicyInTheAttribute) {
  auto const id = joined({selector({}), native<std::uint32_t>(0), {1, 0, 0, 0}});
  auto const message = decode(xfrmMessage(
      delPolicy, id,
      joined({attribute(policy, policyInfo({.index = 17})), attribute(tmpl, templateOctets({}))})));
  EXPECT_EQ(std::get<PolicyGone>(message).index, 17u);
  EXPECT_TRUE(isMalformed(decode(xfrmMessage(delPolicy, id))));
  EXPECT_TRUE(isMalformed(decode(xfrmMessage(delPolicy, id, attribute(policy, Octets(8))))));
}

TEST(PolicyDecoder, SeesTheEndOfAPolicyWhoseTimeIsOver) {
  auto const expired = [](std::uint8_t hard) {
    return decode(
        xfrmMessage(polExpire, joined({policyInfo({.index = 17}), {hard, 0, 0, 0, 0, 0, 0, 0}})));
  };
  EXPECT_EQ(std::get<PolicyGone>(expired(1)).index, 17u);
  EXPECT_TRUE(isOther(expired(0))) << "which is a warning";
}

TEST(PolicyDecoder, SeesAFlushOfTheMainType) {
  EXPECT_TRUE(std::holds_alternative<PoliciesFlushed>(decode(xfrmMessage(flushPolicies, {}))));
  auto const ofType = [](std::uint8_t type) {
    return decode(xfrmMessage(flushPolicies, {}, attribute(policyType, {type, 0, 0, 0, 0, 0})));
  };
  EXPECT_TRUE(std::holds_alternative<PoliciesFlushed>(ofType(0)));
  EXPECT_TRUE(isOther(ofType(1)));
}

TEST(PolicyDecoder, LeavesPoliciesOfSocketsAndOfTheSubTypeAlone) {
  EXPECT_TRUE(isOther(decode(xfrmMessage(newPolicy, policyInfo({.direction = 3})))));
  EXPECT_TRUE(isOther(
      decode(xfrmMessage(newPolicy, policyInfo({}), attribute(policyType, {1, 0, 0, 0, 0, 0})))));
  EXPECT_TRUE(isOther(decode(xfrmMessage(newState, stateInfo({})))));
}

TEST(PolicyDecoder, LeavesTheEndsOfSuchAloneToo) {
  auto const sub = attribute(policyType, {1, 0, 0, 0, 0, 0});
  auto const id = joined({selector({}), native<std::uint32_t>(0), {1, 0, 0, 0}});
  auto const deleted = [&](PolicyInfo const & info, Octets const & more) {
    return decode(xfrmMessage(delPolicy, id, joined({attribute(policy, policyInfo(info)), more})));
  };
  EXPECT_TRUE(std::holds_alternative<PolicyGone>(deleted({}, {})));
  EXPECT_TRUE(isOther(deleted({.direction = 4}, {})));
  EXPECT_TRUE(isOther(deleted({}, sub)));
  auto const expired = [](PolicyInfo const & info, Octets const & more) {
    return decode(
        xfrmMessage(polExpire, joined({policyInfo(info), {1, 0, 0, 0, 0, 0, 0, 0}}), more));
  };
  EXPECT_TRUE(std::holds_alternative<PolicyGone>(expired({}, {})));
  EXPECT_TRUE(isOther(expired({.direction = 4}, {})));
  EXPECT_TRUE(isOther(expired({}, sub)));
}

TEST(PolicyDecoder, FindsAMessageMalformedThatIsCutOffAnywhere) {
  auto const whole = xfrmMessage(newPolicy, policyInfo({}), attribute(tmpl, templateOctets({})));
  for (std::size_t size = 0; size != whole.size(); ++size)
    EXPECT_TRUE(isMalformed(decode(Octets(whole.begin(), whole.begin() + size)))) << size;
}

TEST(PolicyDecoder, SaysWhichPolicyAMalformedMessageIsAbout) {
  auto const reason = [](PolicyInfo const & info, Octets const & attributes) {
    auto const message = decode(xfrmMessage(newPolicy, policyInfo(info), attributes));
    auto const & malformed = std::get<MalformedMessage>(message);
    EXPECT_EQ(malformed.index, 17u);
    return malformed.reason;
  };
  EXPECT_EQ(reason({.selector = {.sourceLength = 33}, .index = 17}, {}),
            "its prefixes have 33 and 32 bits, where 32 are most");
  EXPECT_EQ(reason({.selector = {.family = 7}, .index = 17}, {}), "7 is no address family");
  EXPECT_EQ(reason({.index = 17}, attribute(tmpl, Octets(63))), "its templates have 63 bytes");
  EXPECT_EQ(reason({.index = 17}, attribute(tmpl, Octets(7 * 64))), "its templates have 448 bytes");
  EXPECT_THAT(reason({.index = 17}, attribute(mark, Octets(4))), HasSubstr("attribute 21"));
  EXPECT_THAT(reason({.index = 17}, attribute(ifId, Octets(2))), HasSubstr("attribute 31"));
  EXPECT_THAT(reason({.index = 17}, Octets{200, 0, 5, 0}), HasSubstr("does not fit"));
}

} // namespace
} // namespace Sources::Linux
