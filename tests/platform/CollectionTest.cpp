// Both collections against std::map, step by step; and what a scan that is cut into runs relies on.
// Built twice: over the tuned tree, and over Abseil's public one.
#include "platform/zel/HashMap2018.h"
#include "platform/zel/RbTreeMap.h"
#include "tests/support/TestScheduler.h"
#include <algorithm>
#include <array>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

namespace {

using testing::ElementsAre;

// Keys are types of this file: what is built of them meets no library that was built over the other
// tree. A node holds 126 of the narrow ones, or four wide ones: a tree of these is as deep as one
// of many rows.
template <std::size_t Beside>
struct KeyOf {
  KeyOf(std::uint32_t number) : value(number) {}
  operator std::uint32_t() const { return value; } // by which they are compared
  std::uint32_t value;
  std::array<std::uint32_t, Beside> beside{};
};
struct Narrow : KeyOf<0> {
  using KeyOf::KeyOf;
};
struct Wide : KeyOf<60> {
  using KeyOf::KeyOf;
};

#ifdef ZEL_PUBLIC_BTREE
static_assert(std::is_same_v<Zel::Detail::BTree<Narrow, int>,
                             absl::btree_map<Narrow, int, Zel::Detail::KeyLess<Narrow>>>);
#endif

// What the harness asks of either collection, under one name.
template <class KeyType>
struct Hashed {
  using Key = KeyType;
  template <class Value>
  using Map = Zel::HashMap2018<Key, Value>;
  static constexpr std::uint32_t clearingNothing = 0; // steps of the stamp

  static std::uint32_t stamp(auto const & map) { return map.changeStamp(); }
  static bool erase(auto & map, Key const & key) { return map.erase(key); }
  static auto const * find(auto const & map, Key const & key) { return map.find(key); }
  static auto notBefore(auto const & map, Key const & key) { return map.seek(key); }
  static auto behind(auto const & map, Key const & key) { return map.seekBehind(key); }
};
template <class KeyType>
struct Ordered {
  using Key = KeyType;
  template <class Value>
  using Map = Zel::RbTreeMap<Key, Value>;
  static constexpr std::uint32_t clearingNothing = 1;

  static std::uint32_t stamp(auto const & map) { return map.version(); }
  static bool erase(auto & map, Key const & key) {
    auto const place = map.find(key);
    if (place == map.end())
      return false;
    auto const value = place->second;
    EXPECT_EQ(map.erase(place), value);
    return true;
  }
  static auto const * find(auto const & map, Key const & key) {
    auto const place = map.find(key);
    return place == map.end() ? nullptr : &place->second;
  }
  static auto notBefore(auto const & map, Key const & key) { return map.findNotLess(key); }
  static auto behind(auto const & map, Key const & key) { return map.findNext(key); }
};

template <class Map>
std::vector<std::uint32_t> keysOf(Map const & map) {
  std::vector<std::uint32_t> keys;
  for (auto const & [key, value] : map)
    keys.push_back(key);
  return keys;
}
template <class Map>
void expectSamePlace(Map const & map, typename Map::const_iterator found, auto const & oracle,
                     auto expected) {
  ASSERT_EQ(found == map.end(), expected == oracle.end());
  if (found != map.end()) {
    ASSERT_EQ(found->first, expected->first);
  }
}

template <class Kind>
class Collection : public testing::Test {
protected:
  using Key = typename Kind::Key;
  using Map = typename Kind::template Map<std::uint32_t>;
  using Oracle = std::map<std::uint32_t, std::uint32_t>;

  void insert(std::uint32_t key, std::uint32_t value) {
    map_.insertOrReplace(key, value);
    oracle_.insert_or_assign(key, value);
  }
  void erase(std::uint32_t key) { ASSERT_EQ(Kind::erase(map_, key), oracle_.erase(key) == 1); }
  void clear() {
    map_.clear();
    oracle_.clear();
  }
  std::uint32_t stamp() const { return Kind::stamp(map_); }
  void expectSameContent() const {
    ASSERT_EQ(map_.size(), oracle_.size());
    ASSERT_EQ(map_.empty(), oracle_.empty());
    auto expected = oracle_.begin();
    for (auto const & [key, value] : map_) {
      ASSERT_EQ(key, expected->first);
      ASSERT_EQ(value, (expected++)->second);
    }
    ASSERT_EQ(expected, oracle_.end());
  }
  void expectSameLookUps(std::uint32_t key) const {
    auto const * found = Kind::find(map_, key);
    ASSERT_EQ(found != nullptr, oracle_.contains(key)) << key;
    if (found != nullptr) {
      ASSERT_EQ(*found, oracle_.at(key));
    }
    expectSamePlace(map_, Kind::notBefore(map_, key), oracle_, oracle_.lower_bound(key));
    expectSamePlace(map_, Kind::behind(map_, key), oracle_, oracle_.upper_bound(key));
  }

