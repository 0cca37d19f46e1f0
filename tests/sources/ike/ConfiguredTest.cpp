// Connections without SAs, and what an IKE_SA without children means for them: nothing vanishes.
#include "tests/sources/ike/BindingWorld.h"

namespace Sources::Ike {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ConfiguredTest : public BindingWorld {
protected:
  ConfiguredTest() {
    links.linkIs(link(1, "g1", "gre"));
    links.linkIs(link(2, "i1", "ipip"));
    links.linkIs(vtiLink(3, "t9", 9));
    auto far = link(4, "g2", "gre");
    far.remote = address("10.9.0.3");
    links.linkIs(far);
  }
};

TEST_F(ConfiguredTest, IsDownByDynamicSelectors) {
  connections = {connection("c", {greConfig()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c down configured"));
  EXPECT_THAT(told(bind().reports), ElementsAre("c/k down g1 (configured)"));
}

TEST_F(ConfiguredTest, IsDownByTheHostSelectorsOfAChild) {
  auto overlay = link(5, "vx", "vxlan");
  overlay.local = address("10.8.0.1");
  overlay.remote = address("10.8.0.2");
  links.linkIs(overlay);
  connections = {connection("c", {{.name = "k",
                                   .mode = Mode::tunnel,
                                   .local = selectors({"10.8.0.1/32"}),
                                   .remote = selectors({"10.8.0.2/32"})}})};
  EXPECT_THAT(told(links, bind()), ElementsAre("vx: c down configured"));
  connections[0].local.clear();
  EXPECT_THAT(told(links, bind()), ElementsAre("vx: c down configured")) << "a range, or %any";
}

TEST_F(ConfiguredTest, IsDownByTheAddressesOfAVti) {
  connections = {connection("c", {routedConfig()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("t9: c down configured"));
}

TEST_F(ConfiguredTest, IsDownByItsAddressesAloneWhenNoChildIsKnown) {
  connections = {connection("c")};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c down configured", "i1: c down configured",
                                               "t9: c down configured"));
}

TEST_F(ConfiguredTest, TriesAllItsAddresses) {
  connections = {connection("c", {greConfig()})};
  connections[0].remote.push_back(address("10.9.0.3"));
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c down configured", "g2: c down configured"));
}

TEST_F(ConfiguredTest, IsBoundExplicitlyBeforeAnySaExists) {
  links.linkIs(xfrmLink(5, "x1", 42));
  connections = {connection("c", {routedConfig()})};
  explicitly = {"c@x1"};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c down explicit"));
  EXPECT_THAT(told(bind().reports), ElementsAre("c/k down x1 (explicit)"));
  explicitly = {"c/k@x1"};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c down explicit"));
}

TEST_F(ConfiguredTest, SaysWhyNoLinkIsFound) {
  Links none;
  LinkIndex const empty(none);
  auto const why = [&](Connection const & one) {
    Binding binding(empty, {});
    binding.connectionIs(one);
    return told(std::move(binding).result().reports);
  };
  EXPECT_THAT(why(connection("c", {routedConfig()})),
              ElementsAre("c/k down  (no SA yet, and no vti link is between 10.9.0.1 and "
                          "10.9.0.2)"));
  EXPECT_THAT(why(connection("c", {greConfig()})),
              ElementsAre("c/k down  (no link is between 10.9.0.1 and 10.9.0.2)"));
  EXPECT_THAT(why(connection("c")),
              ElementsAre("c/ down  (no SA yet, and no link is between 10.9.0.1 and 10.9.0.2)"));
  EXPECT_THAT(why({.name = "c", .children = {greConfig()}}),
              ElementsAre("c/k down  (no SA yet, and its configuration names no single "
                          "addresses)"));
}

TEST_F(ConfiguredTest, IsConnectingByAnIkeSaWithoutChild) {
  connections = {connection("c", {greConfig()})};
  sas = {sa("c")};
  sas[0].state = IkeState::connecting;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c connecting configured"));
  sas[0].state = IkeState::established;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c ikeUp configured"));
  EXPECT_THAT(told(bind().reports), ElementsAre("c/k ikeUp g1 (configured)"));
  EXPECT_EQ(bind().boundSas + bind().unboundSas, 0u);
}

TEST_F(ConfiguredTest, IsIkeUpWhenItsChildIsDeletedAlone) {
  connections = {connection("c", {greConfig()})};
  sas = {sa("c", {transportChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up selectors"));
  sas[0].children[0].state = ChildState::deleted;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c ikeUp configured"));
}

TEST_F(ConfiguredTest, IsIkeUpForTheChildThatHasNoSa) {
  auto ipip = greConfig();
  ipip.name = "other";
  ipip.local = ipip.remote = selectors({"dynamic[ipencap]"});
  connections = {connection("c", {greConfig(), ipip})};
  sas = {sa("c", {transportChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up selectors", "i1: c ikeUp configured"));
}

// A gre tunnel inside an xfrm link: its selectors are the gre link's endpoints.
TEST_F(ConfiguredTest, ClaimsNothingBesideTheLinkThatItsSaNames) {
  links.linkIs(xfrmLink(5, "x1", 42));
  auto child = greConfig();
  child.mode = Mode::tunnel;
  child.local = selectors({"10.9.0.1/32"});
  child.remote = selectors({"10.9.0.2/32"});
  connections = {connection("c", {child})};
  sas = {sa("c", {withIfId(routedChild(child.name), 42)})};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up if_id"));
}

TEST_F(ConfiguredTest, IsDownForTheAddressThatHasNoSa) {
  connections = {connection("c", {greConfig()})};
  connections[0].remote.push_back(address("10.9.0.3"));
  sas = {sa("c", {transportChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c up selectors", "g2: c down configured"));
}

TEST_F(ConfiguredTest, ClaimsNoOtherVtiBetweenTheAddressesOfItsSa) {
  links.linkIs(vtiLink(5, "t8", 8));
  connections = {connection("c", {routedConfig()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("t9: c down configured", "t8: c down configured"));
  sas = {sa("c", {withMark(routedChild(), 8)})};
  EXPECT_THAT(told(links, bind()), ElementsAre("t8: c up mark"));
}

TEST_F(ConfiguredTest, TakesTheAddressesOfTheIkeSaWhereItsOwnAreOpen) {
  connections = {{.name = "hub", .children = {greConfig()}}};
  EXPECT_THAT(told(links, bind()), IsEmpty());
  sas = {sa("hub")};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: hub ikeUp configured"));
}

TEST_F(ConfiguredTest, IsClosingWhileItsOnlyChildGoes) {
  connections = {connection("c", {greConfig()})};
  sas = {sa("c", {transportChild()})};
  sas[0].children[0].state = ChildState::deleting;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c closing selectors"));
}

TEST_F(ConfiguredTest, IsWhatTheExplicitBindingSaysWhenItsOnlyChildIsGone) {
  links.linkIs(xfrmLink(5, "x1", 42));
  explicitly = {"c@x1"};
  connections = {connection("c", {routedConfig()})};
  sas = {sa("c")};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c ikeUp explicit"));
  sas[0].children = {withIfId(routedChild(), 42)};
  EXPECT_THAT(told(links, bind()), ElementsAre("x1: c up explicit"));
}

TEST_F(ConfiguredTest, ReportsAnIkeSaOfNoConfiguredConnection) {
  sas = {sa("gone")};
  EXPECT_THAT(told(links, bind()), IsEmpty());
  EXPECT_THAT(told(bind().reports),
              ElementsAre("gone/ ikeUp  (it is not configured any more, and has no child)"));
  explicitly = {"gone@g1"};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: gone ikeUp explicit"));
}

TEST_F(ConfiguredTest, KeepsUnknownStatesUnknown) {
  connections = {connection("c", {greConfig()})};
  sas = {sa("c")};
  sas[0].state = IkeState::unknown;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: c unknown configured"));
}

} // namespace
} // namespace Sources::Ike
