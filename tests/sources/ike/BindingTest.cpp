// SAs that are there, bound to links by each rule.
#include "tests/sources/ike/BindingWorld.h"

namespace Sources::Ike {
namespace {

using Plexa::IntfId;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ExplicitBinding, IsRead) {
  EXPECT_EQ(explicitBindingFromText("c@x1"), (ExplicitBinding{"c", "", "x1"}));
  EXPECT_EQ(explicitBindingFromText("c/k@x1"), (ExplicitBinding{"c", "k", "x1"}));
  EXPECT_EQ(explicitBindingFromText("a@b/k/l@x1"), (ExplicitBinding{"a@b", "k/l", "x1"}));
}

TEST(ExplicitBinding, HasAllItsParts) {
  for (auto const * text : {"", "c", "@", "c@", "@x1", "/k@x1", "c/@x1", "c/k", "c/k@"})
    EXPECT_THROW(explicitBindingFromText(text), std::invalid_argument) << text;
}

TEST(Rule, HasAText) {
  EXPECT_EQ(ruleText(Rule::explicitly), "explicit");
  EXPECT_EQ(ruleText(Rule::ifId), "if_id");
  EXPECT_EQ(ruleText(Rule::mark), "mark");
  EXPECT_EQ(ruleText(Rule::selectors), "selectors");
  EXPECT_EQ(ruleText(Rule::configured), "configured");
}

class BindingTest : public BindingWorld {};

TEST_F(BindingTest, IsEmptyForNothing) {
  links.linkIs(link(1, "g1", "gre"));
  EXPECT_EQ(bind(), Bindings());
}

TEST_F(BindingTest, FollowsIfId) {
  links.linkIs(xfrmLink(1, "x1", 42));
  links.linkIs(xfrmLink(2, "x2", 43));
  sas = {sa("c", {withIfId(routedChild(), 43)})};
  EXPECT_THAT(told(links, bind()), ElementsAre("x2: c up if_id"));
  EXPECT_EQ(bind().boundSas, 1u);
}

TEST_F(BindingTest, PrefersTheIfIdOfWhatIsSent) {
  links.linkIs(xfrmLink(1, "x1", 42));
  links.linkIs(xfrmLink(2, "x2", 43));
  auto child = routedChild();
  child.ifIdIn = 42;
  sas = {sa("c", {child})};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id"));
  sas[0].children[0].ifIdOut = 43;
  EXPECT_THAT(told(links, bind()), ElementsAre("x2: c up if_id"));
  sas[0].children[0].ifIdOut = 0;
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id"));
}

TEST_F(BindingTest, NeverMatchesIfIdZero) {
  links.linkIs(xfrmLink(1, "x0", 0));
  sas = {sa("c", {withIfId(routedChild(), 0)})};
  EXPECT_THAT(told(links, bind()), IsEmpty());
  EXPECT_EQ(reason(), "tunnel mode between networks protects no single tunnel");
}

TEST_F(BindingTest, SaysThatNoLinkHasTheIfId) {
  links.linkIs(link(1, "g1", "gre"));
  sas = {sa("c", {withIfId(transportChild(), 42)})};
  EXPECT_THAT(told(links, bind()), IsEmpty()) << "what has an if_id is for no packets without";
  EXPECT_EQ(reason(), "no link has if_id 42");
  EXPECT_EQ(bind().unboundSas, 1u);
}

TEST_F(BindingTest, TakesIfIdOfXfrmLinksAlone) {
  auto other = link(1, "g1", "gre");
  other.ifId = 42;
  links.linkIs(other);
  sas = {sa("c", {withIfId(routedChild(), 42)})};
  EXPECT_THAT(told(links, bind()), IsEmpty());
}

TEST_F(BindingTest, FollowsMarkBetweenTheEndpoints) {
  links.linkIs(vtiLink(1, "t8", 8));
  links.linkIs(vtiLink(2, "t9", 9));
  auto elsewhere = vtiLink(3, "far", 9);
  elsewhere.remote = address("10.9.0.3");
  links.linkIs(elsewhere);
  sas = {sa("c", {withMark(routedChild(), 9)})};
  EXPECT_THAT(told(links, bind()), ElementsAre("t9: c up mark"));
}

TEST_F(BindingTest, TakesTheOutputKeyAndTheOutputMark) {
  auto vti = vtiLink(1, "t1", 9);
  vti.inputKey = 5;
  links.linkIs(vti);
  auto child = routedChild();
  child.markIn = 5;
  sas = {sa("c", {child})};
  EXPECT_THAT(told(links, bind()), IsEmpty());
  sas[0].children[0].markOut = 9;
  EXPECT_THAT(told(links, bind()), ElementsAre("t1: c up mark"));
}

TEST_F(BindingTest, FollowsMarkToVti6AndToAVtiThatLeavesItsLocalEndOpen) {
  auto vti6 = vtiLink(1, "v6", 9);
  vti6.kind = "vti6";
  vti6.local = address("2001:db8::1");
  vti6.remote = address("2001:db8::2");
  links.linkIs(vti6);
  auto open = vtiLink(2, "open", 9);
  open.local = {};
  links.linkIs(open);
  auto over6 = sa("six", {withMark(routedChild(), 9)});
  over6.local = vti6.local;
  over6.remote = vti6.remote;
  sas = {sa("four", {withMark(routedChild(), 9)}), over6};
  EXPECT_THAT(told(links, bind()), ElementsAre("v6: six up mark", "open: four up mark"));
}

TEST_F(BindingTest, SaysThatNoVtiLinkHasTheKey) {
  links.linkIs(vtiLink(1, "t8", 8));
  links.linkIs(link(2, "g1", "gre"));
  sas = {sa("c", {withMark(transportChild(), 9)})};
  EXPECT_THAT(told(links, bind()), IsEmpty()) << "what has a mark is for no packets without";
  EXPECT_EQ(reason(), "no vti link has key 9 between 10.9.0.1 and 10.9.0.2");
}

TEST_F(BindingTest, NeverMatchesMarkZero) {
  links.linkIs(vtiLink(1, "t0", 0));
  sas = {sa("c", {withMark(routedChild(), 0)})};
  EXPECT_THAT(told(links, bind()), IsEmpty());
}

struct Fit {
  char const * kind;
  char const * protocol;
  bool fits;
};
class BindingFit : public BindingWorld, public testing::WithParamInterface<Fit> {};

TEST_P(BindingFit, FollowsSelectorsOfTheKindsProtocol) {
  auto const & [kind, protocol, fits] = GetParam();
  auto one = link(1, "l1", kind);
  if (one.kind == "vxlan" || one.kind == "geneve")
    one.port = 4789;
  links.linkIs(one);
  auto child = transportChild();
  std::string const demanded = *protocol == 0 ? "" : "[" + std::string(protocol) + "]";
  child.local = selectors({"10.9.0.1/32" + demanded.substr(0, demanded.find('/')) +
                           (demanded.find('/') == std::string::npos ? "" : "]")});
  child.remote = selectors({"10.9.0.2/32" + demanded});
  sas = {sa("c", {child})};
  if (fits)
    EXPECT_THAT(told(links, bind()), ElementsAre("l1: c up selectors"));
  else
    EXPECT_EQ(reason(),
              "the selectors are not for the packets of l1, of kind " + std::string(kind));
}

INSTANTIATE_TEST_SUITE_P(
    All, BindingFit,
    testing::Values(Fit{"gre", "gre", true}, Fit{"gre", "47", true}, Fit{"gre", "", true},
                    Fit{"gre", "ipencap", false}, Fit{"gre", "udp", false},
                    Fit{"gretap", "gre", true}, Fit{"erspan", "gre", true},
                    Fit{"ip6gre", "47", true}, Fit{"ip6gretap", "gre", true},
                    Fit{"ip6erspan", "gre", true}, Fit{"ipip", "ipencap", true},
                    Fit{"ipip", "4", true}, Fit{"ipip", "41", false}, Fit{"ipip", "ipip", false},
                    Fit{"sit", "ipv6", true}, Fit{"sit", "41", true}, Fit{"sit", "4", false},
                    Fit{"ip6tnl", "4", true}, Fit{"ip6tnl", "41", true}, Fit{"ip6tnl", "", true},
                    Fit{"ip6tnl", "47", false}, Fit{"vxlan", "udp", true}, Fit{"vxlan", "", true},
                    Fit{"vxlan", "udp/4789", true}, Fit{"vxlan", "17/4000-5000", true},
                    Fit{"vxlan", "udp/8472", false}, Fit{"vxlan", "tcp/4789", false},
                    Fit{"geneve", "udp/4789", true}, Fit{"geneve", "udp/6081", false},
                    Fit{"gre", "gre/5", false}, Fit{"wireguard", "", false},
                    Fit{"vti", "", false}));

TEST_F(BindingTest, WantsPacketsFromAllPorts) {
  auto vxlan = link(1, "vx", "vxlan");
  vxlan.port = 4789;
  links.linkIs(vxlan);
  sas = {sa("c", {transportChild("udp/4789")})};
  EXPECT_THAT(told(links, bind()), IsEmpty()) << "its packets leave from other ports";
}

TEST_F(BindingTest, WantsOneProtocolOfBothSides) {
  links.linkIs(link(1, "l1", "ip6tnl"));
  auto child = transportChild("4");
  child.remote = selectors({"10.9.0.2/32[41]"});
  sas = {sa("c", {child})};
  EXPECT_THAT(told(links, bind()), IsEmpty());
  sas[0].children[0].remote = selectors({"10.9.0.2/32"});
  EXPECT_THAT(told(links, bind()), ElementsAre("l1: c up selectors"));
}

TEST_F(BindingTest, FollowsHostSelectorsInTunnelMode) {
  auto overlay = link(1, "vx", "vxlan");
  overlay.local = address("10.8.0.1");
  overlay.remote = address("10.8.0.2");
  links.linkIs(overlay);
  auto child = routedChild();
  child.local = selectors({"10.8.0.1/32"});
  child.remote = selectors({"192.0.2.0/24", "10.8.0.2/32"});
  sas = {sa("c", {child})};
  EXPECT_THAT(told(links, bind()), ElementsAre("vx: c up selectors"));
}

TEST_F(BindingTest, LeavesNetworksInTunnelModeUnbound) {
  links.linkIs(link(1, "g1", "gre"));
  sas = {sa("c", {routedChild()})};
  EXPECT_THAT(told(links, bind()), IsEmpty());
  EXPECT_EQ(reason(), "tunnel mode between networks protects no single tunnel");
}

TEST_F(BindingTest, TakesWideSelectorsInTransportModeForItsOwnAddresses) {
  links.linkIs(link(1, "g1", "gre"));
  auto far = link(2, "g2", "gre");
  far.remote = address("10.9.0.3");
  links.linkIs(far);
  auto child = transportChild();
  child.local = child.remote = selectors({"10.9.0.0/24[gre]"});
  sas = {sa("c", {child})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up selectors"));
  sas[0].children[0].local = selectors({"10.7.0.0/24[gre]"});
  EXPECT_EQ(reason(), "its selectors leave out the addresses of its IKE_SA");
}

TEST_F(BindingTest, TakesALinkThatLeavesItsLocalEndToTheRoutes) {
  auto open = link(1, "g1", "gre");
  open.local = {};
  links.linkIs(open);
  sas = {sa("c", {transportChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up selectors"));
  sas[0].local = address("10.7.0.1");
  EXPECT_THAT(told(links, bind()), IsEmpty()) << "the selectors are for another local address";
}

TEST_F(BindingTest, SaysThatNoLinkIsBetweenTheSelectors) {
  sas = {sa("c", {transportChild()})};
  EXPECT_EQ(reason(), "no link is between 10.9.0.1 and 10.9.0.2");
  sas[0].children[0].local.clear();
  EXPECT_EQ(reason(), "it has no traffic selectors");
}

TEST_F(BindingTest, TakesEveryLinkThatTheSelectorsAreFor) {
  auto first = link(1, "g1", "gre");
  first.outputKey = 1;
  links.linkIs(first);
  links.linkIs(link(2, "g2", "gre"));
  links.linkIs(link(3, "i1", "ipip"));
  sas = {sa("c", {transportChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up selectors", "g2: c up selectors"));
  EXPECT_EQ(bind().boundSas, 1u) << "one SA, though on two links";
}

TEST_F(BindingTest, ServesSeveralInterfacesByOneConnection) {
  links.linkIs(xfrmLink(1, "x1", 1));
  links.linkIs(xfrmLink(2, "x2", 2));
  links.linkIs(vtiLink(3, "t3", 3));
  auto going = withIfId(routedChild("b"), 2);
  going.state = ChildState::deleting;
  sas = {sa("c", {withIfId(routedChild("a"), 1), going, withMark(routedChild("d"), 3)})};
  EXPECT_THAT(told(links, bind()),
              ElementsAre("x1: c up if_id", "x2: c closing if_id", "t3: c up mark"));
  EXPECT_THAT(told(bind().reports),
              ElementsAre("c/a up x1 (if_id)", "c/b closing x2 (if_id)", "c/d up t3 (mark)"));
}

TEST_F(BindingTest, ShowsTheBestOfSeveralSas) {
  links.linkIs(xfrmLink(1, "x1", 1));
  auto old = sa("c", {withIfId(routedChild(), 1)});
  old.state = IkeState::deleting;
  auto comes = sa("c", {withIfId(routedChild(), 1)});
  comes.state = IkeState::connecting;
  sas = {old, comes};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c connecting if_id"));
  sas.push_back(sa("c", {withIfId(routedChild(), 1)}));
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id"));
  EXPECT_THAT(told(bind().reports), ElementsAre("c/k up x1 (if_id)")) << "one line for them";
  EXPECT_EQ(bind().boundSas, 3u);
}

TEST_F(BindingTest, StaysUpWhileAChildIsRekeyed) {
  links.linkIs(xfrmLink(1, "x1", 1));
  auto old = withIfId(routedChild(), 1);
  old.state = ChildState::rekeyed;
  auto fresh = withIfId(routedChild(), 1);
  sas = {sa("c", {old, fresh})};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id"));
  sas[0].children[0].state = ChildState::deleted;
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id"));
  EXPECT_EQ(bind().boundSas, 1u);
}

TEST_F(BindingTest, CountsNoChildThatIsDeleted) {
  links.linkIs(xfrmLink(1, "x1", 1));
  for (auto state : {ChildState::deleted, ChildState::destroying}) {
    auto child = withIfId(routedChild(), 1);
    child.state = state;
    sas = {sa("c", {child})};
    EXPECT_THAT(told(links, bind()), IsEmpty());
    EXPECT_EQ(bind().boundSas + bind().unboundSas, 0u);
  }
}

TEST_F(BindingTest, PrefersTheEarlierRule) {
  links.linkIs(xfrmLink(1, "x1", 1));
  links.linkIs(vtiLink(2, "t9", 9));
  links.linkIs(link(3, "g1", "gre"));
  links.linkIs(link(4, "e1", "ipip"));
  connections = {connection("c", {routedConfig()})};
  sas = {sa("c", {withMark(withIfId(transportChild(), 1), 9)})};
  explicitly = {"c@e1"};
  EXPECT_THAT(told(links, bind()), ElementsAre("e1: c up explicit"));
  explicitly.clear();
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id"));
  links.linkDel(Plexa::IntfId(1));
  EXPECT_THAT(told(links, bind()), ElementsAre("t9: c up mark"));
  sas = {sa("c", {transportChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up selectors"));
}

TEST_F(BindingTest, FollowsAnExplicitBinding) {
  links.linkIs(xfrmLink(1, "x1", 7));
  links.linkIs(xfrmLink(2, "x2", 8));
  explicitly = {"c/a@x1", "c@x2"};
  sas = {sa("c", {routedChild("a"), routedChild("b")})};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up explicit", "x2: c up explicit"));
  EXPECT_THAT(told(bind().reports), ElementsAre("c/a up x1 (explicit)", "c/b up x2 (explicit)"));
}

TEST_F(BindingTest, MayBindOneConnectionToSeveralInterfaces) {
  links.linkIs(link(1, "g1", "gre"));
  links.linkIs(link(2, "g2", "gre"));
  explicitly = {"c@g1", "c@g2", "c@g2"};
  sas = {sa("c", {routedChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up explicit", "g2: c up explicit"));
}

TEST_F(BindingTest, ReportsAnExplicitBindingToALinkThatIsNotThere) {
  links.linkIs(xfrmLink(1, "x1", 7));
  explicitly = {"c@x9"};
  sas = {sa("c", {withIfId(routedChild(), 7)})};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id")) << "the next rule holds";
  EXPECT_THAT(told(bind().reports),
              ElementsAre("c/ ikeUp  (bound to x9, but there is no such tunnel link)",
                          "c/k up x1 (if_id)"));
}

TEST_F(BindingTest, ReportsAnExplicitBindingOfWhatIsNotConfigured) {
  links.linkIs(xfrmLink(1, "x1", 7));
  explicitly = {"cc@x1", "c/kk@x1"};
  sas = {sa("c", {withIfId(routedChild(), 7)})};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id")) << "a slip hides nothing";
  EXPECT_THAT(told(bind().reports),
              ElementsAre("c/k up x1 (if_id)",
                          "c/kk ikeUp  (bound to x1, but the connection has no such child)",
                          "cc/ down  (bound to x1, but the daemon has no such connection)"));
}

TEST_F(BindingTest, NamesALinkWithoutANameByItsId) {
  links.linkIs(xfrmLink(77, "", 7));
  sas = {sa("c", {withIfId(routedChild(), 7)})};
  EXPECT_THAT(told(bind().reports), ElementsAre("c/k up 77 (if_id)"));
}

TEST_F(BindingTest, TakesTenThousandSasAndLinks) {
  constexpr std::uint32_t many = 10000;
  for (std::uint32_t i = 1; i <= many; ++i)
    links.linkIs(xfrmLink(i, "x" + std::to_string(i), i));
  for (std::uint32_t i = 1; i <= many; ++i)
    sas.push_back(sa("c" + std::to_string(i), {withIfId(routedChild(), i)}));
  auto const bindings = bind();
  EXPECT_EQ(bindings.boundSas, many);
  EXPECT_EQ(bindings.conflicts, 0u);
  for (auto const & [intfId, bound] : bindings.interfaces)
    ASSERT_EQ(bound.profile, "c" + intfId.stringValue());
}

TEST_F(BindingTest, PreparesItsResultInSmallParts) {
  for (std::uint32_t i = 1; i <= 1000; ++i)
    links.linkIs(xfrmLink(i, "x", i));
  Binding binding(index, {});
  for (std::uint32_t i = 1; i <= 1000; ++i)
    binding.saIs(sa("c" + std::to_string(i), {withIfId(routedChild(), i)}));
  int parts = 1;
  for (; binding.prepareNext(); ++parts) {
  }
  EXPECT_GE(parts, 20);
  EXPECT_FALSE(binding.prepareNext());
  EXPECT_EQ(std::move(binding).result().interfaces.size(), 1000u);
}

TEST_F(BindingTest, BindsNothingToALinkThatHasGone) {
  links.linkIs(xfrmLink(1, "x1", 7));
  links.linkIs(xfrmLink(2, "x2", 8));
  Binding binding(index, {});
  binding.saIs(sa("a", {withIfId(routedChild(), 7)}));
  binding.saIs(sa("b", {withIfId(routedChild(), 8)}));
  links.linkDel(IntfId(1));
  auto const bindings = std::move(binding).result();
  EXPECT_THAT(told(links, bindings), ElementsAre("x2: b up if_id"));
  EXPECT_THAT(told(bindings.reports),
              ElementsAre("a/k up  (link 1 has gone)", "b/k up x2 (if_id)"));
  EXPECT_EQ(bindings.boundSas, 1u);
  EXPECT_EQ(bindings.unboundSas, 1u);
}

TEST_F(BindingTest, FindsALinkThatHasComeMeanwhile) {
  Binding binding(index, {});
  binding.saIs(sa("a", {withIfId(routedChild(), 7)}));
  links.linkIs(xfrmLink(1, "x1", 7));
  binding.saIs(sa("b", {withIfId(routedChild(), 7)}));
  EXPECT_THAT(told(std::move(binding).result().reports),
              ElementsAre("a/k up  (no link has if_id 7)", "b/k up x1 (if_id)"));
}

// Before, in each of the parts of the result, and after the last.
TEST_F(BindingTest, TakesLinksThatChangeAtAnyMoment) {
  constexpr std::uint32_t many = 100;
  for (std::size_t moment = 0; moment != 12; ++moment) {
    for (std::uint32_t i = 1; i <= many; ++i)
      links.linkIs(xfrmLink(i, "x" + std::to_string(i), i));
    Binding binding(index, {});
    for (std::uint32_t i = 1; i <= many; ++i) {
      binding.saIs(sa("c" + std::to_string(i), {withIfId(routedChild(), i)}));
      binding.saIs(sa("all", {withIfId(routedChild(), i)}));
    }
    for (std::size_t part = 0; part != moment && binding.prepareNext(); ++part) {
    }
    for (std::uint32_t i = 1; i <= many; i += 2)
      links.linkDel(IntfId(i));
    links.linkIs(xfrmLink(many, "renamed", many + 1));
    auto const bindings = std::move(binding).result();
    EXPECT_EQ(bindings.reports.size(), 2 * many);
    EXPECT_EQ(bindings.boundSas + bindings.unboundSas, 2 * many);
    EXPECT_GE(bindings.interfaces.size(), many / 2);
    for (auto const & report : bindings.reports)
      EXPECT_NE(report.interface.empty(), report.reason == "if_id") << told(report);
  }
}

} // namespace
} // namespace Sources::Ike