  std::mt19937 random_{testSeed()};
  std::uint32_t drawn(std::uint32_t below) { return static_cast<std::uint32_t>(random_() % below); }
  Map map_;
  Oracle oracle_;
};
using Kinds = testing::Types<Hashed<Narrow>, Hashed<Wide>, Ordered<Narrow>, Ordered<Wide>>;
TYPED_TEST_SUITE(Collection, Kinds);

TYPED_TEST(Collection, AgreesWithTheStandardMapAfterEveryStep) {
  for (std::uint32_t step = 0; step != 5000; ++step) {
    auto const key = this->drawn(200);
    if (auto const kind = this->drawn(400); kind == 0)
      this->clear();
    else if (kind % 5 < 3)
      this->insert(key, step);
    else
      this->erase(key);
    this->expectSameContent();
    this->expectSameLookUps(key);
    this->expectSameLookUps(this->drawn(202));
    if (this->HasFatalFailure())
      return;
  }
}

TYPED_TEST(Collection, AdvancesItsStampByOneForEachInsertionAndRemovalAndForNothingElse) {
  for (std::uint32_t step = 0; step != 2000; ++step) {
    auto const key = this->drawn(100);
    auto const present = this->oracle_.contains(key);
    auto expected = this->stamp();
    if (this->drawn(2) == 0) {
      this->insert(key, step);
      expected += !present;
    } else {
      this->erase(key);
      expected += present;
    }
    this->expectSameLookUps(this->drawn(100));
    ASSERT_EQ(this->stamp(), expected);
  }
  this->insert(1, 0);
  auto const before = this->stamp();
  this->clear();
  EXPECT_EQ(this->stamp(), before + 1) << "all at once";
  this->clear();
  EXPECT_EQ(this->stamp(), before + 1 + TypeParam::clearingNothing);
}

// Many entries: upwards, downwards and at random, and fewer and fewer again.
TYPED_TEST(Collection, AgreesWithTheStandardMapInWhateverOrderEntriesComeAndGo) {
  std::function<std::uint32_t(std::uint32_t)> const orders[] = {
      [](std::uint32_t step) { return step; }, [](std::uint32_t step) { return 3000 - step; },
      [this](std::uint32_t) { return this->drawn(3000); }};
  auto const expectSame = [this] {
    this->expectSameContent();
    for (std::uint32_t key = 0; key != 3002; ++key)
      this->expectSameLookUps(key);
  };
  for (auto const & come : orders)
    for (auto const & go : orders) {
      for (std::uint32_t step = 0; step != 3000; ++step)
        this->insert(come(step), step);
      expectSame();
      for (std::uint32_t step = 0; step != 2950; ++step)
        this->erase(go(step));
      expectSame();
      if (this->HasFatalFailure())
        return;
    }
}

// A scan by key with anything in between meets every key that was there all the time, exactly once.
TYPED_TEST(Collection, ShowsEachKeyThatStaysExactlyOnceToAScanByKey) {
  constexpr std::uint32_t keys = 600;
  for (int round = 0; round != 50; ++round) {
    this->clear();
    std::set<std::uint32_t> stayed;
    for (std::uint32_t i = 0; i != 40; ++i) {
      auto const key = this->drawn(keys);
      this->insert(key, 0);
      stayed.insert(key);
    }
    auto const remove = [&](std::uint32_t key) {
      this->erase(key);
      stayed.erase(key);
    };
    std::vector<std::uint32_t> seen;
    auto position = this->map_.begin();
    while (position != this->map_.end()) {
      std::uint32_t const last = position->first;
      seen.push_back(last);
      for (auto changes = this->drawn(4); changes != 0; --changes)
        this->drawn(2) == 0 ? this->insert(this->drawn(keys), 1) : remove(this->drawn(keys));
      if (this->drawn(10) == 0) // growth by more than a node
        for (int i = 0; i != 150; ++i)
          this->insert(this->drawn(keys), 2);
      if (this->drawn(3) == 0) // the remembered key itself
        remove(last);
      position = TypeParam::behind(this->map_, last);
    }
    EXPECT_EQ(std::ranges::adjacent_find(seen, std::ranges::greater_equal()), seen.end());
    for (auto const key : stayed)
      EXPECT_EQ(std::ranges::count(seen, key), 1) << key;
  }
}

TYPED_TEST(Collection, FindsWhereAScanLeftOffEvenIfThatKeyIsGone) {
  for (std::uint32_t key = 0; key != 500; ++key)
    this->insert(key, 0);
  for (std::uint32_t key = 0; key != 499; ++key) {
    EXPECT_EQ(TypeParam::notBefore(this->map_, key)->first, key);
    this->erase(key);
    EXPECT_EQ(TypeParam::notBefore(this->map_, key)->first, key + 1);
    EXPECT_EQ(TypeParam::behind(this->map_, key)->first, key + 1);
  }
  this->clear();
  EXPECT_EQ(TypeParam::notBefore(this->map_, 3), this->map_.end());
}

// What ends with a value may look at the collection.
TYPED_TEST(Collection, ReleasesValuesWhenItIsConsistentAgain) {
  struct Watcher;
  using Watched = typename TypeParam::template Map<std::shared_ptr<Watcher>>;
  struct Watcher {
    Watched const & map;
    std::vector<std::vector<std::uint32_t>> & seen;
    ~Watcher() { seen.push_back(keysOf(map)); }
  };
  std::vector<std::vector<std::uint32_t>> seen;
  Watched map;
  auto const watchedBesideTwo = [&] {
    map.insertOrReplace(1, std::make_shared<Watcher>(map, seen));
    map.insertOrReplace(2, nullptr);
  };
  watchedBesideTwo();
  map.insertOrReplace(1, nullptr);
  watchedBesideTwo();
  TypeParam::erase(map, 1);
  watchedBesideTwo();
  map.clear();
  EXPECT_THAT(seen, ElementsAre(ElementsAre(1, 2), ElementsAre(2), ElementsAre()))
      << "replaced, erased, cleared";
}

TEST(RbTreeMapValues, MayChangeTheMapWhenTheyEnd) {
  struct Remover;
  using Map = Zel::RbTreeMap<Narrow, std::shared_ptr<Remover>>;
  struct Remover {
    Map & map;
    ~Remover() {
      if (auto const other = map.find(2); other != map.end())
        map.erase(other);
    }
  };
  Map map;
  auto const removerBesideTwo = [&] {
    map.insertOrReplace(1, std::make_shared<Remover>(map));
    map.insertOrReplace(2, nullptr);
  };
  removerBesideTwo();
  map.insertOrReplace(1, nullptr);
  EXPECT_THAT(keysOf(map), ElementsAre(1));
  removerBesideTwo();
  map.erase(map.find(1));
  EXPECT_TRUE(map.empty());
}

TEST(RbTreeMap, GivesTheEmptyValueForAKeyThatIsNotThere) {
  Zel::RbTreeMap<Narrow, std::uint32_t> map;
  map.insertOrReplace(1, 7);
  EXPECT_EQ(map[1], 7u);
  EXPECT_EQ(map[2], 0u);
}

TEST(HashMap, IteratesInTheOrderOfItsKeysAndTellsIt) {
  Zel::HashMap2018<Narrow, int> map;
  for (std::uint32_t const key : {5, 2, 9, 4, 1, 8})
    EXPECT_EQ(map.insertOrReplace(key, static_cast<int>(key)), static_cast<int>(key));
  EXPECT_THAT(keysOf(map), ElementsAre(1, 2, 4, 5, 8, 9));
  EXPECT_TRUE(map.comesBefore(2, 4));
  EXPECT_FALSE(map.comesBefore(4, 2));
  EXPECT_FALSE(map.comesBefore(4, 4));
}

TEST(HashMap, LetsAVisitorChangeIt) {
  Zel::HashMap2018<Narrow, int> map;
  for (std::uint32_t key = 0; key != 400; ++key)
    map.insertOrReplace(key, 0);
  std::vector<std::uint32_t> visited;
  map.forEach([&](std::uint32_t key, int) {
    visited.push_back(key);
    ASSERT_NE(map.find(key), nullptr);
    map.erase(key);
    map.erase(key + 1); // is not visited any more
    if (key < 400)
      map.insertOrReplace(1000 + key, 0); // is visited later
  });
  std::vector<std::uint32_t> expected;
  for (std::uint32_t key = 0; key != 400; key += 2)
    expected.push_back(key);
  for (std::uint32_t key = 1000; key != 1400; key += 2)
    expected.push_back(key);
  EXPECT_EQ(visited, expected);
  EXPECT_TRUE(map.empty());
}

// A sanitizer has nothing to find in eight million equal steps, and takes half a minute for them.
TEST(HashMapStamp, ComesRoundAfterTwentyThreeBits) {
#ifdef SANITIZED
  GTEST_SKIP() << "checked without a sanitizer";
#endif
  Zel::HashMap2018<Narrow, int> map;
  for (std::uint32_t step = 0; step != (1u << 22) - 1; ++step) {
    map.insertOrReplace(1, 0);
    map.erase(1);
  }
  map.insertOrReplace(1, 0);
  EXPECT_EQ(map.changeStamp(), 0x7FFFFFu);
  map.erase(1);
  EXPECT_EQ(map.changeStamp(), 0u);
}

} // namespace
