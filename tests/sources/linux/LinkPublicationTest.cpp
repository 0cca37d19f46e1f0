// Links on their way into the state database, without a kernel.
#include "sources/linux/LinkPublication.h"
#include "tests/sources/SourceHost.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using nlohmann::json;
using Plexa::IntfId;
using Sources::Linux::LinkPublication;
using Sources::Linux::LinkState;
using Sources::Linux::TunnelKind;
using Pace = LinkPublication::Pace;

LinkState tunnel(std::uint32_t index, std::uint8_t hopLimit, TunnelKind kind = TunnelKind::gre) {
  return {index,
          {{.index = index,
            .name = "t" + std::to_string(index),
            .kind = kind,
            .status = {.srcAddr = *Plexa::IpGenAddr::fromString("192.0.2.1"),
                       .dstAddr = *Plexa::IpGenAddr::fromString("192.0.2.2"),
                       .mode = Plexa::TunnelIntfMode::gre,
                       .hopLimit = hopLimit,
                       .tos = 3,
                       .ipsec = false},
            .ifId = {},
            .inputKey = 9,
            .outputKey = {},
            .lower = 2,
            .port = 4789,
            .isCarriedElsewhere = true}}};
}
LinkState gone(std::uint32_t index) {
  return {index, {}};
}

class LinkPublicationTest : public testing::Test, protected SourceHost {
protected:
  json hopLimit(int index) const {
    return at("/tunnelIntfStatusDir/intfStatus/" + std::to_string(index) + "/hopLimit");
  }
  bool isGone(int index) const {
    auto const id = std::to_string(index);
    return at("/tunnelIntfStatusDir/intfStatus/" + id).is_null() &&
           at("/ifMib/ifIndexByIntfId/" + id).is_null() &&
           links.find(IntfId(static_cast<std::uint64_t>(index))) == nullptr;
  }
  /// Ends the read and lets it be published; true if and only if `done` was called.
  bool end(bool whole, Pace pace = Pace::inRuns) {
    bool done = false;
    publication.endReading(whole, pace, [&] { done = true; });
    settle();
    return done;
  }
  Zel::PtrInterface const * record(std::uint64_t id) const {
    return database.tunnelIntfStatusDir()->intfStatus().find(IntfId(id))->get();
  }

  LinkPublication publication{Sources::Linux::TunnelKindSet::defaults(), publishers, links};
};

TEST_F(LinkPublicationTest, PublishesAnEventAtOnce) {
  EXPECT_TRUE(publication.linkIs(tunnel(5, 64)));
  EXPECT_EQ(at("/tunnelIntfStatusDir/intfStatus/5"), (json{{"srcAddr", "192.0.2.1"},
                                                           {"dstAddr", "192.0.2.2"},
                                                           {"mode", "gre"},
                                                           {"hopLimit", 64},
                                                           {"tos", 3},
                                                           {"ipsec", false}}));
  EXPECT_EQ(at("/ifMib/ifIndexByIntfId/5"), 5);
  auto const & link = *links.find(IntfId(5));
  EXPECT_EQ(link.name, "t5");
  EXPECT_EQ(link.kind, "gre");
  EXPECT_EQ(link.inputKey, 9u);
  EXPECT_EQ(link.outputKey, std::nullopt);
  EXPECT_EQ(link.lower, 2u);
  EXPECT_EQ(link.local.stringValue(), "192.0.2.1");
  EXPECT_EQ(link.remote.stringValue(), "192.0.2.2");
  EXPECT_EQ(link.port, 4789);
  EXPECT_TRUE(link.isCarriedElsewhere);
  EXPECT_FALSE(publication.linkIs(tunnel(5, 64))) << "nothing new";
  EXPECT_TRUE(publication.linkIs(gone(5)));
  EXPECT_TRUE(isGone(5));
  EXPECT_FALSE(publication.linkIs(gone(5)));
}

TEST_F(LinkPublicationTest, LeavesOutOtherKinds) {
  EXPECT_FALSE(publication.linkIs(tunnel(5, 64, TunnelKind::vxlan)));
  publication.beginReading();
  publication.found(tunnel(6, 64, TunnelKind::wireguard));
  EXPECT_TRUE(end(true));
  EXPECT_TRUE(isGone(5));
  EXPECT_TRUE(isGone(6));
}

TEST_F(LinkPublicationTest, TellsHowManyLinksOfOtherKindsThereAre) {
  auto const skipped = [this] { return publication.skipped().summary(); };
  EXPECT_EQ(skipped(), "");
  publication.linkIs(tunnel(4, 64));
  publication.linkIs(tunnel(5, 64, TunnelKind::vxlan));
  publication.linkIs(tunnel(5, 65, TunnelKind::vxlan));
  publication.linkIs(tunnel(6, 64, TunnelKind::gretap));
  EXPECT_EQ(skipped(), "1 gretap, 1 vxlan; --source linux:kinds=+gretap,+vxlan publishes them");
  publication.linkIs(tunnel(5, 64, TunnelKind::gre));
  publication.linkIs(gone(6));
  EXPECT_EQ(skipped(), "");
}

TEST_F(LinkPublicationTest, CountsLinksOfOtherKindsAnewInEachWholeReading) {
  publication.linkIs(tunnel(5, 64, TunnelKind::vxlan));
  publication.linkIs(tunnel(6, 64, TunnelKind::vxlan));
  publication.beginReading();
  publication.found(tunnel(6, 64, TunnelKind::vxlan));
  EXPECT_TRUE(end(false));
  EXPECT_EQ(publication.skipped().summary().front(), '2') << "not all links were seen";
  publication.beginReading();
  publication.found(tunnel(6, 64, TunnelKind::vxlan));
  EXPECT_TRUE(end(true));
  EXPECT_EQ(publication.skipped().summary().front(), '1');
}

