// Both collections against std::map, step by step; and what a scan that is cut into runs relies on.
#include "platform/Zel.h"
#include "tests/support/TestScheduler.h"
#include <array>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <random>
#include <set>

namespace {

struct ConstantHasher {
  std::uint32_t operator()(std::uint32_t) const { return 7; }
};
struct LastHasher { // all entries behind the last home
  std::uint32_t operator()(std::uint32_t) const { return UINT32_MAX; }
};
struct TopBitHasher { // all entries at two homes
  std::uint32_t operator()(std::uint32_t key) const { return (key & 1) << 31; }
};

using testing::ElementsAre;

// Keys in iteration order.
template <class Map>
std::vector<std::uint32_t> keysOf(Map const & map) {
  std::vector<std::uint32_t> keys;
  for (auto const & [key, value] : map)
    keys.push_back(key);
  return keys;
}

/// A key that is too wide for its hash to be computed again and again: the map keeps the hashes.
class WideKey {
public:
  WideKey(std::uint32_t value) : value_(value) {}
  operator std::uint32_t() const { return static_cast<std::uint32_t>(value_); }
  std::uint32_t hash(std::uint32_t seed) const { return Zel::Hash(seed).mix(value_).result(); }

private:
  std::uint64_t value_;
  std::uint64_t beside_ = 0;
};

template <class Key, class Hasher>
struct Kind {
  template <class Value>
  using Map = Zel::HashMap2018<Key, Value, Hasher>;
};
template <class>
class HashMap : public testing::Test {};
using Kinds = testing::Types<Kind<std::uint32_t, Zel::DefaultHasher>,
                             Kind<std::uint32_t, ConstantHasher>, Kind<std::uint32_t, LastHasher>,
                             Kind<std::uint32_t, TopBitHasher>, Kind<WideKey, Zel::DefaultHasher>,
                             Kind<WideKey, ConstantHasher>, Kind<WideKey, TopBitHasher>>;
TYPED_TEST_SUITE(HashMap, Kinds);

TYPED_TEST(HashMap, AgreesWithTheStandardMapAfterEveryStep) {
  std::mt19937 random(testSeed());
  typename TypeParam::template Map<std::string> map;
  std::map<std::uint32_t, std::string> oracle;
  for (int step = 0; step != 3000; ++step) {
    auto const key = static_cast<std::uint32_t>(random() % 120);
    auto const stamp = map.changeStamp();
    switch (random() % 4) {
    case 0:
    case 1: {
      auto const present = oracle.contains(key);
      oracle.insert_or_assign(key, std::to_string(step));
      EXPECT_EQ(map.insertOrReplace(key, std::to_string(step)), std::to_string(step));
      EXPECT_EQ(map.changeStamp() != stamp, !present);
      break;
    }
    case 2: {
      auto const erased = oracle.erase(key) == 1;
      EXPECT_EQ(map.erase(key), erased);
      EXPECT_EQ(map.changeStamp() != stamp, erased);
      break;
    }
    default:
      if (random() % 200 == 0) {
        oracle.clear();
        map.clear();
      }
    }
    ASSERT_EQ(map.size(), oracle.size());
    ASSERT_EQ(map.empty(), oracle.empty());
    std::map<std::uint32_t, std::string> const content(map.begin(), map.end());
    ASSERT_EQ(content, oracle);
    auto const * found = map.find(key);
    ASSERT_EQ(found != nullptr, oracle.contains(key));
    if (found != nullptr) {
      ASSERT_EQ(*found, oracle.at(key));
    }
  }
}

TYPED_TEST(HashMap, KeepsItsOrderWhenItGrows) {
  typename TypeParam::template Map<int> map;
  std::vector<std::uint32_t> before;
  for (std::uint32_t key = 0; key != 300; ++key) {
    map.insertOrReplace(key * 2654435761u, 0);
    auto after = keysOf(map);
    std::erase(after, key * 2654435761u);
    ASSERT_EQ(after, before) << "the new key aside, nothing moved";
    before = keysOf(map);
  }
}

TYPED_TEST(HashMap, FindsWhereAScanLeftOffEvenIfThatKeyIsGone) {
  typename TypeParam::template Map<int> map;
  for (std::uint32_t key = 0; key != 50; ++key)
    map.insertOrReplace(key, 0);
  auto const order = keysOf(map);
  for (std::size_t i = 0; i + 1 < order.size(); ++i) {
    EXPECT_EQ(map.seek(order[i])->first, order[i]);
    map.erase(order[i]);
    EXPECT_EQ(map.seek(order[i])->first, order[i + 1]);
  }
  map.clear();
  EXPECT_EQ(map.seek(3), map.end());
}

// A scan by key with anything in between meets every key that was there all the time, exactly once.
TYPED_TEST(HashMap, ShowsEachKeyThatStaysExactlyOnceToAScanByKey) {
  std::mt19937 random(testSeed());
  for (int round = 0; round != 50; ++round) {
    typename TypeParam::template Map<int> map;
    std::set<std::uint32_t> stayed;
    for (std::uint32_t key = 0; key != 40; ++key) {
      map.insertOrReplace(key, 0);
      stayed.insert(key);
    }
    std::multiset<std::uint32_t> seen;
    auto next = map.begin()->first;
    for (auto position = map.begin(); position != map.end(); position = map.seek(next)) {
      seen.insert(position->first);
      if (++position == map.end())
        break;
      next = position->first;
      for (int change = static_cast<int>(random() % 4); change > 0; --change)
        if (auto const key = static_cast<std::uint32_t>(random() % 80); random() % 2 == 0)
          map.insertOrReplace(key, 1);
        else if (map.erase(key))
          stayed.erase(key);
      if (random() % 5 == 0 && map.erase(next)) // the bookmark itself
        stayed.erase(next);
    }
    for (auto const key : stayed)
      EXPECT_EQ(seen.count(key), 1u) << key;
  }
}

TYPED_TEST(HashMap, LetsAVisitorChangeIt) {
  typename TypeParam::template Map<int> map;
  for (std::uint32_t key = 0; key != 40; ++key)
    map.insertOrReplace(key, 0);
  std::set<std::uint32_t> visited;
  map.forEach([&](std::uint32_t key, int) {
    EXPECT_TRUE(visited.insert(key).second) << key;
    EXPECT_NE(map.find(key), nullptr);
    map.erase(key);
    map.erase((key + 1) % 40);
    if (key < 40) // a newcomer may be visited or not
      map.insertOrReplace(1000 + key, 0);
  });
  for (std::uint32_t key = 0; key != 40; ++key)
    EXPECT_EQ(map.find(key), nullptr);
}

TEST(HashMapOrder, IsByHashAndThenByKey) {
  Zel::HashMap2018<std::uint32_t, int, TopBitHasher> map;
  for (std::uint32_t const key : {5, 2, 9, 4, 1, 8})
    map.insertOrReplace(key, 0);
  EXPECT_THAT(keysOf(map), ElementsAre(2, 4, 8, 1, 5, 9));
}

TEST(HashMapStamp, ComesRoundAfterTwentyThreeBits) {
  Zel::HashMap2018<std::uint32_t, int> map;
  for (std::uint32_t step = 0; step != (1u << 22); ++step) {
    map.insertOrReplace(1, 0);
    map.erase(1);
  }
  EXPECT_EQ(map.changeStamp(), 0u);
}

TEST(HashMapValues, AreReleasedWhenTheMapIsConsistentAgain) {
  struct Watcher {
    Zel::HashMap2018<std::uint32_t, std::shared_ptr<Watcher>> * map = nullptr;
    std::size_t * sizeSeen = nullptr;
    ~Watcher() {
      if (map != nullptr)
        *sizeSeen = map->size();
    }
  };
  Zel::HashMap2018<std::uint32_t, std::shared_ptr<Watcher>> map;
  std::size_t sizeSeen = 99;
  auto watcher = std::make_shared<Watcher>();
  watcher->map = &map;
  watcher->sizeSeen = &sizeSeen;
  map.insertOrReplace(1, std::move(watcher));
  map.erase(1);
  EXPECT_EQ(sizeSeen, 0u);
}

// What ends with a value may look at the map, and change it.
TEST(RbTreeMapValues, AreReleasedWhenTheMapIsConsistentAgain) {
  struct Watcher;
  using Map = Zel::RbTreeMap<std::uint32_t, std::shared_ptr<Watcher>>;
  struct Watcher {
    Map & map;
    std::vector<std::size_t> & sizesSeen;
    ~Watcher() {
      sizesSeen.push_back(map.size());
      if (auto const other = map.find(2); other != map.end())
        map.erase(other);
    }
  };
  std::vector<std::size_t> sizesSeen;
  Map map;
  auto const watchedBeside = [&](std::uint32_t other) {
    map.insertOrReplace(1, std::make_shared<Watcher>(map, sizesSeen));
    map.insertOrReplace(other, nullptr);
  };
  watchedBeside(2);
  map.insertOrReplace(1, nullptr);
  EXPECT_THAT(keysOf(map), ElementsAre(1));
  watchedBeside(2);
  map.erase(map.find(1));
  EXPECT_TRUE(map.empty());
  watchedBeside(3);
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_THAT(sizesSeen, ElementsAre(2, 1, 0)) << "replaced, erased, cleared";
}

TEST(RbTreeMap, AgreesWithTheStandardMapAfterEveryStep) {
  std::mt19937 random(testSeed());
  Zel::RbTreeMap<std::uint32_t, std::string> map;
  std::map<std::uint32_t, std::string> oracle;
  for (int step = 0; step != 3000; ++step) {
    auto const key = static_cast<std::uint32_t>(random() % 100);
    auto const version = map.version();
    if (random() % 2 == 0) {
      auto const present = oracle.contains(key);
      oracle.insert_or_assign(key, std::to_string(step));
      map.insertOrReplace(key, std::to_string(step));
      EXPECT_EQ(map.version() != version, !present);
    } else if (auto const position = map.find(key); position != map.end()) {
      EXPECT_EQ(map.erase(position), oracle.at(key));
      oracle.erase(key);
      EXPECT_NE(map.version(), version);
    }
    std::map<std::uint32_t, std::string> const content(map.begin(), map.end());
    ASSERT_EQ(content, oracle);
    auto const next = oracle.upper_bound(key);
    auto const found = map.findNext(key);
    ASSERT_EQ(found == map.end(), next == oracle.end());
    if (found != map.end()) {
      ASSERT_EQ(found->first, next->first);
    }
    auto const notLess = oracle.lower_bound(key);
    auto const place = map.findNotLess(key);
    ASSERT_EQ(place == map.end(), notLess == oracle.end());
    if (place != map.end()) {
      ASSERT_EQ(place->first, notLess->first);
    }
    ASSERT_EQ(map[key], oracle.contains(key) ? oracle.at(key) : "");
  }
  map.insertOrReplace(1, "removed last");
  map.erase(map.find(1));
  auto const version = map.version();
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_NE(map.version(), version);
  EXPECT_EQ(map.findNotLess(1), map.end());
  map.insertOrReplace(1, "again");
  EXPECT_EQ(map[1], "again");
}

// A node holds 126 of these entries, or four: then the tree is as deep as one of many rows.
template <class Value>
class RbTreeMapOf : public testing::Test {};
using NarrowAndWide = testing::Types<std::uint32_t, std::array<std::uint32_t, 60>>;
TYPED_TEST_SUITE(RbTreeMapOf, NarrowAndWide);

// Many rows: upwards, downwards and at random, and fewer and fewer again.
TYPED_TEST(RbTreeMapOf, AgreesWithTheStandardMapInWhateverOrderRowsComeAndGo) {
  std::mt19937 random(testSeed());
  auto const drawn = [&](std::uint32_t) { return static_cast<std::uint32_t>(random() % 3000); };
  auto const upwards = [](std::uint32_t step) { return step; };
  auto const downwards = [](std::uint32_t step) { return 3000 - step; };
  Zel::RbTreeMap<std::uint32_t, TypeParam> map;
  std::map<std::uint32_t, TypeParam> oracle;
  auto const expectSame = [&] {
    ASSERT_EQ(map.size(), oracle.size());
    ASSERT_EQ((std::map<std::uint32_t, TypeParam>(map.begin(), map.end())), oracle);
    for (std::uint32_t key = 0; key != 3002; ++key) {
      auto const next = oracle.upper_bound(key);
      auto const found = map.findNext(key);
      ASSERT_EQ(found == map.end(), next == oracle.end()) << key;
      if (found != map.end()) {
        ASSERT_EQ(found->first, next->first) << key;
      }
      auto const notLess = oracle.lower_bound(key);
      auto const place = map.findNotLess(key);
      ASSERT_EQ(place == map.end(), notLess == oracle.end()) << key;
      if (place != map.end()) {
        ASSERT_EQ(place->first, notLess->first) << key;
      }
      ASSERT_EQ(map.find(key) != map.end(), oracle.contains(key)) << key;
    }
  };
  std::function<std::uint32_t(std::uint32_t)> const orders[] = {upwards, downwards, drawn};
  for (auto const & come : orders)
    for (auto const & go : orders) {
      for (std::uint32_t step = 0; step != 3000; ++step) {
        auto const key = come(step);
        map.insertOrReplace(key, TypeParam{step});
        oracle.insert_or_assign(key, TypeParam{step});
      }
      expectSame();
      for (std::uint32_t step = 0; step != 2950; ++step)
        if (auto const position = map.find(go(step)); position != map.end()) {
          oracle.erase(position->first);
          map.erase(position);
        }
      expectSame();
    }
}

} // namespace
