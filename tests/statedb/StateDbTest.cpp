// Entities at paths: mounted, made by type name, released.
#include "statedb/StateDb.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Garden final : public Zel::Entity {
public:
  explicit Garden(std::string_view name) : Entity(name) { ++alive; }
  ~Garden() override { --alive; }
  inline static int alive = 0;
};
class Stone final : public Zel::PtrInterface {};

Zel::Type const gardenType{
    "StateDbTest::Garden", {}, [](std::string_view name) -> Zel::Ptr<Zel::PtrInterface> {
      return Zel::makePtr<Garden>(name);
    }};
Zel::Type const stoneType{
    "StateDbTest::Stone", {}, [](std::string_view) -> Zel::Ptr<Zel::PtrInterface> {
      return Zel::makePtr<Stone>();
    }};
Zel::Type const * const types[] = {&gardenType, &stoneType};
Zel::Module const module{"StateDbTest", "StateDbTest", types, {}};
Zel::zelModuleIs const registered(module);

TEST(StateDb, HoldsTheInputsFromTheStart) {
  StateDb::StateDb database;
  EXPECT_THAT(database.paths(), ElementsAre("ifMib", "ikeStatus", "tunnelIntfStatusDir"));
  EXPECT_EQ(database.lookup("ifMib"), database.ifMib());
  EXPECT_EQ(database.lookup("ikeStatus"), database.ikeStatus());
  EXPECT_EQ(database.lookup("tunnelIntfStatusDir"), database.tunnelIntfStatusDir());
  EXPECT_EQ(database.ifMib()->name(), "ifMib");
  EXPECT_TRUE(database.tunnelIntfStatusDir()->intfStatus().empty());
}

TEST(StateDb, FindsAnEntityAtExactlyItsPath) {
  StateDb::StateDb database;
  auto const garden = Zel::makePtr<Garden>("roses");
  database.mount("park/north/roses", garden);
  EXPECT_EQ(database.lookup("park/north/roses"), garden);
  for (auto const * other : {"", "park", "park/north", "park/north/rose", "park/north/roses/",
                             "/park/north/roses", "park/north/roses/red"})
    EXPECT_FALSE(database.lookup(other)) << other;
}

TEST(StateDb, RefusesMalformedPaths) {
  StateDb::StateDb database;
  auto const garden = Zel::makePtr<Garden>("roses");
  for (auto const * path : {"", "/", "/roses", "roses/", "park//roses"})
    EXPECT_THROW(database.mount(path, garden), std::invalid_argument) << path;
}

TEST(StateDb, RefusesAPathThatIsTakenOrAboveOrBelowOne) {
  StateDb::StateDb database;
  auto const garden = Zel::makePtr<Garden>("roses");
  database.mount("park/roses", garden);
  for (auto const * path : {"park/roses", "park", "park/roses/red", "ifMib", "ifMib/more"})
    EXPECT_THROW(database.mount(path, garden), std::invalid_argument) << path;
  EXPECT_NO_THROW(database.mount("park/roses2", garden));
  EXPECT_NO_THROW(database.mount("park/rose", garden));
}

TEST(StateDb, NamesThePathThatIsInTheWay) {
  StateDb::StateDb database;
  try {
    database.mount("ifMib/more", Zel::makePtr<Garden>("more"));
    FAIL();
  } catch (std::invalid_argument const & error) {
    EXPECT_STREQ(error.what(),
                 "mount path \"ifMib/more\": \"ifMib\" is mounted already; unmount it first");
  }
}

TEST(StateDb, RefusesToMountNothing) {
  StateDb::StateDb database;
  EXPECT_THROW(database.mount("park", nullptr), std::invalid_argument);
  EXPECT_EQ(database.paths().size(), 3u);
}

TEST(StateDb, CreatesAnEntityNamedAsTheEndOfItsPath) {
  StateDb::StateDb database;
  auto const garden = database.create("park/roses", "StateDbTest::Garden");
  EXPECT_EQ(garden->name(), "roses");
  EXPECT_EQ(database.lookup("park/roses"), garden);
  EXPECT_EQ(database.create("tulips", "StateDbTest::Garden")->name(), "tulips");
}

TEST(StateDb, MountsNothingWhenItCannotCreate) {
  StateDb::StateDb database;
  EXPECT_THROW(database.create("park", "StateDbTest::Lake"), Zel::GenericAccessError);
  EXPECT_THROW(database.create("park", "StateDbTest::Stone"), std::invalid_argument);
  EXPECT_THROW(database.create("park/", "StateDbTest::Garden"), std::invalid_argument);
  EXPECT_EQ(database.paths().size(), 3u);
  EXPECT_EQ(Garden::alive, 0);
}

TEST(StateDb, ReleasesWhatIsUnmounted) {
  StateDb::StateDb database;
  database.create("park/roses", "StateDbTest::Garden");
  EXPECT_EQ(Garden::alive, 1);
  database.unmount("park");
  EXPECT_EQ(Garden::alive, 1);
  database.unmount("park/roses");
  EXPECT_EQ(Garden::alive, 0);
  EXPECT_FALSE(database.lookup("park/roses"));
  EXPECT_NO_THROW(database.mount("park", Zel::makePtr<Garden>("park")));
}

TEST(StateDb, ReleasesEverythingAtItsEnd) {
  {
    StateDb::StateDb database;
    database.create("park/roses", "StateDbTest::Garden");
  }
  EXPECT_EQ(Garden::alive, 0);
}

} // namespace
