// The index finds what a look at every link finds, whatever has happened to the links, and what it
// takes to follow one does not grow with them.
#include "tests/sources/ike/BindingWorld.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/TestScheduler.h"
#include <algorithm>
#include <random>

namespace Sources::Ike {
namespace {

using Plexa::IntfId;
using testing::ElementsAre;
using testing::IsEmpty;

using Ids = std::vector<std::uint64_t>;

/// In order.
Ids idsOf(LinkIndex::Found const & found) {
  Ids ids;
  for (auto const * link : found)
    ids.push_back(link->intfId.value());
  std::ranges::sort(ids);
  return ids;
}

/// Few values of each sort, so that they meet.
class RandomLinks {
public:
  RandomLinks() : random_(testSeed()) {}

  std::size_t below(std::size_t end) {
    return std::uniform_int_distribution<std::size_t>(0, end - 1)(random_);
  }
  IntfId id() { return IntfId(1 + below(12)); }
  Link link() {
    static std::string_view const kinds[] = {"xfrm", "vti", "vti6", "gre", "vxlan"};
    Link one{.intfId = id(), .name = "l" + std::to_string(below(4)), .kind = kinds[below(5)]};
    if (below(3) != 0)
      one.ifId = static_cast<std::uint32_t>(below(3));
    if (below(3) != 0)
      one.outputKey = static_cast<std::uint32_t>(below(3));
    one.local = one.kind == "xfrm" ? Plexa::IpGenAddr() : addresses[below(4)];
    one.remote = one.kind == "xfrm" ? Plexa::IpGenAddr() : addresses[below(4)];
    return one;
  }

  /// Both sorts of none, and two.
  std::array<Plexa::IpGenAddr, 4> const addresses{Plexa::IpGenAddr(), address("0.0.0.0"),
                                                  address("10.9.0.1"), address("2001:db8::1")};

private:
  std::mt19937 random_;
};

class LinkIndexTest : public testing::Test {
protected:
  Ids those(auto is) const {
    Ids ids;
    links.forEach([&](Link const & link) {
      if (is(link))
        ids.push_back(link.intfId.value());
    });
    return ids;
  }

  static bool isBetween(Link const & link, Endpoints const & ends) {
    auto const isLocal =
        ends.local == Plexa::IpGenAddr() ? link.local.isAddrZero() : link.local == ends.local;
    return isLocal && link.remote == ends.remote && !link.remote.isAddrZero();
  }

  /// Of all that there may be.
  void expectAllFound(LinkIndex const & index) {
    for (std::uint32_t number = 0; number != 4; ++number)
      EXPECT_EQ(idsOf(index.withIfId(number)), those([&](Link const & link) {
                  return number != 0 && link.kind == "xfrm" && link.ifId == number;
                }));
    for (auto const & local : random.addresses)
      for (auto const & remote : random.addresses)
        if (local == Plexa::IpGenAddr() || !local.isAddrZero())
          expectFoundBetween(index, {local, remote});
  }

  void expectFoundBetween(LinkIndex const & index, Endpoints const & ends) {
    EXPECT_EQ(idsOf(index.between(ends)),
              those([&](Link const & link) { return isBetween(link, ends); }));
    for (std::uint32_t key = 0; key != 4; ++key)
      EXPECT_EQ(idsOf(index.withKey(key, ends)), those([&](Link const & link) {
                  return link.kind.starts_with("vti") && link.outputKey == key &&
                         isBetween(link, ends);
                }));
  }

  /// Links 1 to `count`, each xfrm with its own id or vti with its own key, all between the same
  /// endpoints.
  void manyLinks(std::uint32_t count) {
    for (std::uint32_t id = 1; id <= count; ++id)
      links.linkIs(id % 2 == 0 ? xfrmLink(id, "x", id) : vtiLink(id, "v", id));
  }

