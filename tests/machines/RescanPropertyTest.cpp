// A rescan that tries only what can have a row now, against the walk over every tunnel: two worlds
// see the same random events, one of them traced, which makes its machine walk. Tables, stores and
// notifications must be the same after every event. TEST_SEED repeats a failed run.
#include "tests/machines/InetConfigWorld.h"
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace TunnelIntfSnmp {
namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int eventsPerMode = 25'000;
#else
constexpr int eventsPerMode = 250'000;
#endif
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

  void start() {
    storeListener_ = nullptr;
    machine_ = nullptr;
    machine_ = world_.machine();
    storeListener_ = Zel::makePtr<OnChange>(
        *machine_->localAttrStore(), [this](Zel::Notification const & notification) {
          heard_.push_back(fmt::format("slot {}", notification.key<std::uint32_t>()));
        });
  }
  /// From now on the table's listener does this, at most one level deep, to what it hears.
  void whenHeardIs(std::function<void(Side &, std::string const &)> call) {
    whenHeard_ = std::move(call);
  }

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
    heard_.push_back(Zel::valueToStrep(key) + (row ? std::to_string(row->ifIndex()) : " gone"));
    if (whenHeard_ && !std::exchange(answering_, true)) {
      whenHeard_(*this, std::string(heard_.back()));
      answering_ = false;
    }
  }

  InetConfigWorld world_;
  std::vector<std::string> heard_;
  Zel::Ptr<OnChange> storeListener_;
  std::function<void(Side &, std::string const &)> whenHeard_;
  bool answering_ = false;
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
      return [on = below(3) != 0](Side & side) { side.machine()->hasNotificationActiveIs(on); };
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
      return [id = id()](Side & side) { side.world().dir->intfStatusDel(id); };
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
      return [id = id()](Side & side) { side.world().dir->intfStatusIs(id, nullptr); };
    return [id = id(), source = text(), destination = text(), mode = mode()](Side & side) {
      side.world().addEndpoints(id.value(), source, destination, mode);
    };
  }
  Event memberChange() {
    return [id = id(), which = below(3), text = text(), mode = mode()](Side & side) {
      auto const * status = side.world().dir->intfStatus().find(id);
      if (status == nullptr || !*status)
        return;
      if (which == 0)
        (*status)->srcAddrIs(address(text));
      else if (which == 1)
        (*status)->dstAddrIs(address(text));
      else
        (*status)->modeIs(mode);
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

class Rescan : public ::testing::TestWithParam<RunMode> {
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
  void expectSame(int number) {
    ASSERT_EQ(walks_.heard(), tries_.heard()) << "event " << number;
    ASSERT_EQ(walks_.world().inetConfigRows(), tries_.world().inetConfigRows()) << number;
    ASSERT_EQ(walks_.store(), tries_.store()) << "event " << number;
    walks_.heard().clear();
    tries_.heard().clear();
  }
  void expectSameThrough(int events, std::uint32_t seed) {
    Events source(seed);
    for (int number = 0; number != events; ++number) {
      happens(source.next());
      expectSame(number);
      if (HasFatalFailure())
        return;
    }
  }

  Side walks_{GetParam(), testSeed(), true};
  Side tries_{GetParam(), testSeed(), false};

private:
  Lumo::TraceSink before_;
};
INSTANTIATE_TEST_SUITE_P(Modes, Rescan, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

TEST_P(Rescan, TriesWhatTheWalkWouldAddInTheSameOrder) {
  expectSameThrough(eventsPerMode, testSeed());
}

// Who hears of a row changes something at once: what a walk does from there on must be done, too.
TEST_P(Rescan, TriesWhatTheWalkWouldAddWhenListenersInterfere) {
  auto const interfere = [](Side & side, std::string const & heard) {
    Events events(static_cast<std::uint32_t>(std::hash<std::string>()(heard)));
    (events.below(3) == 0 ? events.foreignDeletion() : events.input())(side);
  };
  walks_.whenHeardIs(interfere);
  tries_.whenHeardIs(interfere);
  expectSameThrough(eventsPerMode / 10, testSeed() + 1);
}

// A record that does not tell its changes, or stands under another interface's id: nothing is known
// of such a tunnel, and the rescan walks.
TEST_P(Rescan, WalksWhereARecordIsSilentOrStandsUnderAnotherId) {
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
