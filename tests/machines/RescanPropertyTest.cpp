// A rescan that tries only what can have a row now, against the walk over every tunnel: two worlds
// see the same random events, one of them traced, which makes its machine walk. Tables, stores and
// notifications must be the same after every event, and the rescan's invariant must hold in both.
// TEST_SEED repeats a failed run.
#include "tests/machines/InetConfigWorld.h"
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace TunnelIntfSnmp {
namespace {

// In each of four modes: together a million events.
#ifdef SANITIZED
auto const events = testEvents(12'500);
#else
auto const events = testEvents(125'000);
#endif
auto const hostileEvents = events;
constexpr std::uint64_t tunnels = 14;

constexpr char const * walkHandler = "rescans that walk";

/// One of the two worlds, with everything that can be heard of its machine's outputs.
class Side {
public:
  Side(RunMode const & mode, std::uint32_t seed, bool walks) : world_(mode, seed) {
    if (walks)
      world_.control.traceHandlerName = walkHandler;
    start();
  }

  InetConfigWorld & world() { return world_; }
  Zel::Ptr<TunnelInetConfigTableSm> & machine() { return machine_; }
  std::vector<std::string> & heard() { return heard_; }
  std::uint64_t visits() const { return machine_ ? machine_->rescan().visits() : 0; }

  void start() {
    storeListener_ = nullptr;
    valueListeners_.clear();
    machine_ = nullptr;
    machine_ = world_.machine();
    if (!machine_)
      return;                                      // a listener has released it
    auto const store = machine_->localAttrStore(); // a listener may release the machine
    storeListener_ = Zel::makePtr<OnChange>(
        *store, [this, &slots = *store](auto const & told) { hearSlot(slots, told); });
  }
  /// From now on the listener of the table does this to what it hears, at most so many levels deep.
  /// Those of store and slots only listen.
  void whenHeardIs(std::function<void(Side &, std::string const &)> call, int depth) {
    whenHeard_ = std::move(call);
    depth_ = depth;
  }
  /// The last status that went from under the id, the record itself.
  void remember(Plexa::IntfId id) {
    if (auto const * status = world_.dir->intfStatus().find(id); status != nullptr && *status)
      last_[id.value()] = *status;
  }
  Zel::Ptr<Interface::TunnelIntfStatus> remembered(Plexa::IntfId id) { return last_[id.value()]; }

  /// One that no tunnel has had before.
  std::uint32_t freshIfIndex() { return ++freshIfIndex_; }

  std::map<std::uint32_t, TunnelInetConfigTableKey> store() const {
    std::map<std::uint32_t, TunnelInetConfigTableKey> slots;
    for (auto const & [ifIndex, slot] : machine_->localAttrStore()->tunnelInetConfigByIfIndex())
      slots.emplace(ifIndex, slot->value()->mibEntry()->key());
    return slots;
  }

private:
  void hear(Zel::Notification const & notification) {
    if (&notification.attribute() != &TunnelMib::tunnelInetConfigTableAttribute())
      return;
    auto const & key = notification.key<TunnelInetConfigTableKey>();
    auto const row = world_.mib->tunnelInetConfigTable()[key];
    answer(Zel::valueToStrep(key) + (row ? std::to_string(row->ifIndex()) : " gone"));
  }
  void hearSlot(FlowaCode::TunnelInetConfigTableSm::LocalAttrStore const & store,
                Zel::Notification const & notification) {
    auto const ifIndex = notification.key<std::uint32_t>();
    auto const & slot = **store.tunnelInetConfigByIfIndex().find(ifIndex);
    valueListeners_[ifIndex] =
        Zel::makePtr<OnChange>(slot, [this, ifIndex, &slot](Zel::Notification const &) {
          heard_.push_back(fmt::format("slot {} {}", ifIndex, slot.value() ? "valued" : "emptied"));
        });
    heard_.push_back(fmt::format("slot {}", ifIndex));
  }
  void answer(std::string const & heard) {
    heard_.push_back(heard);
    if (!whenHeard_ || answering_ == depth_)
      return;
    ++answering_;
    whenHeard_(*this, std::string(heard_.back()) + std::to_string(heard_.size()));
    --answering_;
  }

  InetConfigWorld world_;
  std::vector<std::string> heard_;
  std::map<std::uint64_t, Zel::Ptr<Interface::TunnelIntfStatus>> last_;
  Zel::Ptr<OnChange> storeListener_;
  std::map<std::uint32_t, Zel::Ptr<OnChange>> valueListeners_; // by ifIndex
  std::function<void(Side &, std::string const &)> whenHeard_;
  std::uint32_t freshIfIndex_ = 1000;
  int depth_ = 0;
  int answering_ = 0;
  OnChange tableListener_{*world_.mib, [this](auto const & notification) { hear(notification); }};
  Zel::Ptr<TunnelInetConfigTableSm> machine_;
};

using Event = std::function<void(Side &)>;

/// Draws events over few tunnels, few addresses and fewer ifIndexes than tunnels.
class Events {
public:
  explicit Events(std::uint32_t seed) : random_(seed) {}

  std::size_t below(std::size_t limit) { return random_() % limit; }

  Event next() {
    switch (below(40)) {
    case 0:
      return switching();
    case 1:
      return foreignDeletion();
    case 2:
      return foreignRow();
    case 3:
      return below(20) == 0 ? [](Side & side) { side.start(); } : input();
    case 4:
    case 5:
    case 6:
      return [](Side & side) { side.world().scheduler->runOne(); };
    default:
      return input();
    }
  }
  /// A change of an input record.
  Event input() {
    switch (below(10)) {
    case 0:
    case 1:
      return newStatus();
    case 2:
      return removal();
    case 3:
    case 4:
      return [id = id(), ifIndex = ifIndex()](Side & side) {
        side.world().ifMib->ifIndexByIntfIdIs(id, ifIndex);
      };
    case 5:
      return [id = id()](Side & side) { side.world().ifMib->ifIndexByIntfIdDel(id); };
    default:
      return memberChange();
    }
  }
  /// What a listener of the table does that means no good.
  Event hostile() {
    switch (below(12)) {
    case 0:
    case 1:
      return broughtBack();
    case 2:
    case 3:
      return foreignDeletion();
    case 4:
      return foreignRow();
    case 5:
      return switching();
    case 6:
      return silence();
    case 7:
      return [](Side &) { throw std::runtime_error("a listener"); };
    default:
      return input();
    }
  }
  /// As input(), but no two tunnels ever have the same ifIndex: no slot is taken over, and its row
  /// with it.
  Event inputOfItsOwn() {
    switch (below(8)) {
    case 0:
    case 1:
      return newStatus();
    case 2:
      return removal();
    case 3:
      return ifIndexOfItsOwn();
    case 4:
      return broughtBack();
    default:
      return memberChange();
    }
  }
  Event switching() {
    return [on = below(3) != 0](Side & side) {
      if (side.machine())
        side.machine()->hasNotificationActiveIs(on);
    };
  }
  /// Somebody else removes a row.
  Event foreignDeletion() {
    return [which = below(100)](Side & side) {
      auto const & table = side.world().mib->tunnelInetConfigTable();
      if (table.empty())
        return;
      auto const key = std::next(table.begin(), static_cast<long>(which % table.size()))->first;
      side.world().mib->tunnelInetConfigTableDel(key);
    };
  }
  /// A record or an input falls silent, or speaks again.
  Event silence() {
    return [id = id(), which = below(4), on = below(3) != 0](Side & side) {
      auto const * status = side.world().dir->intfStatus().find(id);
      if (which == 0)
        side.world().ifMib->hasNotificationActiveIs(on);
      else if (status != nullptr && *status)
        Zel::Ptr(*status)->hasNotificationActiveIs(on);
    };
  }

private:
  // Not in a row: those are scanned in ascending order.
  Plexa::IntfId id() { return Plexa::IntfId(5 * below(tunnels) + 3); }
  std::uint32_t ifIndex() { return static_cast<std::uint32_t>(below(8) + 1); }
  std::string text() {
    static char const * const texts[] = {"", "0.0.0.0", "10.0.0.1", "10.0.0.2", "2001:db8::1"};
    return texts[below(5)];
  }
  Plexa::TunnelIntfMode mode() { return static_cast<Plexa::TunnelIntfMode>(below(3)); }

  Event newStatus() {
    if (below(10) == 0)
      return [id = id()](Side & side) {
        side.remember(id);
        side.world().dir->intfStatusIs(id, nullptr);
      };
    return [id = id(), source = text(), destination = text(), mode = mode()](Side & side) {
      side.world().addEndpoints(id.value(), source, destination, mode);
    };
  }
  Event ifIndexOfItsOwn() {
    return [id = id()](Side & side) {
      side.world().ifMib->ifIndexByIntfIdIs(id, side.freshIfIndex());
    };
  }
  Event removal() {
    return [id = id()](Side & side) {
      side.remember(id);
      side.world().dir->intfStatusDel(id);
    };
  }
  // The record that went last comes back: in its own removal, if a listener does it.
  Event broughtBack() {
    return [id = id()](Side & side) {
      for (std::uint64_t number = 0; number != tunnels; ++number) {
        Plexa::IntfId const one((id.value() + 5 * number) % (5 * tunnels));
        auto const record = side.remembered(one);
        if (!record || side.world().dir->intfStatus().find(one) != nullptr)
          continue;
        side.world().dir->intfStatusIs(one, record);
        return;
      }
    };
  }
  Event memberChange() {
    return [id = id(), which = below(3), text = text(), mode = mode()](Side & side) {
      auto const * status = side.world().dir->intfStatus().find(id);
      if (status == nullptr || !*status)
        return;
      Zel::Ptr const record(*status); // the change may remove it
      if (which == 0)
        record->srcAddrIs(address(text));
      else if (which == 1)
        record->dstAddrIs(address(text));
      else
        record->modeIs(mode);
    };
  }
  Event foreignRow() {
    return [source = text(), destination = text(), ifIndex = ifIndex()](Side & side) {
      side.world().mib->tunnelInetConfigTableIs(
          tunnelInetConfigTableEntryFactory(inetConfigKey(source, destination, 3), ifIndex));
    };
  }

  std::mt19937 random_;
};

class RescanProperty : public ::testing::TestWithParam<RunMode> {
protected:
  void SetUp() override {
    before_ = Lumo::traceSinkIs([](Lumo::TraceMessage const &) {});
    Lumo::traceLevelsIs(walkHandler, 1u << 9);
  }
  void TearDown() override {
    Lumo::traceLevelsIs(walkHandler, 0);
    Lumo::traceSinkIs(std::move(before_));
  }

  void happens(Event const & event) {
    event(walks_);
    event(tries_);
  }
  // Asked with a condition, as it is asked so often.
  void expectSame(std::uint64_t number) {
    if (walks_.heard() != tries_.heard()) {
      ASSERT_EQ(walks_.heard(), tries_.heard()) << "event " << number;
    }
    walks_.heard().clear();
    tries_.heard().clear();
    for (auto * side : {&walks_, &tries_})
      if (side->machine())
        if (auto const flaw = side->machine()->rescan().flaw(); !flaw.empty())
          FAIL() << "event " << number << ": " << flaw;
    if (number % 16 != 0) // a difference stays
      return;
    ASSERT_EQ(walks_.world().inetConfigRows(), tries_.world().inetConfigRows()) << number;
    if (walks_.machine()) {
      ASSERT_EQ(walks_.store(), tries_.store()) << "event " << number;
    }
  }
  void expectSameThrough(std::uint64_t count, std::uint32_t seed) {
    Events source(seed);
    for (std::uint64_t number = 1; number <= count; ++number) {
      happens(source.next());
      expectSame(number);
      if (HasFatalFailure())
        return;
    }
  }
  /// From now on both tables' listeners draw what they do from what they hear.
  template <class Draw>
  void listenersAnswer(int depth, Draw draw) {
    auto const answer = [draw](Side & side, std::string const & heard) {
      Events answers(static_cast<std::uint32_t>(std::hash<std::string>()(heard)));
      if (answers.below(3) != 0)
        draw(answers)(side);
    };
    walks_.whenHeardIs(answer, depth);
    tries_.whenHeardIs(answer, depth);
  }

  Side walks_{GetParam(), testSeed(), true};
  Side tries_{GetParam(), testSeed(), false};

private:
  Lumo::TraceSink before_;
};
INSTANTIATE_TEST_SUITE_P(Modes, RescanProperty, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

// And it looks at fewer tunnels: were the short way never taken, or did the other one not walk,
// both would be the same for no reason.
TEST_P(RescanProperty, TriesWhatTheWalkWouldAddInTheSameOrder) {
  std::uint64_t tried = 0, walked = 0;
  Events source(testSeed());
  for (std::uint64_t number = 1; number <= events; ++number) {
    auto const event = source.next();
    auto const triedBefore = tries_.visits(), walkedBefore = walks_.visits();
    happens(event);
    if (tries_.visits() >= triedBefore && walks_.visits() >= walkedBefore) { // no new machine
      tried += tries_.visits() - triedBefore;
      walked += walks_.visits() - walkedBefore;
    }
    expectSame(number);
    if (HasFatalFailure())
      return;
  }
  EXPECT_GT(walked, events / 2) << "the oracle walks";
  EXPECT_LT(tried, walked / 2) << "the short way is taken";
}

TEST_P(RescanProperty, TriesWhatTheWalkWouldAddWhenListenersInterfere) {
  listenersAnswer(3, [](Events & one) { return one.hostile(); });
  expectSameThrough(hostileEvents, testSeed() + 1);
}

// The machine goes in the middle of what it does, in any notification, and another one starts.
TEST_P(RescanProperty, MayBeReleasedInAnyNotification) {
  listenersAnswer(2, [](Events & one) {
    if (one.below(4) == 0)
      return Event([](Side & side) { side.machine() = nullptr; });
    return one.hostile();
  });
  Events source(testSeed() + 2);
  for (std::uint64_t number = 1; number <= hostileEvents / 20; ++number) {
    for (auto * side : {&walks_, &tries_})
      if (!side->machine())
        side->start();
    if (!walks_.machine() || !tries_.machine())
      continue; // released in its start
    happens(source.input());
    walks_.heard().clear();
    tries_.heard().clear();
  }
}

// Each slot has its row and each row its slot, whatever listeners do in the middle of a change, as
// long as nobody else writes to the table, and no ifIndex passes to another tunnel.
TEST_P(RescanProperty, KeepsStoreAndTableInStepWhateverListenersChange) {
  listenersAnswer(3, [](Events & one) { return one.inputOfItsOwn(); });
  Events source(testSeed() + 5);
  for (std::uint64_t number = 1; number <= hostileEvents / 20; ++number) {
    happens(source.inputOfItsOwn());
    if (number % 50 == 0) // rows under an ifIndex that its tunnel has no more go, too
      happens([](Side & side) {
        side.start();
        side.world().settle();
      });
    expectSame(number);
    for (auto * side : {&walks_, &tries_})
      if (!side->machine()->mibOutputReconciling())
        expectStoreAndTableAgree(*side->machine());
    if (HasFailure())
      return;
  }
}

// A record that does not tell its changes, or stands under another interface's id: nothing is known
// of such a tunnel, and the rescan walks.
TEST_P(RescanProperty, WalksWhereARecordIsSilentOrStandsUnderAnotherId) {
  auto const misplaced = [](Side & side) {
    side.world().dir->intfStatusIs(Plexa::IntfId(tunnels + 1),
                                   InetConfigWorld::status(2, "10.0.0.1", "10.0.0.2"));
  };
  auto const silent = [](Side & side) {
    auto const record = InetConfigWorld::status(tunnels + 2, "", "10.0.0.2");
    record->hasNotificationActiveIs(false);
    side.world().dir->intfStatusIs(Plexa::IntfId(tunnels + 2), record);
    side.world().addIfIndex(tunnels + 2, 77);
  };
  auto const unheardChange = [](Side & side) {
    (*side.world().dir->intfStatus().find(Plexa::IntfId(tunnels + 2)))
        ->srcAddrIs(address("10.0.0.9"));
  };
  expectSameThrough(1000, testSeed() + 2);
  happens(misplaced);
  happens(silent);
  expectSameThrough(1000, testSeed() + 3);
  happens(unheardChange);
  expectSameThrough(1000, testSeed() + 4);
}

} // namespace
} // namespace TunnelIntfSnmp
