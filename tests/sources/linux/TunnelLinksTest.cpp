// Each kind of tunnel link through its life, wherever the running kernel has the kind.
#include "tests/sources/linux/KernelLinks.h"
#include <fmt/format.h>

namespace {

using nlohmann::json;

struct Life {
  char const * name;
  char const * kind;
  char const * created; ///< what follows `ip link add t1 type KIND`
  json status;          ///< what is then published
  char const * changed; ///< what follows `ip link set t1 type KIND`; null: nothing can change
  json difference;      ///< the members that then differ
};

void PrintTo(Life const & life, std::ostream * out) {
  *out << "ip link add t1 type " << life.kind << " " << life.created;
}

json shown(char const * local, char const * remote, char const * mode, int hopLimit, int tos,
           bool ipsec = false) {
  return {{"srcAddr", local},     {"dstAddr", remote}, {"mode", mode},
          {"hopLimit", hopLimit}, {"tos", tos},        {"ipsec", ipsec}};
}

// The hop limit 64 of vti and xfrm is what Linux begins with in a new namespace.
std::vector<Life> const lives{
    {"gre",
     "gre",
     "local 10.0.0.1 remote 10.0.0.2 ttl 32 tos 0x88",
     shown("10.0.0.1", "10.0.0.2", "gre", 32, 0x22),
     "remote 10.0.0.3 ttl 33 tos inherit",
     {{"dstAddr", "10.0.0.3"}, {"hopLimit", 33}, {"tos", 0}}},
    {"greInherit",
     "gre",
     "local 10.0.0.1 remote 10.0.0.2 ttl inherit",
     shown("10.0.0.1", "10.0.0.2", "gre", 0, 0),
     "ttl 9",
     {{"hopLimit", 9}}},
    {"greExternal", "gre", "external", shown("", "", "gre", 0, 0), nullptr, {}},
    {"ip6gre",
     "ip6gre",
     "local 2001:db8::1 remote 2001:db8::2 hoplimit 32 tclass 0x88 flowlabel 0x12345",
     shown("2001:db8::1", "2001:db8::2", "gre", 32, 0x22),
     "remote 2001:db8::3 tclass inherit",
     {{"dstAddr", "2001:db8::3"}, {"tos", 0}}},
    {"ipip",
     "ipip",
     "local 10.0.0.1 remote 10.0.0.2 ttl 32 tos 0x88",
     shown("10.0.0.1", "10.0.0.2", "direct", 32, 0x22),
     "local 10.0.0.4 ttl 33",
     {{"srcAddr", "10.0.0.4"}, {"hopLimit", 33}}},
    {"sit",
     "sit",
     "local 10.0.0.1 remote 10.0.0.2 ttl 32 tos 0x88",
     shown("10.0.0.1", "10.0.0.2", "direct", 32, 0x22),
     "remote 10.0.0.3 tos 0x20",
     {{"dstAddr", "10.0.0.3"}, {"tos", 8}}},
    {"sitIsatap",
     "sit",
     "local 10.0.0.1 remote 10.0.0.2 ttl 32 isatap",
     shown("10.0.0.1", "10.0.0.2", "sitSpecial", 32, 0),
     nullptr,
     {}},
    {"sit6to4",
     "sit",
     "local 10.0.0.1 ttl 32",
     shown("10.0.0.1", "", "sitSpecial", 32, 0),
     nullptr,
     {}},
    {"ip6tnl",
     "ip6tnl",
     "mode any local 2001:db8::1 remote 2001:db8::2 hoplimit 32 tclass 0xfc",
     shown("2001:db8::1", "2001:db8::2", "direct", 32, 63),
     "remote 2001:db8::3 hoplimit 0",
     {{"dstAddr", "2001:db8::3"}, {"hopLimit", 0}}},
    {"vti",
     "vti",
     "local 10.0.0.1 remote 10.0.0.2 key 9",
     shown("10.0.0.1", "10.0.0.2", "vti", 64, 0, true),
     "remote 10.0.0.3",
     {{"dstAddr", "10.0.0.3"}}},
    {"vti6",
     "vti6",
     "local 2001:db8::1 remote 2001:db8::2 key 9",
     shown("2001:db8::1", "2001:db8::2", "vti", 64, 0, true),
     "remote 2001:db8::3",
     {{"dstAddr", "2001:db8::3"}}},
    {"xfrm", "xfrm", "dev lo if_id 42", shown("", "", "xfrm", 64, 0, true), nullptr, {}},
    {"gretap",
     "gretap",
     "local 10.0.0.1 remote 10.0.0.2 ttl 32 tos 0x88",
     shown("10.0.0.1", "10.0.0.2", "gre", 32, 0x22),
     "remote 10.0.0.3",
     {{"dstAddr", "10.0.0.3"}}},
    {"ip6gretap",
     "ip6gretap",
     "local 2001:db8::1 remote 2001:db8::2 hoplimit 32 tclass 0x88",
     shown("2001:db8::1", "2001:db8::2", "gre", 32, 0x22),
     "remote 2001:db8::3",
     {{"dstAddr", "2001:db8::3"}}},
    {"erspan",
     "erspan",
     "seq key 10 erspan_ver 1 erspan 7 local 10.0.0.1 remote 10.0.0.2 ttl 32",
     shown("10.0.0.1", "10.0.0.2", "erspan", 32, 0),
     nullptr,
     {}},
    {"ip6erspan",
     "ip6erspan",
     "seq key 10 erspan_ver 1 erspan 7 local 2001:db8::1 remote 2001:db8::2 hoplimit 32",
     shown("2001:db8::1", "2001:db8::2", "erspan", 32, 0),
     nullptr,
     {}},
    {"vxlan",
     "vxlan",
     "id 1 local 10.0.0.1 remote 10.0.0.2 dstport 4789 ttl 32 tos 0x88",
     shown("10.0.0.1", "10.0.0.2", "vxlan", 32, 0x22),
     "id 1 remote 10.0.0.3",
     {{"dstAddr", "10.0.0.3"}}},
    {"vxlanExternal", "vxlan", "external dstport 4789", shown("", "", "vxlan", 64, 0), nullptr, {}},
    {"geneve",
     "geneve",
     "id 1 remote 10.0.0.2 ttl 32 tos 0x88",
     shown("", "10.0.0.2", "geneve", 32, 0x22),
     "id 1 remote 10.0.0.3 ttl 33",
     {{"dstAddr", "10.0.0.3"}, {"hopLimit", 33}}},
    {"geneve6",
     "geneve",
     "id 1 remote 2001:db8::2 ttl inherit",
     shown("", "2001:db8::2", "geneve", 0, 0),
     nullptr,
     {}},
    {"wireguard", "wireguard", "", shown("", "", "wireguard", 64, 0), nullptr, {}},
};

class TunnelLinks : public KernelLinks, public testing::WithParamInterface<Life> {
protected:
  void SetUp() override {
    KernelLinks::SetUp();
    if (IsSkipped())
      return;
    if (!ipSucceeds(create("probe")))
      GTEST_SKIP() << "this kernel has no links of kind " << GetParam().kind;
    ip("link del probe");
  }
  std::string create(std::string const & name) const {
    return fmt::format("link add {} type {} {}", name, GetParam().kind, GetParam().created);
  }
  void change() { ip(fmt::format("link set t1 type {} {}", GetParam().kind, GetParam().changed)); }
  json changedStatus() const {
    auto changed = GetParam().status;
    changed.update(GetParam().difference);
    return changed;
  }
  static constexpr char allKinds[] =
      "kinds=+gretap,+ip6gretap,+erspan,+ip6erspan,+vxlan,+geneve,+wireguard";
};

TEST_P(TunnelLinks, ArePublishedFromTheirCreationToTheirDeletion) {
  start(allKinds);
  auto const before = source->status().records;
  EXPECT_EQ(before.statuses, 0u) << "fallback devices are no tunnels";
  ip(create("t1"));
  auto const id = idOf("t1");
  settle();
  EXPECT_EQ(status(id), GetParam().status);
  EXPECT_EQ(ifIndex(id), std::stoul(id));
  ip("link set t1 up");
  ip("link set t1 down");
  ip("link set t1 name t2");
  settle();
  EXPECT_EQ(status(id), GetParam().status);
  EXPECT_EQ(source->status().changes, 2u);
  ip("link del t2");
  settle();
  EXPECT_TRUE(isGone(id));
}

TEST_P(TunnelLinks, AreFoundAtTheStart) {
  ip(create("t1"));
  start(allKinds);
  EXPECT_EQ(status(idOf("t1")), GetParam().status);
  EXPECT_EQ(source->status().records.statuses, 1u);
}

class ChangingTunnelLinks : public TunnelLinks {};

TEST_P(ChangingTunnelLinks, ChangeInPlaceWhileTheyAreUp) {
  ip(create("t1"));
  ip("link set t1 up");
  start(allKinds);
  auto const id = idOf("t1");
  auto const object = record(id);
  ASSERT_TRUE(object);
  change();
  settle();
  EXPECT_EQ(status(id), changedStatus());
  EXPECT_EQ(record(id), object);
}

TEST_P(ChangingTunnelLinks, ChangeAtTheNextFullReadWhileTheyAreDown) {
  ip(create("t1"));
  start(allKinds);
  auto const id = idOf("t1");
  change();
  passFullReadPeriod();
  EXPECT_EQ(status(id), changedStatus());
}

std::vector<Life> changingLives() {
  auto changing = lives;
  std::erase_if(changing, [](Life const & life) { return life.changed == nullptr; });
  return changing;
}

std::string nameOf(testing::TestParamInfo<Life> const & life) {
  return life.param.name;
}
INSTANTIATE_TEST_SUITE_P(Each, TunnelLinks, testing::ValuesIn(lives), nameOf);
INSTANTIATE_TEST_SUITE_P(Each, ChangingTunnelLinks, testing::ValuesIn(changingLives()), nameOf);

class TunnelLinksOfTwoKinds : public KernelLinks {};

TEST_F(TunnelLinksOfTwoKinds, GetANewRecordWhenTheIndexPassesFromOneToTheOther) {
  if (!ipSucceeds("link add t1 type gre local 10.0.0.1 remote 10.0.0.2 ttl 32"))
    GTEST_SKIP() << "this kernel has no links of kind gre";
  start();
  auto const id = idOf("t1");
  auto const object = record(id);
  ASSERT_TRUE(object);
  ip("link del t1");
  ip(fmt::format("link add t1 index {} type ipip local 10.0.0.1 remote 10.0.0.2 ttl 32", id));
  passFullReadPeriod(); // sees only the end of it
  EXPECT_EQ(status(id), shown("10.0.0.1", "10.0.0.2", "direct", 32, 0));
  EXPECT_NE(record(id), object);
}

} // namespace
