// Claims: one publisher's word on single members of another publisher's records.
#include "tests/statedb/PublisherFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StatusClaim : public PublisherFixture {
protected:
  using Claim = StateDb::Claim<Status>;

  static Claim ipsec(bool value) { return Claim().with<&Status::ipsec>(value); }
  static Claim hopLimit(std::uint8_t value) { return Claim().with<&Status::hopLimit>(value); }

  Publisher claimant{publishers};
};

TEST_F(StatusClaim, OverridesAndGivesBackInEitherOrder) {
  publisher.statusIs(id(5), tos(5, false));
  claimant.statusClaimIs(id(5), ipsec(true));
  EXPECT_TRUE(record(5)->ipsec());
  claimant.statusClaimDel(id(5));
  EXPECT_FALSE(record(5)->ipsec());

  claimant.statusClaimIs(id(6), ipsec(true));
  EXPECT_EQ(at(statuses, 6), "nothing") << "a claim creates no record";
  publisher.statusIs(id(6), tos(6, false));
  EXPECT_EQ(record(6)->values(), tos(6, true));
  publisher.statusDel(id(6));
  EXPECT_EQ(at(statuses, 6), "nothing");
  publisher.statusIs(id(6), tos(7, false));
  EXPECT_EQ(record(6)->values(), tos(7, true)) << "a claim outlasts the record";
  claimant.statusClaimDel(id(6));
  EXPECT_EQ(record(6)->values(), tos(7, false));
}

TEST_F(StatusClaim, IsThereWhenTheRecordIsInserted) {
  claimant.statusClaimIs(id(5), ipsec(true));
  recorder.then = [&](auto const &) { EXPECT_TRUE(record(5)->ipsec()); };
  publisher.statusIs(id(5), tos(5));
  EXPECT_THAT(heard(), ElementsAre("intfStatus 5"));
}

TEST_F(StatusClaim, RemembersWhatThePublisherSaysMeanwhile) {
  publisher.statusIs(id(5), tos(5, true));
  claimant.statusClaimIs(id(5), ipsec(false));
  publisher.statusIs(id(5), tos(5, false));
  publisher.statusIs(id(5), tos(5, true));
  EXPECT_FALSE(record(5)->ipsec());
  claimant.statusClaimDel(id(5));
  EXPECT_TRUE(record(5)->ipsec());
}

TEST_F(StatusClaim, NotifiesOnlyWhatBecomesDifferent) {
  publisher.statusIs(id(5), tos(5, true));
  listenToStatus(5);
  heard();
  claimant.statusClaimIs(id(5), ipsec(true));
  EXPECT_THAT(heard(), IsEmpty());
  claimant.statusClaimIs(id(5), ipsec(false).with<&Status::hopLimit>(9));
  EXPECT_THAT(heard(), ElementsAre("hopLimit", "ipsec"));
  publisher.statusIs(id(5), tos(6, true));
  EXPECT_THAT(heard(), ElementsAre("tos"));
  claimant.statusClaimIs(id(5), hopLimit(9));
  EXPECT_THAT(heard(), ElementsAre("ipsec"));
  claimant.statusClaimIs(id(5), Claim());
  EXPECT_THAT(heard(), ElementsAre("hopLimit"));
  EXPECT_EQ(claimant.counts(), Publisher::Counts());
}

TEST_F(StatusClaim, OfTheLastToComeHasAMemberThatSeveralClaim) {
  Publisher second(publishers);
  publisher.statusIs(id(5), Status{.hopLimit = 1});
  claimant.statusClaimIs(id(5), hopLimit(2));
  second.statusClaimIs(id(5), hopLimit(3));
  claimant.statusClaimIs(id(5), hopLimit(4).with<&Status::tos>(4));
  EXPECT_EQ(record(5)->values(), (Status{.hopLimit = 3, .tos = 4}));
  second.statusClaimDel(id(5));
  EXPECT_EQ(record(5)->hopLimit(), 4);
  claimant.statusClaimDel(id(5));
  EXPECT_EQ(record(5)->hopLimit(), 1);
}

