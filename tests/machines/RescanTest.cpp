// Which tunnels a rescan looks at, counted: those that wait and can have a row now, or all of them
// where a trace would show it or where something may have changed unheard. And what listeners do
// that would mislead it.
#include "tests/machines/InetConfigWorld.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t gre = 3; // IANAtunnelType
auto const keyAB = inetConfigKey("10.0.0.1", "10.0.0.2", gre);
auto const keyAC = inetConfigKey("10.0.0.1", "10.0.0.3", gre);

class RescanTest : public ::testing::Test {
protected:
  Rescan const & rescan() const { return machine_->rescan(); }
  /// A tunnel with its ifIndex, 10 times its id.
  Zel::Ptr<Interface::TunnelIntfStatus> add(std::uint32_t id, std::string_view destination) {
    world_.addIfIndex(id, 10 * id);
    return world_.addEndpoints(id, "10.0.0.1", destination);
  }
  /// Tunnels with rows of their own.
  void addOthers(std::uint32_t first, std::uint32_t last) {
    for (auto id = first; id <= last; ++id)
      add(id, fmt::format("10.1.{}.{}", id / 200, id % 200 + 1));
  }
  /// How many tunnels the rescans of an event look at, and how many walks there are.
  template <class Event>
  std::uint64_t visitsOf(Event event) {
    auto const before = rescan().visits();
    event();
    EXPECT_EQ(rescan().flaw(), "");
    return rescan().visits() - before;
  }
  template <class Event>
  std::uint64_t walksOf(Event event) {
    auto const before = rescan().walks();
    event();
    EXPECT_EQ(rescan().flaw(), "");
    return rescan().walks() - before;
  }
  /// An event whose rescan looks at nothing but what went unheard.
  void anyEvent() {
    auto const status = *world_.dir->intfStatus().find(IntfId(1));
    status->modeIs(status->mode() == Plexa::TunnelIntfMode::vti ? Plexa::TunnelIntfMode::gre
                                                                : Plexa::TunnelIntfMode::vti);
  }

  InetConfigWorld world_{runModes[0]};
  Zel::Ptr<TunnelInetConfigTableSm> machine_ = world_.machine();
};

// How much is looked at

TEST_F(RescanTest, LooksAtTheWaitingTunnelOnly) {
  add(1, "10.0.0.2");
  add(2, "10.0.0.2");
  addOthers(3, 100);
  EXPECT_EQ(visitsOf([&] { anyEvent(); }), 1u) << "tunnel 2 got the row that went";
  EXPECT_EQ(world_.inetConfigRows().at(keyAB), 20u);
  EXPECT_EQ(visitsOf([&] { add(101, "10.0.0.9"); }), 0u);
  EXPECT_EQ(walksOf([&] { world_.dir->intfStatusDel(IntfId(101)); }), 0u);
}

TEST_F(RescanTest, LooksAtNothingButTheWaitingInAWholeStart) {
  for (std::uint32_t id = 1; id <= 200; ++id)
    add(id, fmt::format("10.1.0.{}", id % 100 + 1)); // each key is claimed twice
  for (auto const & mode : runModes) {
    InetConfigWorld other(mode, testSeed());
    other.dir = world_.dir;
    other.ifMib = world_.ifMib;
    auto const machine = other.machine();
    other.settle();
    EXPECT_EQ(other.inetConfigRows().size(), 100u);
    // Tasks in random order may scan a status before the ifIndexes.
    EXPECT_LE(machine->rescan().walks(), mode.yield == Yield::random ? 1u : 0u) << mode.name;
    EXPECT_LE(machine->rescan().visits(), 600u) << mode.name;
    EXPECT_EQ(machine->rescan().flaw(), "") << mode.name;
  }
}

TEST_F(RescanTest, WalksOverAllTunnelsWhereATraceWouldShowIt) {
  addOthers(1, 20);
  for (int level = 0; level != Lumo::levels; ++level) {
    TraceRecorder traces{{"TunnelInetConfigTableSm", std::to_string(level)}};
    auto const shows = level == 6 || level == 7 || level == 9;
    EXPECT_EQ(visitsOf([&] { anyEvent(); }), shows ? 20u : 0u) << level;
  }
  EXPECT_EQ(visitsOf([&] { anyEvent(); }), 0u);
}

