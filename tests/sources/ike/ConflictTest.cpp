// Several connections that claim one interface.
#include "tests/sources/ike/BindingWorld.h"

namespace Sources::Ike {
namespace {

using testing::ElementsAre;

class ConflictTest : public BindingWorld {
protected:
  ConflictTest() { links.linkIs(link(1, "g1", "gre")); }
};

TEST_F(ConflictTest, GoesToTheLowestName) {
  connections = {connection("b", {greConfig()}), connection("a", {greConfig()}),
                 connection("c", {greConfig()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: a down configured"));
  EXPECT_EQ(bind().conflicts, 1u) << "one interface";
  EXPECT_THAT(told(bind().reports),
              ElementsAre("a/k down g1 (configured)", "b/k down  (g1 belongs to connection a)",
                          "c/k down  (g1 belongs to connection a)"));
}

TEST_F(ConflictTest, GoesToTheOneThatHasSas) {
  connections = {connection("b", {greConfig()}), connection("a", {greConfig()})};
  sas = {sa("b")};
  sas[0].state = IkeState::connecting;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: b connecting configured"));
}

TEST_F(ConflictTest, GoesToTheOneThatIsUp) {
  sas = {sa("a", {transportChild()}), sa("b", {transportChild()})};
  sas[0].children[0].state = ChildState::installing;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: b up selectors"));
  EXPECT_EQ(bind().conflicts, 1u);
  EXPECT_EQ(bind().boundSas, 1u);
  EXPECT_EQ(bind().unboundSas, 1u) << "the one that lost it";
  sas[0].children[0].state = ChildState::installed;
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: a up selectors"));
}

TEST_F(ConflictTest, GoesToTheExplicitOne) {
  connections = {connection("z")};
  explicitly = {"z@g1"};
  sas = {sa("a", {transportChild()})};
  EXPECT_THAT(told(links, bind()), ElementsAre("g1: z down explicit"));
  EXPECT_EQ(bind().conflicts, 1u);
}

TEST_F(ConflictTest, IsNoneBetweenChildrenOfOneConnection) {
  auto second = transportChild();
  second.name = "second";
  sas = {sa("a", {transportChild(), second})};
  EXPECT_EQ(bind().conflicts, 0u);
  EXPECT_EQ(bind().boundSas, 2u);
}

} // namespace
} // namespace Sources::Ike