TEST_F(StatusClaim, LeavesRecordsAloneThatNobodyPublished) {
  patch("add", std::string(statuses) + "/5", json::object());
  claimant.statusClaimIs(id(5), ipsec(true));
  EXPECT_FALSE(record(5)->ipsec());
  publisher.statusIs(id(5), tos(5));
  EXPECT_TRUE(record(5)->ipsec());
  patch("remove", std::string(statuses) + "/5");
  publisher.statusDel(id(5));
  patch("add", std::string(statuses) + "/5", json::object());
  claimant.statusClaimIs(id(5), ipsec(true).with<&Status::tos>(9));
  claimant.statusClaimDel(id(5));
  EXPECT_EQ(record(5)->values(), Status());
}

TEST_F(StatusClaim, LeavesARecordAloneWhosePublisherHasEnded) {
  auto ended = std::make_unique<Publisher>(publishers);
  ended->statusIs(id(5), tos(5));
  auto const read = ended->beginFullRead(); // which outlives it
  ended.reset();
  claimant.statusClaimIs(id(5), ipsec(true));
  EXPECT_FALSE(record(5)->ipsec());
}

TEST_F(StatusClaim, LeavesANullRecordNull) {
  publisher.statusIs(id(5), std::nullopt);
  claimant.statusClaimIs(id(5), ipsec(true));
  EXPECT_EQ(at(statuses, 5), nullptr);
  publisher.statusIs(id(5), tos(5));
  EXPECT_TRUE(record(5)->ipsec());
  publisher.statusIs(id(5), std::nullopt);
  claimant.statusClaimDel(id(5));
  EXPECT_EQ(at(statuses, 5), nullptr);
}

TEST_F(StatusClaim, IsNoDifferenceToAFullReadOfThePublisher) {
  publisher.statusIs(id(5), tos(5));
  claimant.statusClaimIs(id(5), ipsec(true));
  listenToStatus(5);
  heard();
  auto read = publisher.beginFullRead();
  read.statusIs(id(5), tos(5));
  std::move(read).commit(atOnce);
  EXPECT_THAT(heard(), IsEmpty());
  patch("replace", std::string(statuses) + "/5/ipsec", false);
  auto again = publisher.beginFullRead();
  again.statusIs(id(5), tos(5));
  std::move(again).commit(atOnce);
  EXPECT_TRUE(record(5)->ipsec()) << "what others did to a claimed member is undone as well";
}

TEST_F(StatusClaim, GoesWhenAFullReadOfItsClaimantDoesNotFindIt) {
  for (std::uint64_t i : {1, 2, 3})
    publisher.statusIs(id(i), tos(1));
  claimant.statusClaimIs(id(1), ipsec(true));
  claimant.statusClaimIs(id(2), ipsec(true));
  patch("replace", std::string(statuses) + "/2/ipsec", false);
  auto read = claimant.beginFullRead();
  read.statusClaimIs(id(2), ipsec(true));
  read.statusClaimIs(id(3), ipsec(true));
  read.statusClaimIs(id(1), Claim());
  std::move(read).commit(atOnce);
  EXPECT_FALSE(record(1)->ipsec());
  EXPECT_TRUE(record(2)->ipsec());
  EXPECT_TRUE(record(3)->ipsec());
  EXPECT_EQ(claimant.counts(), (Publisher::Counts{.statusClaims = 2}));
}

TEST_F(StatusClaim, IsForgottenWithItsClaimant) {
  publisher.statusIs(id(5), tos(5));
  {
    Publisher third(publishers);
    third.statusClaimIs(id(5), ipsec(true));
  }
  EXPECT_TRUE(record(5)->ipsec());
  publisher.statusIs(id(5), tos(5));
  EXPECT_FALSE(record(5)->ipsec());
}

TEST_F(StatusClaim, ReportsWhatNotifieesRaise) {
  publisher.statusIs(id(5), tos(5));
  listenToStatus(5);
  recorder.then = [](auto const & text) { throw std::runtime_error("no " + text); };
  claimant.statusClaimIs(id(5), ipsec(true));
  claimant.statusClaimDel(id(5));
  EXPECT_THAT(failures, ElementsAre("/tunnelIntfStatusDir/intfStatus/5: no ipsec",
                                    "/tunnelIntfStatusDir/intfStatus/5: no ipsec"));
}

} // namespace