TEST_F(RescanTest, WalksOnceWhenSomebodyElseWroteToTheTable) {
  add(1, "10.0.0.9");
  world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAB, 77));
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  add(2, "10.0.0.2");
  EXPECT_FALSE(world_.inetConfigRows().at(keyAB) == 20);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 0u);
  world_.mib->tunnelInetConfigTableDel(keyAB);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  EXPECT_EQ(world_.inetConfigRows().at(keyAB), 20u);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 0u);
}

// What went unheard

TEST_F(RescanTest, WalksWhileARecordIsSilentAndOnceMoreWhenItSpeaksAgain) {
  add(1, "10.0.0.9");
  auto const record = add(2, "");
  anyEvent();
  auto const unheard = rescan().unheard();
  record->hasNotificationActiveIs(false);
  record->dstAddrIs(address("10.0.0.2"));
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  EXPECT_EQ(world_.inetConfigRows().at(keyAB), 20u) << "found by the walk";
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u) << "it is still silent";
  record->hasNotificationActiveIs(true);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 0u) << "everything is heard again";
  EXPECT_EQ(rescan().unheard(), unheard + 3);
  EXPECT_EQ(std::get<std::uint64_t>(Zel::attribute(*machine_, "rescanUnheard").is), unheard + 3);
}

TEST_F(RescanTest, FindsWhatChangedWhileARecordWasSilentForAMoment) {
  add(1, "10.0.0.9");
  auto const record = add(2, "");
  record->hasNotificationActiveIs(false);
  record->dstAddrIs(address("10.0.0.2"));
  record->hasNotificationActiveIs(true);
  anyEvent();
  EXPECT_EQ(world_.inetConfigRows().count(keyAB), 1u);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 0u);
}

TEST_F(RescanTest, FindsWhatChangedWhileAnInputWasSilentForAMoment) {
  add(1, "10.0.0.9");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  world_.ifMib->hasNotificationActiveIs(false);
  world_.addIfIndex(2, 20);
  world_.ifMib->hasNotificationActiveIs(true);
  anyEvent();
  EXPECT_EQ(world_.inetConfigRows().count(keyAB), 1u);
  world_.dir->hasNotificationActiveIs(false);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u) << "as long as the directory is silent";
  world_.addIfIndex(3, 30);
  world_.addEndpoints(3, "10.0.0.1", "10.0.0.3");
  world_.dir->hasNotificationActiveIs(true);
  anyEvent();
  EXPECT_EQ(world_.inetConfigRows().count(keyAC), 1u);
}

TEST_F(RescanTest, FindsAnIfIndexThatWasReplacedWhileTheMapWasSilentForAMoment) {
  add(1, "10.0.0.9");
  world_.addIfIndex(2, 10);
  add(3, "10.0.0.8");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  add(1, "10.0.0.9"); // takes the slot of the ifIndex back
  ASSERT_EQ(world_.inetConfigRows().count(keyAB), 0u);
  world_.ifMib->hasNotificationActiveIs(false);
  world_.addIfIndex(2, 20); // no insertion, no removal
  world_.ifMib->hasNotificationActiveIs(true);
  (*world_.dir->intfStatus().find(IntfId(3)))->modeIs(Plexa::TunnelIntfMode::vti);
  EXPECT_EQ(world_.inetConfigRows().count(keyAB), 1u);
}

TEST_F(RescanTest, FindsAnIfIndexThatIsReplacedWhileTheMapOrItsChildIsSilent) {
  add(1, "10.0.0.9");
  auto const other = add(3, "10.0.0.8");
  auto mode = Plexa::TunnelIntfMode::gre;
  auto const eventOfOther = [&] {
    mode = mode == Plexa::TunnelIntfMode::vti ? Plexa::TunnelIntfMode::gre
                                              : Plexa::TunnelIntfMode::vti;
    other->modeIs(mode);
  };
  auto const findsIt = [&](auto const & silence, bool speaksAgain) {
    world_.dir->intfStatusDel(IntfId(2));
    world_.addIfIndex(2, 10);
    world_.addEndpoints(2, "10.0.0.1", "10.0.0.2");
    add(1, "10.0.0.9"); // takes the slot of the ifIndex back
    ASSERT_EQ(world_.inetConfigRows().count(keyAB), 0u);
    silence(false);
    eventOfOther();           // its walk cannot know of what comes
    world_.addIfIndex(2, 20); // no insertion, no removal
    silence(speaksAgain);
    eventOfOther();
    EXPECT_EQ(world_.inetConfigRows().count(keyAB), 1u);
    silence(true);
  };
  auto const theMap = [&](bool on) { world_.ifMib->hasNotificationActiveIs(on); };
  findsIt(theMap, false);
  findsIt(theMap, true);
  findsIt([&](bool on) { machine_->ifIndexByIntfIdSm2()->hasNotificationActiveIs(on); }, false);
}

