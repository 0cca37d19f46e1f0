// Traffic selectors as strongSwan prints them.
#include "sources/ike/Selector.h"
#include <gtest/gtest.h>

namespace {

using Plexa::IpGenAddr;
using Sources::Ike::Selector;
using Sources::Ike::selectorFromText;

IpGenAddr address(std::string_view text) {
  return IpGenAddr::fromString(text).value();
}

Selector range(std::string_view first, std::string_view last, std::uint8_t protocol = 0) {
  return {.first = address(first), .last = address(last), .protocol = protocol};
}

TEST(Selector, IsANetwork) {
  EXPECT_EQ(selectorFromText("10.9.0.0/24"), range("10.9.0.0", "10.9.0.255"));
  EXPECT_EQ(selectorFromText("10.9.0.64/27"), range("10.9.0.64", "10.9.0.95"));
  EXPECT_EQ(selectorFromText("0.0.0.0/0"), range("0.0.0.0", "255.255.255.255"));
  EXPECT_EQ(selectorFromText("2001:db8::/33"),
            range("2001:db8::", "2001:db8:7fff:ffff:ffff:ffff:ffff:ffff"));
  EXPECT_EQ(selectorFromText("::/0"), range("::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
  EXPECT_EQ(selectorFromText("10.9.0.77/24"), range("10.9.0.0", "10.9.0.255")) << "bits beyond";
}

TEST(Selector, IsAHost) {
  for (auto const * text : {"10.9.0.1/32", "10.9.0.1", "2001:db8::1/128"}) {
    ASSERT_TRUE(selectorFromText(text)) << text;
    EXPECT_TRUE(selectorFromText(text)->isHost()) << text;
  }
  EXPECT_FALSE(selectorFromText("10.9.0.0/31")->isHost());
  EXPECT_FALSE(selectorFromText("dynamic")->isHost());
}

TEST(Selector, IsARange) {
  EXPECT_EQ(selectorFromText("10.0.0.1..10.0.0.9"), range("10.0.0.1", "10.0.0.9"));
  EXPECT_EQ(selectorFromText("2001:db8::1..2001:db8::ff"), range("2001:db8::1", "2001:db8::ff"));
  EXPECT_EQ(selectorFromText("10.0.0.9..10.0.0.9"), range("10.0.0.9", "10.0.0.9"));
  EXPECT_EQ(selectorFromText("10.0.0.9..10.0.0.1"), std::nullopt);
  EXPECT_EQ(selectorFromText("10.0.0.9..2001:db8::1"), std::nullopt);
}

TEST(Selector, IsDynamic) {
  EXPECT_TRUE(selectorFromText("dynamic")->isDynamic());
  EXPECT_EQ(selectorFromText("dynamic[gre]"), Selector{.protocol = 47});
}

TEST(Selector, HasAProtocolByNameOrNumber) {
  std::pair<char const *, int> const all[] = {
      {"gre", 47},  {"GRE", 47},       {"47", 47},  {"ipencap", 4},  {"ipv4", 4},
      {"4", 4},     {"ipv6", 41},      {"41", 41},  {"udp", 17},     {"tcp", 6},
      {"icmp", 1},  {"ipv6-icmp", 58}, {"esp", 50}, {"ah", 51},      {"0", 0},
      {"255", 255}, {"ipip", 94},      {"ip", 0},   {"ip-encap", 4}, {"icmpv6", 58}};
  for (auto const & [name, number] : all) {
    auto const selector = selectorFromText("10.9.0.1/32[" + std::string(name) + "]");
    EXPECT_EQ(selector, range("10.9.0.1", "10.9.0.1", static_cast<std::uint8_t>(number))) << name;
  }
}

TEST(Selector, HasPorts) {
  auto expected = range("10.9.0.1", "10.9.0.1", 17);
  EXPECT_EQ(selectorFromText("10.9.0.1/32[udp/OPAQUE]"), expected);
  expected.firstPort = expected.lastPort = 4789;
  EXPECT_EQ(selectorFromText("10.9.0.1/32[udp/4789]"), expected);
  expected.firstPort = 1000;
  expected.lastPort = 2000;
  EXPECT_EQ(selectorFromText("10.9.0.1/32[17/1000-2000]"), expected);
}

TEST(Selector, IsNothingElse) {
  for (auto const * text : {"",
                            "x",
                            "/24",
                            "10.9.0.1/",
                            "10.9.0.1/33",
                            "2001:db8::/129",
                            "10.9.0.1/-1",
                            "10.9.0.1/3x",
                            "10.9.0/24",
                            "..",
                            "10.0.0.1..",
                            "..10.0.0.1",
                            "10.0.0.1..x",
                            "[gre]",
                            "10.9.0.1/32[",
                            "10.9.0.1/32[]",
                            "10.9.0.1/32]",
                            "10.9.0.1/32[gre",
                            "10.9.0.1/32[gre]x",
                            "10.9.0.1/32[frob]",
                            "10.9.0.1/32[256]",
                            "10.9.0.1/32[tcp/http]",
                            "10.9.0.1/32[udp/]",
                            "10.9.0.1/32[udp/65536]",
                            "10.9.0.1/32[udp/9-1]",
                            "10.9.0.1/32[udp/1-]",
                            "dynamicx"})
    EXPECT_EQ(selectorFromText(text), std::nullopt) << text;
}

TEST(Selector, CoversItsRangeOfItsFamily) {
  auto const network = selectorFromText("10.9.0.64/27").value();
  EXPECT_FALSE(network.covers(address("10.9.0.63")));
  EXPECT_TRUE(network.covers(address("10.9.0.64")));
  EXPECT_TRUE(network.covers(address("10.9.0.95")));
  EXPECT_FALSE(network.covers(address("10.9.0.96")));
  EXPECT_FALSE(selectorFromText("0.0.0.0/0")->covers(address("::1")));
  EXPECT_TRUE(selectorFromText("::/0")->covers(address("2001:db8::1")));
  EXPECT_FALSE(selectorFromText("dynamic")->covers(address("10.9.0.1")));
  EXPECT_FALSE(selectorFromText("dynamic")->covers(IpGenAddr()));
  EXPECT_FALSE(network.covers(IpGenAddr()));
}

} // namespace
