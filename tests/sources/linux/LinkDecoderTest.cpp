// Messages as the kernel sends them for each kind, and messages that it would not send.
//
// Attribute numbers stand as they are on the wire, with their meaning beside them.
#include "sources/linux/LinkDecoder.h"
#include "tests/sources/linux/LinkBytes.h"
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <ostream>

namespace Sources::Linux {

void PrintTo(TunnelLink const & link, std::ostream * out) {
  *out << link.index << " " << link.name << " " << kindName(link.kind) << " "
       << link.status.srcAddr.stringValue() << " -> " << link.status.dstAddr.stringValue() << " "
       << valueToStrep(link.status.mode) << " hop limit " << +link.status.hopLimit << " tos "
       << +link.status.tos << (link.status.ipsec ? " ipsec" : "")
       << fmt::format(" if_id {} keys {} {} lower {} port {} {}", link.ifId.value_or(0),
                      link.inputKey.value_or(0), link.outputKey.value_or(0), link.lower.value_or(0),
                      link.port.value_or(0), link.isCarriedElsewhere ? "elsewhere" : "here");
}

namespace {

using namespace LinkBytes;
using Plexa::IpGenAddr;
using Plexa::TunnelIntfMode;

constexpr DefaultHopLimits defaults{61, 62};
constexpr int index = 5;

Octets const v4local{10, 0, 0, 1};
Octets const v4remote{10, 0, 0, 2};
Octets const v4zero{0, 0, 0, 0};
Octets const v6local{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
Octets const v6remote{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
Octets const v6zero(16, 0);

LinkMessage decode(Octets const & octets) {
  return decodeLink(bytes(octets), defaults);
}

/// What a NEWLINK of that kind and data is decoded to; fails when it is no tunnel.
std::optional<TunnelLink> tunnel(std::string_view kind, Octets const & data,
                                 std::string_view name = "t1") {
  auto const decoded = decode(message(newLink, unspecified, index, link(name, kind, data)));
  auto const * const state = std::get_if<LinkState>(&decoded);
  EXPECT_NE(state, nullptr);
  if (state == nullptr)
    return std::nullopt;
  EXPECT_EQ(state->index, 5u);
  return state->tunnel;
}

/// The tunnel over IPv4 from 10.0.0.1 to 10.0.0.2 or over IPv6 from 2001:db8::1 to 2001:db8::2.
TunnelLink expected(TunnelKind kind, TunnelIntfMode mode, int version, std::uint8_t hopLimit,
                    std::uint8_t tos, bool ipsec = false) {
  return {.index = 5,
          .name = "t1",
          .kind = kind,
          .status = {.srcAddr = *IpGenAddr::fromString(version == 4 ? "10.0.0.1" : "2001:db8::1"),
                     .dstAddr = *IpGenAddr::fromString(version == 4 ? "10.0.0.2" : "2001:db8::2"),
                     .mode = mode,
                     .hopLimit = hopLimit,
                     .tos = tos,
                     .ipsec = ipsec}};
}

bool isMalformed(LinkMessage const & decoded) {
  return std::holds_alternative<MalformedMessage>(decoded);
}

/// gre, gretap, erspan: local, remote, ttl, tos.
Octets greData(std::uint8_t ttl, std::uint8_t tos) {
  return joined({attribute(1, native<std::uint32_t>(0)), attribute(2, {0x20, 0}),
                 attribute(4, {0, 0, 0, 9}), attribute(6, v4local), attribute(7, v4remote),
                 attribute(8, {ttl}), attribute(9, {tos}), attribute(10, {1})});
}

/// What greData() is decoded to.
TunnelLink expectedGre(TunnelKind kind, TunnelIntfMode mode, std::uint8_t tos) {
  auto link = expected(kind, mode, 4, 64, tos);
  link.inputKey = 9;
  return link;
}

TEST(LinkDecoder, ReadsGre) {
  EXPECT_EQ(tunnel("gre", greData(64, 0x88)),
            expectedGre(TunnelKind::gre, TunnelIntfMode::gre, 0x22));
}

TEST(LinkDecoder, ReadsTheKindsThatAreBuiltLikeGre) {
  EXPECT_EQ(tunnel("gretap", greData(64, 0x88)),
            expectedGre(TunnelKind::gretap, TunnelIntfMode::gre, 0x22));
  EXPECT_EQ(tunnel("erspan", greData(64, 0x88)),
            expectedGre(TunnelKind::erspan, TunnelIntfMode::erspan, 0x22));
}

TEST(LinkDecoder, GivesZeroForATtlThatIsCopiedFromThePayload) {
  EXPECT_EQ(tunnel("gre", greData(0, 0))->status.hopLimit, 0);
}

TEST(LinkDecoder, GivesZeroForATosThatIsCopiedFromThePayload) {
  EXPECT_EQ(tunnel("gre", greData(64, 0x01))->status.tos, 0);
  EXPECT_EQ(tunnel("gre", greData(64, 0x89))->status.tos, 0);
  EXPECT_EQ(tunnel("gre", greData(64, 0xfc))->status.tos, 63);
  EXPECT_EQ(tunnel("gre", greData(64, 0x02))->status.tos, 0) << "the lower two bits are no DSCP";
}

TEST(LinkDecoder, GivesTheEmptyAddressForAnEndpointThatIsZeroOrMissing) {
  auto const zero = tunnel("gre", joined({attribute(6, v4zero), attribute(7, v4remote)}));
  EXPECT_EQ(zero->status.srcAddr, IpGenAddr());
  EXPECT_EQ(zero->status.dstAddr, *IpGenAddr::fromString("10.0.0.2"));
  auto const missing = tunnel("gre", attribute(6, v4local));
  EXPECT_EQ(missing->status.srcAddr, *IpGenAddr::fromString("10.0.0.1"));
  EXPECT_EQ(missing->status.dstAddr, IpGenAddr());
  auto const v6 = tunnel("ip6gre", joined({attribute(6, v6zero), attribute(7, v6zero)}));
  EXPECT_EQ(v6->status.srcAddr, IpGenAddr());
  EXPECT_EQ(v6->status.dstAddr, IpGenAddr());
}

TEST(LinkDecoder, GivesExternalLinksNoEndpoints) {
  auto const flag = attribute(18, {});
  auto const link = tunnel("gre", joined({greData(64, 0), flag}));
  EXPECT_EQ(link->status.srcAddr, IpGenAddr());
  EXPECT_EQ(link->status.dstAddr, IpGenAddr());
  EXPECT_EQ(link->status.hopLimit, 64);
}

/// ip6gre, ip6gretap, ip6erspan: local, remote, hop limit, encapsulation limit, flow information
/// with traffic class 0x28 and label 0x12345, flags.
Octets ip6greData(std::uint32_t flags) {
  return joined({attribute(6, v6local), attribute(7, v6remote), attribute(8, {63}),
                 attribute(11, {4}), attribute(12, {0x02, 0x81, 0x23, 0x45}),
                 attribute(13, native(flags))});
}

TEST(LinkDecoder, ReadsIp6greWithTheTrafficClassFromItsBigEndianFlowInformation) {
  EXPECT_EQ(tunnel("ip6gre", ip6greData(0)),
            expected(TunnelKind::ip6gre, TunnelIntfMode::gre, 6, 63, 0x0a));
  EXPECT_EQ(tunnel("ip6gretap", ip6greData(0)),
            expected(TunnelKind::ip6gretap, TunnelIntfMode::gre, 6, 63, 0x0a));
  EXPECT_EQ(tunnel("ip6erspan", ip6greData(0)),
            expected(TunnelKind::ip6erspan, TunnelIntfMode::erspan, 6, 63, 0x0a));
}

TEST(LinkDecoder, GivesZeroForATrafficClassThatIsCopiedFromThePayload) {
  EXPECT_EQ(tunnel("ip6gre", ip6greData(0x2))->status.tos, 0);
  EXPECT_EQ(tunnel("ip6gre", ip6greData(0x30001))->status.tos, 0x0a) << "other flags do not matter";
}

/// ipip, sit: local, remote, ttl, tos, protocol.
Octets ipInIpv4Data(Octets const & remote, std::uint16_t flags) {
  return joined({attribute(1, native<std::uint32_t>(0)), attribute(2, v4local),
                 attribute(3, remote), attribute(4, {32}), attribute(5, {0x20}),
                 attribute(8, native(flags)), attribute(9, {4})});
}
/// 6rd prefix 2002::/16 without a relay, which each sit link has from the beginning.
Octets const sixToFour = joined(
    {attribute(11, {0x20, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), attribute(12, v4zero),
     attribute(13, native<std::uint16_t>(16)), attribute(14, native<std::uint16_t>(0))});

TEST(LinkDecoder, ReadsIpip) {
  EXPECT_EQ(tunnel("ipip", ipInIpv4Data(v4remote, 0)),
            expected(TunnelKind::ipip, TunnelIntfMode::direct, 4, 32, 8));
}

TEST(LinkDecoder, ReadsSit) {
  EXPECT_EQ(tunnel("sit", joined({ipInIpv4Data(v4remote, 0), sixToFour})),
            expected(TunnelKind::sit, TunnelIntfMode::direct, 4, 32, 8));
}

TEST(LinkDecoder, TellsIsatapFromOtherSit) {
  EXPECT_EQ(tunnel("sit", joined({ipInIpv4Data(v4remote, 0x0001), sixToFour})),
            expected(TunnelKind::sit, TunnelIntfMode::sitSpecial, 4, 32, 8));
}

TEST(LinkDecoder, TakesSitWithoutARemoteEndpointFor6rdOr6to4) {
  auto link = expected(TunnelKind::sit, TunnelIntfMode::sitSpecial, 4, 32, 8);
  link.status.dstAddr = IpGenAddr();
  EXPECT_EQ(tunnel("sit", joined({ipInIpv4Data(v4zero, 0), sixToFour})), link);
}

TEST(LinkDecoder, ReadsIp6tnl) {
  auto const data = [](std::uint32_t flags) {
    return joined({attribute(2, v6local), attribute(3, v6remote), attribute(4, {63}),
                   attribute(6, {4}), attribute(7, {0x0f, 0xc0, 0, 0}),
                   attribute(8, native<std::uint32_t>(flags)), attribute(9, {0})});
  };
  EXPECT_EQ(tunnel("ip6tnl", data(0x30000)),
            expected(TunnelKind::ip6tnl, TunnelIntfMode::direct, 6, 63, 63));
  EXPECT_EQ(tunnel("ip6tnl", data(0x30002))->status.tos, 0);
}

TEST(LinkDecoder, ReadsVtiAsIpsecWithTheHopLimitOfTheSystem) {
  auto const data = [](Octets const & local, Octets const & remote) {
    return joined({attribute(2, {0, 0, 0, 9}), attribute(3, {0, 0, 0, 9}), attribute(4, local),
                   attribute(5, remote)});
  };
  auto vti = expected(TunnelKind::vti, TunnelIntfMode::vti, 4, 61, 0, true);
  auto vti6 = expected(TunnelKind::vti6, TunnelIntfMode::vti, 6, 62, 0, true);
  vti.inputKey = vti.outputKey = vti6.inputKey = vti6.outputKey = 9;
  EXPECT_EQ(tunnel("vti", data(v4local, v4remote)), vti);
  EXPECT_EQ(tunnel("vti6", data(v6local, v6remote)), vti6);
  EXPECT_EQ(tunnel("vti6", data(v6zero, v6zero))->status.hopLimit, 62);
}

TEST(LinkDecoder, ReadsXfrmAsIpsecWithoutEndpoints) {
  auto const data =
      joined({attribute(1, native<std::uint32_t>(1)), attribute(2, native<std::uint32_t>(42))});
  auto link = expected(TunnelKind::xfrm, TunnelIntfMode::xfrm, 4, 61, 0, true);
  link.status.srcAddr = link.status.dstAddr = IpGenAddr();
  link.ifId = 42;
  EXPECT_EQ(tunnel("xfrm", data), link);
}

TEST(LinkDecoder, ReadsTheKeysOfGreWhereItsFlagsSayThatThereAreSome) {
  auto const gre = [](Octets const & inputFlags, Octets const & outputFlags) {
    return tunnel("gre",
                  joined({attribute(2, inputFlags), attribute(3, outputFlags),
                          attribute(4, {0x12, 0x34, 0x56, 0x78}), attribute(5, {0, 0, 0, 0})}));
  };
  auto const both = gre({0x30, 0}, {0x20, 0}); // with sequence numbers on input
  EXPECT_EQ(both->inputKey, 0x12345678u);
  EXPECT_EQ(both->outputKey, 0u) << "a key may be 0";
  auto const neither = gre({0x10, 0}, {0, 0});
  EXPECT_EQ(neither->inputKey, std::nullopt);
  EXPECT_EQ(neither->outputKey, std::nullopt);
  auto const v6 = tunnel("ip6gre", joined({attribute(2, {0x20, 0}), attribute(4, {0, 0, 1, 0})}));
  EXPECT_EQ(v6->inputKey, 256u);
  EXPECT_EQ(v6->outputKey, std::nullopt);
}

TEST(LinkDecoder, ReadsTheKeysOfVtiOfWhichZeroIsNone) {
  auto const vti = tunnel("vti", joined({attribute(2, {0, 0, 2, 1}), attribute(3, {0, 0, 0, 0})}));
  EXPECT_EQ(vti->inputKey, 513u);
  EXPECT_EQ(vti->outputKey, std::nullopt);
  EXPECT_EQ(vti->ifId, std::nullopt);
  EXPECT_EQ(tunnel("ipip", joined({attribute(2, v4local)}))->inputKey, std::nullopt);
}

/// What the link of kind ipip is bound to, by the attributes around its link information.
std::optional<std::uint32_t> lowerOf(Octets const & attributes) {
  auto const decoded =
      decode(message(newLink, unspecified, index, joined({attributes, link("t1", "ipip", {})})));
  return std::get<LinkState>(decoded).tunnel->lower;
}

TEST(LinkDecoder, ReadsWhichLinkCarriesTheOuterPackets) {
  EXPECT_EQ(lowerOf(attribute(5, native<std::uint32_t>(7))), 7u);
  EXPECT_EQ(lowerOf(attribute(5, native<std::uint32_t>(0))), std::nullopt) << "bound to none";
  EXPECT_EQ(lowerOf({}), std::nullopt);
  EXPECT_EQ(lowerOf(joined(
                {attribute(5, native<std::uint32_t>(7)), attribute(37, native<std::uint32_t>(0))})),
            std::nullopt)
      << "in another namespace";
  EXPECT_EQ(tunnel("vxlan", attribute(3, native<std::uint32_t>(8)))->lower, 8u)
      << "this kind says it among its own data";
}

TEST(LinkDecoder, SaysWhenTheOuterPacketsLeaveInAnotherNamespace) {
  auto const isElsewhere = [](Octets const & attributes) {
    auto const decoded =
        decode(message(newLink, unspecified, index, joined({attributes, link("t1", "gre", {})})));
    return std::get<LinkState>(decoded).tunnel->isCarriedElsewhere;
  };
  EXPECT_TRUE(isElsewhere(attribute(37, native<std::int32_t>(0))));
  EXPECT_FALSE(isElsewhere(attribute(5, native<std::uint32_t>(7))));
}

TEST(LinkDecoder, ReadsTheBigEndianPortOfTheKindsOverUdp) {
  EXPECT_EQ(tunnel("vxlan", attribute(15, {0x12, 0xb5}))->port, 4789);
  EXPECT_EQ(tunnel("geneve", attribute(5, {0x17, 0xc1}))->port, 6081);
  EXPECT_EQ(tunnel("vxlan", {})->port, std::nullopt);
  EXPECT_EQ(tunnel("gre", attribute(5, {0, 0, 0, 9}))->port, std::nullopt)
      << "which is its output key";
}

/// The attributes of vxlan that do not depend on the version of IP: id, ttl, tos, external, ttl
/// inherit.
Octets vxlanData(std::uint8_t ttl, bool external, bool inherit) {
  return joined({attribute(1, native<std::uint32_t>(100)), attribute(5, {ttl}),
                 attribute(6, {0x88}), attribute(25, {external}), attribute(28, {inherit})});
}

TEST(LinkDecoder, ReadsVxlanOverIpv4) {
  auto const endpoints = joined({attribute(4, v4local), attribute(2, v4remote)});
  EXPECT_EQ(tunnel("vxlan", joined({vxlanData(7, false, false), endpoints})),
            expected(TunnelKind::vxlan, TunnelIntfMode::vxlan, 4, 7, 0x22));
  EXPECT_EQ(tunnel("vxlan", joined({vxlanData(0, false, false), endpoints}))->status.hopLimit, 61);
}

TEST(LinkDecoder, ReadsVxlanOverIpv6) {
  auto const endpoints = joined({attribute(17, v6local), attribute(16, v6remote)});
  EXPECT_EQ(tunnel("vxlan", joined({vxlanData(7, false, false), endpoints})),
            expected(TunnelKind::vxlan, TunnelIntfMode::vxlan, 6, 7, 0x22));
  EXPECT_EQ(tunnel("vxlan", joined({vxlanData(0, false, false), endpoints}))->status.hopLimit, 62);
}

TEST(LinkDecoder, TellsATtlThatVxlanInheritsFromOneThatTheSystemGives) {
  EXPECT_EQ(tunnel("vxlan", vxlanData(0, false, true))->status.hopLimit, 0);
  EXPECT_EQ(tunnel("vxlan", vxlanData(0, false, false))->status.hopLimit, 61);
}

TEST(LinkDecoder, SeesExternalVxlanByTheValueNotByThePresenceOfTheAttribute) {
  auto const endpoints = joined({attribute(4, v4local), attribute(2, v4remote)});
  EXPECT_EQ(tunnel("vxlan", joined({endpoints, vxlanData(7, true, false)}))->status.dstAddr,
            IpGenAddr());
  EXPECT_NE(tunnel("vxlan", joined({endpoints, vxlanData(7, false, false)}))->status.dstAddr,
            IpGenAddr());
}

TEST(LinkDecoder, ReadsGeneve) {
  auto const rest = joined({attribute(1, native<std::uint32_t>(100)), attribute(3, {7}),
                            attribute(4, {0x88}), attribute(12, {0})});
  auto link = expected(TunnelKind::geneve, TunnelIntfMode::geneve, 4, 7, 0x22);
  link.status.srcAddr = IpGenAddr();
  EXPECT_EQ(tunnel("geneve", joined({rest, attribute(2, v4remote)})), link);
  link.status.dstAddr = *IpGenAddr::fromString("2001:db8::2");
  EXPECT_EQ(tunnel("geneve", joined({rest, attribute(7, v6remote)})), link);
  EXPECT_EQ(tunnel("geneve", joined({attribute(3, {0}), attribute(12, {1})}))->status.hopLimit, 0);
  EXPECT_EQ(tunnel("geneve", joined({attribute(3, {0}), attribute(12, {0})}))->status.hopLimit, 61);
  EXPECT_EQ(
      tunnel("geneve", joined({rest, attribute(2, v4remote), attribute(6, {})}))->status.dstAddr,
      IpGenAddr());
}

TEST(LinkDecoder, ReadsWireguardThatSendsNoData) {
  auto const octets =
      message(newLink, unspecified, index,
              joined({attribute(3, text("t1")), attribute(18, attribute(1, text("wireguard")))}));
  auto const decoded = decode(octets);
  auto link = expected(TunnelKind::wireguard, TunnelIntfMode::wireguard, 4, 61, 0);
  link.status.srcAddr = link.status.dstAddr = IpGenAddr();
  EXPECT_EQ(std::get<LinkState>(decoded).tunnel, link);
}

TEST(LinkDecoder, ReadsNestedAttributesThatAreMarkedAsSuch) {
  constexpr std::uint16_t nestedFlag = 0x8000;
  auto const info = joined({attribute(1, text("gre")), attribute(2 | nestedFlag, greData(64, 0))});
  auto const decoded =
      decode(message(newLink, unspecified, index,
                     joined({attribute(3, text("t1")), attribute(18 | nestedFlag, info)})));
  EXPECT_EQ(std::get<LinkState>(decoded).tunnel,
            expectedGre(TunnelKind::gre, TunnelIntfMode::gre, 0));
}

TEST(LinkDecoder, ReadsAKindWhoseNameIsNotTerminated) {
  auto const info = joined({attribute(1, {'g', 'r', 'e'}), attribute(2, greData(64, 0))});
  auto const decoded = decode(message(newLink, unspecified, index,
                                      joined({attribute(3, {'t', '1'}), attribute(18, info)})));
  EXPECT_EQ(std::get<LinkState>(decoded).tunnel,
            expectedGre(TunnelKind::gre, TunnelIntfMode::gre, 0));
}

TEST(LinkDecoder, SkipsAttributesOfTypesThatItDoesNotKnow) {
  auto const strange = joined({attribute(31, {1}), attribute(32, {2}), attribute(0x3fff, {3})});
  EXPECT_EQ(tunnel("gre", joined({strange, greData(64, 0), strange})),
            expectedGre(TunnelKind::gre, TunnelIntfMode::gre, 0));
}

struct Fallback {
  char const * name;
  char const * kind;
};
class FallbackDevice : public testing::TestWithParam<Fallback> {};

TEST_P(FallbackDevice, IsNoTunnel) {
  auto const [name, kind] = GetParam();
  EXPECT_EQ(tunnel(kind, {}, name), std::nullopt);
  EXPECT_NE(tunnel(kind, {}, "t1"), std::nullopt) << "only by that name";
}

INSTANTIATE_TEST_SUITE_P(Each, FallbackDevice,
                         testing::Values(Fallback{"gre0", "gre"}, Fallback{"gretap0", "gretap"},
                                         Fallback{"erspan0", "erspan"}, Fallback{"tunl0", "ipip"},
                                         Fallback{"sit0", "sit"}, Fallback{"ip6tnl0", "ip6tnl"},
                                         Fallback{"ip6gre0", "ip6gre"}, Fallback{"ip_vti0", "vti"},
                                         Fallback{"ip6_vti0", "vti6"}),
                         [](auto const & one) { return std::string(one.param.name); });

TEST(LinkDecoder, TakesALinkNamedLikeAFallbackDeviceForATunnelWhenItIsSetUp) {
  EXPECT_NE(tunnel("gre", greData(64, 0), "gre0"), std::nullopt) << "it has endpoints";
  EXPECT_NE(tunnel("gre", attribute(18, {}), "gre0"), std::nullopt) << "it is external";
  EXPECT_NE(tunnel("ipip", {}, "gre0"), std::nullopt) << "it is another kind's name";
}

TEST(LinkDecoder, SeesNoTunnelInOtherLinks) {
  EXPECT_EQ(tunnel("bridge", {}), std::nullopt);
  auto const plain = decode(message(newLink, unspecified, 1, attribute(3, text("lo"))));
  EXPECT_EQ(std::get<LinkState>(plain).index, 1u);
  EXPECT_EQ(std::get<LinkState>(plain).tunnel, std::nullopt);
}

TEST(LinkDecoder, SeesTheEndOfALink) {
  auto const decoded =
      decode(message(delLink, unspecified, index, link("t1", "gre", greData(64, 0))));
  EXPECT_EQ(std::get<LinkState>(decoded).index, 5u);
  EXPECT_EQ(std::get<LinkState>(decoded).tunnel, std::nullopt);
}

TEST(LinkDecoder, DoesNotTakeTheEndOfABridgeMembershipForTheEndOfTheLink) {
  for (auto const type : {newLink, delLink})
    EXPECT_TRUE(std::holds_alternative<OtherMessage>(
        decode(message(type, bridge, index, attribute(3, text("t1"))))));
}

TEST(LinkDecoder, LeavesMessagesOfOtherTypesAlone) {
  EXPECT_TRUE(
      std::holds_alternative<OtherMessage>(decode(message(newAddress, unspecified, index, {}))));
}

TEST(LinkDecoder, IgnoresWhatFollowsTheMessage) {
  auto octets = message(newLink, unspecified, index, link("t1", "gre", greData(64, 0)));
  octets.insert(octets.end(), {0xff, 0xff, 0xff, 0xff, 0xff});
  EXPECT_EQ(std::get<LinkState>(decode(octets)).tunnel,
            expectedGre(TunnelKind::gre, TunnelIntfMode::gre, 0));
}

TEST(LinkDecoder, FindsAMessageMalformedThatIsCutOffAnywhere) {
  auto const whole = message(newLink, unspecified, index, link("t1", "gre", greData(64, 0)));
  for (std::size_t size = 0; size != whole.size(); ++size)
    EXPECT_TRUE(isMalformed(decode(Octets(whole.begin(), whole.begin() + size)))) << size;
}

TEST(LinkDecoder, FindsAMessageMalformedWhoseAttributesAreCutOff) {
  auto const whole = message(newLink, unspecified, index, link("t1", "gre", greData(64, 0)));
  constexpr std::size_t headers = 32;
  constexpr std::size_t name = 8; // the attribute that comes first
  for (std::size_t size = 0; size != whole.size(); ++size) {
    Octets cut(whole.begin(), whole.begin() + size);
    if (size < sizeof(std::uint32_t))
      continue;
    auto const length = native(static_cast<std::uint32_t>(size));
    std::copy(length.begin(), length.end(), cut.begin());
    auto const betweenAttributes = size == headers || size == headers + name;
    // After seven bytes of eight the name is there, and only its padding is not.
    auto const inPadding = size == headers + name - 1;
    EXPECT_EQ(isMalformed(decode(cut)), !betweenAttributes && !inPadding) << size;
  }
}

TEST(LinkDecoder, SaysWhichLinkAMalformedMessageIsAbout) {
  auto const decoded = decode(
      message(newLink, unspecified, index, link("t1", "gre", attribute(6, {10, 0, 0, 1, 0}))));
  EXPECT_EQ(std::get<MalformedMessage>(decoded).index, 5u);
  EXPECT_EQ(std::get<MalformedMessage>(decoded).reason,
            "attribute 6 is no address: it has 5 bytes instead of 4");
}

TEST(LinkDecoder, FindsValuesMalformedThatAreTooShort) {
  auto const malformed = [](std::string_view kind, Octets const & data) {
    return isMalformed(decode(message(newLink, unspecified, index, link("t1", kind, data))));
  };
  EXPECT_TRUE(malformed("gre", attribute(8, {}))) << "ttl";
  EXPECT_TRUE(malformed("gre", attribute(9, {}))) << "tos";
  EXPECT_TRUE(malformed("gre", attribute(7, {10, 0, 0}))) << "remote";
  EXPECT_TRUE(malformed("ip6gre", attribute(6, v4local))) << "an address of the other family";
  EXPECT_TRUE(malformed("ip6gre", attribute(12, {0x02, 0x81}))) << "flow information";
  EXPECT_TRUE(malformed("ip6gre", attribute(13, {0}))) << "flags";
  EXPECT_TRUE(malformed("sit", attribute(8, {1}))) << "flags";
  EXPECT_TRUE(malformed("gre", attribute(2, {0x20}))) << "input flags";
  EXPECT_TRUE(malformed("gre", joined({attribute(3, {0x20, 0}), attribute(5, {1})}))) << "a key";
  EXPECT_TRUE(malformed("xfrm", attribute(2, {42, 0}))) << "if_id";
  EXPECT_TRUE(malformed("vxlan", attribute(15, {0x12}))) << "a port";
  EXPECT_FALSE(malformed("gre", {}));
}

TEST(LinkDecoder, FindsAttributesMalformedWhoseLengthsAreImpossible) {
  for (std::uint16_t const length : {0, 3, 9, 0xffff}) {
    auto one = attribute(3, {'a', 'b', 'c', 0});
    auto const octets = native(length);
    std::copy(octets.begin(), octets.end(), one.begin());
    EXPECT_TRUE(isMalformed(decode(message(newLink, unspecified, index, one)))) << length;
  }
}

TEST(LinkDecoder, FindsAnIndexMalformedThatIsNotPositive) {
  EXPECT_TRUE(isMalformed(decode(message(newLink, unspecified, 0, {}))));
  EXPECT_TRUE(isMalformed(decode(message(delLink, unspecified, -1, {}))));
}

} // namespace
} // namespace Sources::Linux