TEST_F(RescanTest, WalksWhileARecordCameSilentOrStandsUnderAnotherId) {
  add(1, "10.0.0.9");
  auto const silent = InetConfigWorld::status(2, "", "10.0.0.2");
  silent->hasNotificationActiveIs(false);
  anyEvent();
  world_.addIfIndex(2, 20);
  world_.dir->intfStatusIs(IntfId(2), silent);
  silent->srcAddrIs(address("10.0.0.1"));
  anyEvent();
  EXPECT_EQ(world_.inetConfigRows().count(keyAB), 1u);
  world_.dir->intfStatusDel(IntfId(2));
  anyEvent();
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 0u);
  world_.dir->intfStatusIs(IntfId(3), InetConfigWorld::status(4, "10.0.0.1", "10.0.0.3"));
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
}

TEST_F(RescanTest, WalksWhileAChildOfTheMachineIsSwitchedOff) {
  add(1, "10.0.0.9");
  add(2, "10.0.0.8");
  machine_->intfStatusSm0()->childSm(IntfId(2))->hasNotificationActiveIs(false);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  machine_->intfStatusSm0()->childSm(IntfId(2))->hasNotificationActiveIs(true);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 1u);
  EXPECT_EQ(walksOf([&] { anyEvent(); }), 0u);
}

// A listener of the ifIndex map that comes before the machine answers to a new ifIndex with an
// event.
TEST(RescanOrder, SeesAnIfIndexThatTheMachineHasNotHeardOfYet) {
  InetConfigWorld world(runModes[0]);
  Zel::Ptr<Interface::TunnelIntfStatus> first;
  auto answers = false;
  InetConfigRows rows;
  auto const listener = Zel::makePtr<OnChange>(*world.ifMib, [&](auto const &) {
    if (!answers)
      return;
    first->modeIs(Plexa::TunnelIntfMode::vti);
    rows = world.inetConfigRows();
  });
  auto const machine = world.machine();
  world.addIfIndex(1, 10);
  first = world.addEndpoints(1, "10.0.0.1", "10.0.0.9");
  world.addEndpoints(2, "10.0.0.1", "10.0.0.2");
  answers = true;
  world.addIfIndex(2, 20);
  EXPECT_EQ(rows.count(keyAB), 1u);
}

// What is remembered

TEST_F(RescanTest, RemembersNothingOfTunnelsThatVanished) {
  add(1, "10.0.0.9");
  for (bool const traced : {true, false}) {
    Lumo::traceLevelsIs("TunnelInetConfigTableSm", traced ? 1u << 9 : 0);
    auto const before = Lumo::traceSinkIs([](auto const &) {});
    for (std::uint32_t id = 1000; id != 1300; ++id) {
      world_.addIfIndex(id, id);
      world_.addEndpoints(id, "10.0.0.1", id % 2 == 0 ? "10.0.0.2" : "10.0.0.7");
      if (id % 3 == 0)
        world_.ifMib->ifIndexByIntfIdDel(IntfId(id));
      world_.dir->intfStatusDel(IntfId(id));
      world_.ifMib->ifIndexByIntfIdDel(IntfId(id));
      world_.addIfIndex(5000, id); // the next owner of the ifIndex
      world_.addEndpoints(5000, "10.0.0.1", "");
    }
    Lumo::traceSinkIs(before);
    Lumo::traceLevelsIs("TunnelInetConfigTableSm", 0);
    EXPECT_LE(rescan().remembered(), world_.dir->intfStatus().size()) << traced;
  }
  for (std::uint32_t id = 1000; id != 1300; ++id)
    world_.addEndpoints(id, "10.0.0.1", "10.0.0.2"); // without an ifIndex
  EXPECT_LE(rescan().remembered(), 3u);
}

TEST_F(RescanTest, KnowsWhoHoldsASlotThatWasTakenOver) {
  add(1, "10.0.0.2");
  world_.addEndpoints(2, "10.0.0.1", "10.0.0.3");
  world_.addIfIndex(2, 10);
  ASSERT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}, {keyAC, 10}}));
  auto const * slot = machine_->localAttrStore()->tunnelInetConfigByIfIndex().find(10);
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ((*slot)->holder(), IntfId(2));
  EXPECT_EQ(rescan().flaw(), "") << "tunnel 1 is not forgotten";
}

