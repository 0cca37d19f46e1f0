// Which links a child's selectors are for, asked of the function itself.
#include "sources/ike/SelectedLinks.h"
#include "tests/sources/ike/BindingWorld.h"
#include <fmt/format.h>

namespace Sources::Ike {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SelectedLinksTest : public testing::Test {
protected:
  void linkIs(std::uint64_t id, std::string const & name, std::string_view kind,
              std::string_view remote = "10.9.0.2") {
    auto one = link(id, name, kind);
    one.remote = address(remote);
    links.linkIs(one);
  }
  /// The names of the links, in the order found.
  std::vector<std::string> selected(std::vector<std::string> const & local,
                                    std::vector<std::string> const & remote) const {
    auto const here = selectors(local);
    auto const there = selectors(remote);
    std::vector<std::string> names;
    for (auto const * one : selectedLinks(index, {Mode::transport, here, there}))
      names.push_back(one->name);
    return names;
  }
  std::string whyNone(std::vector<std::string> const & local,
                      std::vector<std::string> const & remote) const {
    auto const here = selectors(local);
    auto const there = selectors(remote);
    return whyNoneSelected(index, {Mode::transport, here, there});
  }

  Links links;
  LinkIndex const index{links};
};

TEST_F(SelectedLinksTest, ComeOnceHoweverManySelectorsAreForThem) {
  linkIs(1, "t1", "ip6tnl");
  EXPECT_THAT(
      selected({"10.9.0.1/32[4]", "10.9.0.1/32[41]"}, {"10.9.0.2/32[4]", "10.9.0.2/32[41]"}),
      ElementsAre("t1"));
}

TEST_F(SelectedLinksTest, AreThoseOfTheFirstSixteenSelectorsOfEachSide) {
  linkIs(1, "g1", "gre");
  std::vector<std::string> others;
  for (int i = 0; i != 15; ++i)
    others.push_back(fmt::format("10.7.0.{}/32", i));
  auto local = others;
  auto remote = others;
  local.push_back("10.9.0.1/32");
  remote.push_back("10.9.0.2/32");
  EXPECT_THAT(selected(local, remote), ElementsAre("g1")) << "it is the sixteenth";
  local.insert(local.begin(), "10.7.1.0/32");
  EXPECT_THAT(selected(local, remote), IsEmpty()) << "the local one is the seventeenth";
  local.erase(local.begin());
  remote.insert(remote.begin(), "10.7.1.0/32");
  EXPECT_THAT(selected(local, remote), IsEmpty()) << "the remote one is the seventeenth";
}

TEST_F(SelectedLinksTest, WithoutAPortWantAllPorts) {
  linkIs(1, "g1", "gre");
  EXPECT_THAT(selected({"10.9.0.1/32[gre]"}, {"10.9.0.2/32[gre/0-65535]"}), ElementsAre("g1"));
  EXPECT_THAT(selected({"10.9.0.1/32[gre]"}, {"10.9.0.2/32[gre/0-65534]"}), IsEmpty());
  EXPECT_THAT(selected({"10.9.0.1/32[gre]"}, {"10.9.0.2/32[gre/1-65535]"}), IsEmpty());
  EXPECT_THAT(selected({"10.9.0.1/32[gre/0-65534]"}, {"10.9.0.2/32[gre]"}), IsEmpty());
}

TEST_F(SelectedLinksTest, AreNotThereForTheFirstPairThatWasTried) {
  EXPECT_EQ(whyNone({"10.9.0.1/32"}, {"10.9.0.2/32", "10.9.0.3/32"}),
            "no link is between 10.9.0.1 and 10.9.0.2");
}

TEST_F(SelectedLinksTest, AreNotThoseOfWhichTheLowestIdIsNamed) {
  linkIs(3, "i3", "ipip", "10.9.0.3");
  linkIs(2, "i2", "ipip");
  linkIs(4, "i4", "ipip");
  EXPECT_EQ(whyNone({"10.9.0.1/32[gre]"}, {"10.9.0.3/32[gre]", "10.9.0.2/32[gre]"}),
            "the selectors are not for the packets of i2, of kind ipip");
}

} // namespace
} // namespace Sources::Ike