TEST_F(LinkPublicationTest, RemovesAndAddsALinkThatBecameAnotherKind) {
  publication.linkIs(tunnel(5, 64));
  Zel::Ptr<Zel::PtrInterface const> before(record(5));
  publication.linkIs(tunnel(5, 64, TunnelKind::ipip));
  EXPECT_NE(record(5), before.get());
  before = Zel::Ptr<Zel::PtrInterface const>(record(5));
  publication.beginReading();
  publication.found(tunnel(5, 64, TunnelKind::sit));
  EXPECT_TRUE(end(true));
  EXPECT_NE(record(5), before.get());
  EXPECT_EQ(links.find(IntfId(5))->kind, "sit");
}

TEST_F(LinkPublicationTest, PublishesAReadWhenItIsOver) {
  publication.linkIs(tunnel(1, 10));
  publication.linkIs(tunnel(2, 20));
  publication.beginReading();
  publication.found(tunnel(2, 21));
  publication.found(tunnel(3, 30));
  EXPECT_EQ(hopLimit(2), 20);
  EXPECT_TRUE(end(true));
  EXPECT_TRUE(isGone(1));
  EXPECT_EQ(hopLimit(2), 21);
  EXPECT_EQ(hopLimit(3), 30);
}

TEST_F(LinkPublicationTest, PublishesAReadBeforeItReturnsWhenAskedTo) {
  publication.beginReading();
  publication.found(tunnel(3, 30));
  bool done = false;
  publication.endReading(true, Pace::atOnce, [&] { done = true; });
  EXPECT_TRUE(done);
  EXPECT_EQ(hopLimit(3), 30);
}

TEST_F(LinkPublicationTest, BelievesAnEventMoreThanAReadThatIsUnderWay) {
  publication.linkIs(tunnel(1, 10));
  publication.linkIs(tunnel(2, 20));
  publication.beginReading();
  publication.found(tunnel(1, 10));
  publication.linkIs(tunnel(1, 11));
  publication.linkIs(gone(2));
  publication.linkIs(tunnel(4, 40));
  EXPECT_EQ(hopLimit(1), 11) << "at once";
  publication.found(tunnel(2, 20));
  publication.found(tunnel(4, 39));
  EXPECT_TRUE(end(true));
  EXPECT_EQ(hopLimit(1), 11);
  EXPECT_TRUE(isGone(2));
  EXPECT_EQ(hopLimit(4), 40);
  EXPECT_EQ(links.size(), 2u);
}

TEST_F(LinkPublicationTest, KeepsWhatAReadCouldNotUnderstandOrNotSee) {
  publication.linkIs(tunnel(1, 10));
  publication.linkIs(tunnel(2, 20));
  publication.beginReading();
  publication.foundUnreadable(1);
  publication.foundUnreadable(7); // which is none of ours
  EXPECT_TRUE(end(true));
  EXPECT_EQ(hopLimit(1), 10);
  EXPECT_TRUE(isGone(2));
  EXPECT_EQ(links.size(), 1u);
  publication.beginReading();
  publication.found(tunnel(3, 30));
  EXPECT_TRUE(end(false));
  EXPECT_EQ(hopLimit(1), 10);
  EXPECT_EQ(hopLimit(3), 30);
  EXPECT_EQ(links.size(), 2u);
}

TEST_F(LinkPublicationTest, TakesManyLinksAwayInRuns) {
  for (std::uint32_t index = 1; index <= 100; ++index)
    publication.linkIs(tunnel(index, 10));
  scheduler->yieldIs(Yield::always);
  publication.beginReading();
  bool done = false;
  publication.endReading(true, Pace::inRuns, [&] { done = true; });
  for (std::size_t left = 100; left != 0; --left) {
    ASSERT_EQ(links.size(), left);
    ASSERT_TRUE(scheduler->runOne());
  }
  EXPECT_FALSE(done);
  settle();
  EXPECT_TRUE(done);
  EXPECT_TRUE(isGone(1));
}

TEST_F(LinkPublicationTest, DropsARunWhenAnotherReadBegins) {
  publication.linkIs(tunnel(1, 10));
  publication.beginReading();
  bool done = false;
  publication.endReading(true, Pace::inRuns, [&] { done = true; });
  publication.beginReading();
  settle();
  EXPECT_FALSE(done);
  EXPECT_FALSE(isGone(1));
  publication.found(tunnel(1, 20));
  EXPECT_TRUE(end(true));
  EXPECT_EQ(hopLimit(1), 20);
}

TEST_F(LinkPublicationTest, MayEndBetweenTwoRuns) {
  Sources::Links other;
  auto shortLived = std::make_unique<LinkPublication>(Sources::Linux::TunnelKindSet::defaults(),
                                                      publishers, other);
  shortLived->linkIs(tunnel(1, 10));
  shortLived->beginReading();
  shortLived->endReading(true, Pace::inRuns, [] { FAIL(); });
  shortLived.reset();
  settle();
  EXPECT_EQ(hopLimit(1), 10);
}

TEST_F(LinkPublicationTest, BeginsAReadAnew) {
  publication.linkIs(tunnel(1, 10));
  publication.beginReading();
  publication.found(tunnel(2, 20));
  publication.beginReading();
  publication.found(tunnel(1, 10));
  EXPECT_TRUE(end(true));
  EXPECT_TRUE(isGone(2)) << "the first one was not ended";
  EXPECT_EQ(hopLimit(1), 10);
}

} // namespace