TEST_F(RescanTest, ForgetsATunnelThatLosesItsIfIndexBeforeItsStatus) {
  add(1, "10.0.0.2");
  add(2, "10.0.0.2");
  ASSERT_EQ(rescan().remembered(), 1u) << "it waits for the key";
  world_.ifMib->ifIndexByIntfIdDel(IntfId(2));
  world_.dir->intfStatusDel(IntfId(2));
  EXPECT_EQ(rescan().remembered(), 0u);
}

// Hostile listeners

TEST_F(RescanTest, MayFindItsMachineReleasedByAListenerOfWhatWasHeld) {
  add(1, "10.0.0.2");
  machine_->hasNotificationActiveIs(false);
  add(2, "10.0.0.3");
  auto const listener =
      Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) { machine_ = nullptr; });
  machine_.get()->hasNotificationActiveIs(true);
  EXPECT_EQ(machine_, nullptr);
}

TEST_F(RescanTest, GivesARecordThatIsBroughtBackInItsRemovalAChildAndAnEvent) {
  auto const record = add(1, "10.0.0.2");
  add(2, "10.0.0.2");
  auto back = true;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (std::exchange(back, false))
      world_.dir->intfStatusIs(IntfId(1), record);
  });
  world_.dir->intfStatusDel(IntfId(1));
  ASSERT_TRUE(machine_->intfStatusSm0()->childSm(IntfId(1)));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 10}})) << "its event came first";
  record->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(), (InetConfigRows{{keyAB, 20}, {keyAC, 10}})) << "it is heard";
  EXPECT_EQ(rescan().flaw(), "");
}

TEST_F(RescanTest, KeepsInMindTheTunnelThatAWalkPassedOver) {
  auto const record = add(1, "10.0.0.2");
  add(2, "10.0.0.9");
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (!meddles || !world_.inetConfigRows().contains(keyAC))
      return;
    meddles = false;
    world_.addIfIndex(1, 11); // waits for its own row, under its new ifIndex
    world_.mib->tunnelInetConfigTableDel(keyAC);
  });
  record->dstAddrIs(address("10.0.0.3")); // the walk passes it over: it is the one at hand
  ASSERT_FALSE(meddles);
  EXPECT_EQ(rescan().flaw(), "");
  (*world_.dir->intfStatus().find(IntfId(2)))->modeIs(Plexa::TunnelIntfMode::vti);
  EXPECT_EQ(world_.inetConfigRows().at(keyAC), 11u);
}

// As a walk would: it does not go back to the tunnels that it has passed.
TEST_F(RescanTest, GoesOnBehindTheTunnelAtWhichSomebodyElseWroteToTheTable) {
  add(1, "10.0.0.9");
  world_.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(keyAC, 77));
  add(2, "10.0.0.3");
  add(4, "10.0.0.2");
  add(5, "10.0.0.2");
  add(6, "10.0.0.3");
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (world_.inetConfigRows().contains(keyAB) && std::exchange(meddles, false))
      world_.mib->tunnelInetConfigTableDel(keyAC);
  });
  world_.dir->intfStatusDel(IntfId(4));
  EXPECT_EQ(world_.inetConfigRows().at(keyAB), 50u);
  EXPECT_EQ(world_.inetConfigRows().at(keyAC), 60u) << "tunnel 2 was passed already";
}

TEST_F(RescanTest, TriesTheTunnelAtHandInARescanInsideItsEvent) {
  add(5, "10.0.0.2");
  world_.addIfIndex(2, 50);
  auto const record = world_.addEndpoints(2, "10.0.0.1", "");
  auto const other = add(7, "10.0.0.9");
  ASSERT_EQ(world_.inetConfigRows().at(keyAB), 50u);
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (std::exchange(meddles, false))
      other->modeIs(Plexa::TunnelIntfMode::vti);
  });
  record->dstAddrIs(address("10.0.0.3")); // takes the slot from tunnel 5
  ASSERT_FALSE(meddles);
  EXPECT_EQ(world_.inetConfigRows().count(keyAB), 0u) << "tunnel 2 came first, inside";
  EXPECT_EQ(world_.inetConfigRows().at(keyAC), 50u);
  EXPECT_EQ(rescan().flaw(), "");
}

