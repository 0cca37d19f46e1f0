// How far SAs have come, and what that makes of a connection.
#include "sources/ike/ConnectionState.h"
#include <gtest/gtest.h>

namespace {

using ::Ipsec::Ike::ConnState;
using namespace Sources::Ike;

constexpr IkeState inUse[] = {IkeState::established, IkeState::passive, IkeState::rekeying,
                              IkeState::rekeyed};

TEST(ConnectionState, IsThatOfAnIkeSaWithoutChild) {
  EXPECT_EQ(connectionState(IkeState::created), ConnState::connecting);
  EXPECT_EQ(connectionState(IkeState::connecting), ConnState::connecting);
  EXPECT_EQ(connectionState(IkeState::established), ConnState::ikeUp);
  EXPECT_EQ(connectionState(IkeState::passive), ConnState::ikeUp);
  EXPECT_EQ(connectionState(IkeState::rekeying), ConnState::rekeying);
  EXPECT_EQ(connectionState(IkeState::rekeyed), ConnState::closing);
  EXPECT_EQ(connectionState(IkeState::deleting), ConnState::closing);
  EXPECT_EQ(connectionState(IkeState::destroying), ConnState::closing);
  EXPECT_EQ(connectionState(IkeState::unknown), ConnState::unknown);
}

TEST(ConnectionState, IsUpWithAChildThatCarries) {
  for (auto child :
       {ChildState::installed, ChildState::updating, ChildState::rekeying, ChildState::rekeyed}) {
    EXPECT_EQ(connectionState(IkeState::established, child), ConnState::up);
    EXPECT_EQ(connectionState(IkeState::rekeying, child), ConnState::up);
    EXPECT_EQ(connectionState(IkeState::rekeyed, child), ConnState::up);
    EXPECT_EQ(connectionState(IkeState::passive, child), ConnState::ikeUp);
  }
}

TEST(ConnectionState, IsThatOfTheIkeSaWhileNoChildCarriesYet) {
  for (auto child :
       {ChildState::created, ChildState::routed, ChildState::installing, ChildState::retrying})
    for (auto ike : inUse)
      EXPECT_EQ(connectionState(ike, child), connectionState(ike));
}

TEST(ConnectionState, IsClosingWithAChildThatGoes) {
  for (auto ike : inUse)
    EXPECT_EQ(connectionState(ike, ChildState::deleting), ConnState::closing);
}

TEST(ConnectionState, IsThatOfAnIkeSaThatComesOrGoesWhateverTheChild) {
  for (auto child : {ChildState::installed, ChildState::deleting, ChildState::unknown}) {
    EXPECT_EQ(connectionState(IkeState::created, child), ConnState::connecting);
    EXPECT_EQ(connectionState(IkeState::connecting, child), ConnState::connecting);
    EXPECT_EQ(connectionState(IkeState::deleting, child), ConnState::closing);
    EXPECT_EQ(connectionState(IkeState::destroying, child), ConnState::closing);
  }
}

TEST(ConnectionState, IsUnknownByAWordThatNobodyKnows) {
  EXPECT_EQ(connectionState(IkeState::unknown, ChildState::installed), ConnState::unknown);
  for (auto ike : inUse)
    EXPECT_EQ(connectionState(ike, ChildState::unknown), ConnState::unknown);
}

TEST(ConnectionState, CountsNoChildThatIsDeleted) {
  EXPECT_FALSE(isThere(ChildState::deleted));
  EXPECT_FALSE(isThere(ChildState::destroying));
  for (auto child :
       {ChildState::created, ChildState::routed, ChildState::installing, ChildState::installed,
        ChildState::updating, ChildState::rekeying, ChildState::rekeyed, ChildState::retrying,
        ChildState::deleting, ChildState::unknown})
    EXPECT_TRUE(isThere(child));
}

TEST(ConnectionState, HasAnOrderOfPreference) {
  ConnState const order[] = {ConnState::up,         ConnState::rekeying, ConnState::ikeUp,
                             ConnState::connecting, ConnState::closing,  ConnState::unknown,
                             ConnState::down};
  for (auto const & one : order)
    for (auto const & other : order) {
      EXPECT_EQ(isBetter(one, other), &one < &other);
      EXPECT_EQ(betterOf(one, other), &one < &other ? one : other);
    }
}

} // namespace