  RandomLinks random;
  Links links;
};

TEST_F(LinkIndexTest, FindsWhatALookAtEveryLinkFinds) {
  LinkIndex const index(links);
  for (int change = 0; change != 500 && !HasFailure(); ++change) {
    SCOPED_TRACE(change);
    if (random.below(4) == 0)
      links.linkDel(random.id());
    else
      links.linkIs(random.link());
    expectAllFound(index);
  }
}

TEST_F(LinkIndexTest, FindsLinksThatWereThereBefore) {
  for (int times = 0; times != 30; ++times)
    links.linkIs(random.link());
  expectAllFound(LinkIndex(links));
}

TEST_F(LinkIndexTest, FollowsAReadingOfAllLinks) {
  LinkIndex const index(links);
  for (int round = 0; round != 100 && !HasFailure(); ++round) {
    Links::Reading reading(links);
    for (auto count = random.below(12); count != 0; --count)
      reading.linkIs(random.link());
    while (reading.endNext()) {
    }
    expectAllFound(index);
  }
}

TEST_F(LinkIndexTest, EndsBeforeTheLinks) {
  { LinkIndex const index(links); }
  links.linkIs(xfrmLink(1, "x", 7));
  EXPECT_THAT(idsOf(LinkIndex(links).withIfId(7)), ElementsAre(1));
}

// Each allocation is of one node of a tree, or of one link.
TEST_F(LinkIndexTest, FollowsALinkAtACostThatDoesNotGrowWithThem) {
  constexpr long allocations = 40;
  for (auto const count : {100u, 5000u}) {
    manyLinks(count);
    LinkIndex const index(links);
    auto const gone = vtiLink(count / 2 + 1, "v", count + 1);
    FailingMemory const failing(allocations, FailingMemory::Fails::once);
    links.linkDel(gone.intfId);
    links.linkIs(gone);
    EXPECT_EQ(index.withKey(count + 1, endpointsOf(gone)).size(), 1u);
    EXPECT_FALSE(FailingMemory::hasFailed()) << count << " links";
  }
}

TEST_F(LinkIndexTest, IsWholeAgainAfterAShortageOfMemory) {
  LinkIndex const index(links);
  manyLinks(200);
  long before = 0;
  for (auto isShort = true; isShort; ++before) {
    SCOPED_TRACE(before);
    auto const id = static_cast<std::uint32_t>(1000 + before);
    auto const & vti = vtiLink(id, "", id);
    {
      FailingMemory const failing(before, FailingMemory::Fails::once);
      try {
        links.linkIs(vti);
      } catch (std::bad_alloc const &) {
        // The links had none.
      }
      isShort = FailingMemory::hasFailed();
    }
    links.linkDel(IntfId(id - 3));
    EXPECT_EQ(index.withKey(id, endpointsOf(vti)).size(),
              links.find(IntfId(id)) == nullptr ? 0 : 1);
    EXPECT_EQ(index.between(endpointsOf(vti)).size(),
              those([](Link const & link) { return link.kind == "vti"; }).size());
  }
  EXPECT_GE(before, 3) << "the links' own, and at least one of the index";
}

TEST_F(LinkIndexTest, RaisesWhatItLacksAndTriesAgain) {
  LinkIndex const index(links);
  manyLinks(50);
  auto const vti = vtiLink(1001, "", 1001);
  auto rebuilds = 0;
  for (long before = 0; before != 20; ++before) {
    links.linkDel(vti.intfId);
    FailingMemory const failing(before, FailingMemory::Fails::always);
    try {
      links.linkIs(vti);
      static_cast<void>(index.withKey(1001, endpointsOf(vti)));
    } catch (std::bad_alloc const &) {
      ++rebuilds;
    }
  }
  EXPECT_GE(rebuilds, 3);
  links.linkIs(vti);
  EXPECT_THAT(idsOf(index.withKey(1001, endpointsOf(vti))), ElementsAre(1001));
  EXPECT_EQ(index.between(endpointsOf(vti)).size(), 26u);
}

} // namespace
} // namespace Sources::Ike