TEST_F(RescanTest, IsNotMisledByASwitchInsideASwitch) {
  auto const first = add(1, "10.0.0.9");
  world_.addIfIndex(4, 40);
  world_.addIfIndex(5, 50);
  machine_->hasNotificationActiveIs(false);
  world_.addEndpoints(4, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(5, "10.0.0.1", "10.0.0.3");
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (!std::exchange(meddles, false))
      return;
    machine_->hasNotificationActiveIs(true); // what was held of tunnel 5 is still to be delivered
    first->modeIs(Plexa::TunnelIntfMode::vti);
    EXPECT_EQ(world_.inetConfigRows().count(keyAC), 1u) << "by that event's walk";
  });
  machine_->hasNotificationActiveIs(true);
  EXPECT_FALSE(meddles);
  EXPECT_EQ(rescan().flaw(), "");
  EXPECT_EQ(walksOf([&] { first->modeIs(Plexa::TunnelIntfMode::gre); }), 0u);
}

TEST_F(RescanTest, IsNotMisledByAPartThatAListenerLeftSwitchedOff) {
  auto const first = add(1, "10.0.0.9");
  world_.addEndpoints(4, "10.0.0.1", "10.0.0.2");
  world_.addEndpoints(5, "10.0.0.1", "10.0.0.3");
  machine_->hasNotificationActiveIs(false);
  world_.addIfIndex(4, 40);
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (!std::exchange(meddles, false))
      return;
    machine_->hasNotificationActiveIs(false); // the statuses may be switched on behind this
    machine_->intfStatusSm0()->hasNotificationActiveIs(true);
  });
  machine_->hasNotificationActiveIs(true);
  first->modeIs(Plexa::TunnelIntfMode::vti);
  world_.addIfIndex(5, 50); // held
  first->modeIs(Plexa::TunnelIntfMode::gre);
  EXPECT_EQ(world_.inetConfigRows().count(keyAC), 1u) << "by the walk";
}

// The status that a deletion's listener replaced is not added any more: the new one has been.
TEST_F(RescanTest, AddsNothingForAStatusThatDidNotOutliveTheDeletionOfItsRow) {
  auto const record = add(1, "10.0.0.2");
  auto meddles = true;
  auto const listener = Zel::makePtr<OnChange>(*world_.mib, [&](auto const &) {
    if (std::exchange(meddles, false))
      world_.addEndpoints(1, "10.0.0.1", "10.0.0.9");
  });
  record->dstAddrIs(address("10.0.0.3"));
  EXPECT_EQ(world_.inetConfigRows(),
            (InetConfigRows{{inetConfigKey("10.0.0.1", "10.0.0.9", gre), 10}}));
  EXPECT_EQ(rescan().flaw(), "");
  expectStoreAndTableAgree(*machine_);
}

// The order of the seen set, the store and their lines

TEST(RescanLines, ComeInTheOrderOfTheWrites) {
  InetConfigWorld world(runModes[2]);
  for (int last = 11; last <= 15; ++last)
    world.mib->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(
        inetConfigKey("10.9.0.1", fmt::format("10.0.0.{}", last), gre), 7));
  auto const machine = world.machine();
  while (!machine->outputUseBookmark())
    ASSERT_TRUE(world.scheduler->runOne());
  std::vector<std::string> states;
  auto const before = Lumo::traceSinkIs([&](Lumo::TraceMessage const & message) {
    if (message.text.starts_with("into(")) {
      auto const * slot = machine->localAttrStore()->tunnelInetConfigByIfIndex().find(10);
      states.push_back(fmt::format(
          "{}: slot {}, seen {}, row {}", message.text.substr(0, message.text.find(' ', 6)),
          slot == nullptr    ? "none"
          : (*slot)->value() ? "valued"
                             : "empty",
          machine->outputSeen().size(), world.inetConfigRows().contains(keyAB)));
    }
  });
  Lumo::traceLevelsIs("TunnelInetConfigTableSm", 1u << 7);
  world.addIfIndex(1, 10);
  world.addEndpoints(1, "10.0.0.1", "10.0.0.2");
  world.dir->intfStatusDel(IntfId(1));
  Lumo::traceLevelsIs("TunnelInetConfigTableSm", 0);
  Lumo::traceSinkIs(before);
  EXPECT_THAT(states,
              ElementsAre("into( tunnelInetConfigByIfIndex[: slot empty, seen 0, row false",
                          "into( mib.tunnelInetConfigTable[: slot valued, seen 1, row false",
                          "into( tunnelInetConfigByIfIndex[: slot valued, seen 1, row true",
                          "into( mib.tunnelInetConfigTable[: slot none, seen 1, row true"));
}

} // namespace
} // namespace TunnelIntfSnmp
