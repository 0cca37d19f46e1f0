// Random sequences of patches, in every way that a machine can run, against a plain function from
// the inputs to the tables that they allow. TEST_SEED repeats a failed run, TEST_EVENTS=1000000
// makes one longer.
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include "statedb/StateDocument.h"
#include "tests/machines/InetConfigWorld.h"
#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

namespace TunnelIntfSnmp {
namespace {

using nlohmann::json;

// What the table must be: under each ifIndex one of the statuses that claim it, and nothing else. A
// null status that shares its ifIndex with others may have been handled last: then there is no row,
// which stands here as a null pointer.
using AllowedRows = std::map<std::uint32_t, std::set<StatusPtr::element_type const *>>;

AllowedRows allowedRows(Interface::TunnelIntfStatusDir const & dir, IntfSnmp::IfMib const & ifMib) {
  AllowedRows allowed;
  for (auto const & [id, ifIndex] : ifMib.ifIndexByIntfId())
    if (auto const * status = dir.intfStatus().find(id); status != nullptr)
      allowed[ifIndex].insert(status->get());
  return allowed;
}

void expectAllowed(TunnelMib const & mib, AllowedRows const & allowed) {
  std::set<std::uint32_t> present;
  for (auto const & [ifIndex, row] : mib.tunnelIfTable()) {
    present.insert(ifIndex);
    ASSERT_TRUE(allowed.contains(ifIndex)) << "row " << ifIndex << " has no source";
    EXPECT_TRUE(allowed.at(ifIndex).contains(row->tunnelIntfStatus().get())) << ifIndex;
  }
  for (auto const & [ifIndex, statuses] : allowed)
    EXPECT_TRUE(present.contains(ifIndex) || statuses.contains(nullptr))
        << "row " << ifIndex << " is missing";
}

// Who may own which row of tunnelInetConfigTable: every interface with an ifIndex and two addresses
// that are not zero claims one key for its ifIndex.
using Claims = std::map<TunnelInetConfigTableKey, std::set<std::uint32_t>>;

Claims claimsOf(Interface::TunnelIntfStatusDir const & dir, IntfSnmp::IfMib const & ifMib) {
  auto const usable = [](Plexa::IpGenAddr const & one) {
    return std::ranges::any_of(one.octets(), [](auto octet) { return octet != 0; });
  };
  auto const number = [](Plexa::TunnelIntfMode mode) {
    return mode == Plexa::TunnelIntfMode::gre      ? 3u
           : mode == Plexa::TunnelIntfMode::direct ? 2u
                                                   : 1u;
  };
  Claims claims;
  for (auto const & [id, ifIndex] : ifMib.ifIndexByIntfId()) {
    auto const * found = dir.intfStatus().find(id);
    if (found == nullptr || !*found)
      continue;
    auto const & status = **found;
    if (usable(status.srcAddr()) && usable(status.dstAddr()))
      claims[inetConfigKey(status.srcAddr().stringValue(), status.dstAddr().stringValue(),
                           number(status.mode()))]
          .insert(ifIndex);
  }
  return claims;
}

// Every row is a claimant's, and every claimed key has a row: which claimant's, the order decides.
void expectOneRowForEachClaimedKey(TunnelMib const & mib, Claims const & claims) {
  EXPECT_EQ(mib.tunnelInetConfigTable().size(), claims.size());
  for (auto const & [key, ifIndexes] : claims) {
    auto const row = mib.tunnelInetConfigTable()[key];
    ASSERT_TRUE(row) << "no row " << key;
    EXPECT_TRUE(ifIndexes.contains(row->ifIndex())) << key << " is of " << row->ifIndex();
  }
}

// Where interfaces share an ifIndex, a claimed key may also be without row because its ifIndex has
// the row of another claim.
void expectNoClaimIsForgotten(TunnelInetConfigTableSm const & machine, Claims const & claims) {
  auto const & table = machine.mib()->tunnelInetConfigTable();
  auto const & store = machine.localAttrStore()->tunnelInetConfigByIfIndex();
  for (auto const & [key, row] : table) {
    ASSERT_TRUE(claims.contains(key)) << "nobody claims " << key;
    EXPECT_TRUE(claims.at(key).contains(row->ifIndex())) << key << " is of " << row->ifIndex();
  }
  for (auto const & [key, ifIndexes] : claims)
    for (auto const ifIndex : ifIndexes)
      EXPECT_TRUE(table[key] || store.find(ifIndex) != nullptr) << key << " of " << ifIndex;
}

/// Each takes some 60 events.
auto const rounds = testEvents(3'600) / 60;

class Patches {
public:
  explicit Patches(std::uint32_t seed) : random_(seed) {}

  std::size_t below(std::size_t limit) { return random_() % limit; }

  json address() {
    static char const * const addresses[] = {"", "0.0.0.0", "10.0.0.1", "10.0.0.2", "2001:db8::1"};
    return addresses[below(5)];
  }
  json status() {
    if (below(8) == 0)
      return nullptr;
    return {{"srcAddr", address()},   {"dstAddr", address()}, {"mode", below(4)},
            {"hopLimit", below(256)}, {"tos", below(64)},     {"ipsec", below(2) == 0}};
  }
  // A change of one member of the record at `path`.
  json memberChange(std::string const & path) {
    auto const change = [&](char const * member, json const & value) -> json {
      return {{"op", "replace"}, {"path", path + "/" + member}, {"value", value}};
    };
    switch (below(4)) {
    case 0:
      return change("srcAddr", address());
    case 1:
      return change("dstAddr", address());
    case 2:
      return change("mode", below(4));
    default:
      return change("hopLimit", below(256));
    }
  }
  // One operation that fits the document as it is. `orderly`: every interface keeps the one ifIndex
  // that is its own, and a status goes before its ifIndex.
  json operation(json const & document, bool orderly) {
    auto const id = std::to_string(below(12) + 1);
    auto const statusPath = "/tunnelIntfStatusDir/intfStatus/" + id;
    auto const ifIndexPath = "/ifMib/ifIndexByIntfId/" + id;
    auto const hasStatus = document.contains(json::json_pointer(statusPath));
    auto const hasIfIndex = document.contains(json::json_pointer(ifIndexPath));
    switch (below(6)) {
    case 0:
    case 1:
      return {{"op", "add"}, {"path", statusPath}, {"value", status()}};
    case 2:
      if (hasStatus)
        return {{"op", "remove"}, {"path", statusPath}};
      break;
    case 3:
      if (hasStatus && !document.at(json::json_pointer(statusPath)).is_null())
        return memberChange(statusPath);
      break;
    case 4:
      if (hasIfIndex && !(orderly && hasStatus))
        return {{"op", "remove"}, {"path", ifIndexPath}};
      break;
    default:
      break;
    }
    auto const ifIndex = orderly ? 100 - std::stoul(id) : below(6) + 1;
    return {{"op", "add"}, {"path", ifIndexPath}, {"value", ifIndex}};
  }

private:
  std::mt19937 random_;
};

class Property : public ::testing::TestWithParam<RunMode> {
protected:
  // A machine over the database's inputs and `mib_`.
  template <class Machine>
  Zel::Ptr<Machine> start() {
    World const ways(GetParam(), testSeed());
    auto control = ways.control;
    control.taskScheduler = scheduler_;
    auto made =
        Zel::makePtr<Machine>(mib_, database_.tunnelIntfStatusDir(), database_.ifMib(), control);
    made->hasNotificationActiveIs(true);
    return made;
  }
  Zel::Ptr<TunnelIfTableSm> machine() { return start<TunnelIfTableSm>(); }
  Zel::Ptr<TunnelInetConfigTableSm> inetConfigMachine() { return start<TunnelInetConfigTableSm>(); }

  // A few patches, with some or no task runs between one and the next.
  void patch(
      Patches & patches, std::size_t count, bool orderly,
      std::function<void()> const & afterEach = [] {}) {
    for (; count > 0; --count) {
      json const patch = json::array({patches.operation(document_.read(""), orderly)});
      log_ += patch.dump() + "\n";
      document_.apply(patch);
      for (auto runs = patches.below(4); runs > 0; --runs)
        scheduler_->runOne();
      afterEach();
    }
  }
  AllowedRows allowed() const {
    return allowedRows(*database_.tunnelIntfStatusDir(), *database_.ifMib());
  }
  Claims claims() const { return claimsOf(*database_.tunnelIntfStatusDir(), *database_.ifMib()); }

  Zel::Ptr<TestScheduler> scheduler_ = Zel::makePtr<TestScheduler>(GetParam().yield, testSeed());
  StateDb::StateDb database_;
  StateDb::StateDocument document_{database_};
  Zel::Ptr<TunnelMib> mib_ = Zel::makePtr<TunnelMib>("tunnelMib");
  std::string log_;
};
INSTANTIATE_TEST_SUITE_P(Modes, Property, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

TEST_P(Property, OrderlyInputsAndTheTableAgreeWheneverItIsQuiet) {
  for (std::uint32_t round = 0; round != rounds; ++round) {
    Patches patches(testSeed() + round);
    patch(patches, patches.below(20), true);
    auto const sm = machine();
    for (int stretch = 0; stretch != 5; ++stretch) {
      patch(patches, 10, true);
      scheduler_->runUntilQuiet();
      ASSERT_TRUE(sm->ready());
      expectAllowed(*mib_, allowed());
      ASSERT_FALSE(HasFailure()) << "round " << round << "\n" << log_;
    }
    log_.clear();
  }
}

TEST_P(Property, AStartReconcilesWhateverWasLeftBehind) {
  for (std::uint32_t round = 0; round != rounds; ++round) {
    Patches patches(testSeed() + round);
    {
      auto const sm = machine();
      patch(patches, 40, false);
      scheduler_->runUntilQuiet();
    }
    auto const sm = machine();
    scheduler_->runUntilQuiet();
    ASSERT_TRUE(sm->ready());
    expectAllowed(*mib_, allowed());
    ASSERT_FALSE(HasFailure()) << "round " << round << "\n" << log_;
    log_.clear();
  }
}

TEST_P(Property, EveryClaimedKeyHasOneRowAfterEveryPatchOfOrderlyInputs) {
  for (std::uint32_t round = 0; round != rounds; ++round) {
    Patches patches(testSeed() + round);
    patch(patches, patches.below(20), true);
    auto const sm = inetConfigMachine();
    auto const compare = [&] {
      if (!sm->ready()) // the scans are still at it
        return;
      expectOneRowForEachClaimedKey(*mib_, claims());
      expectStoreAndTableAgree(*sm);
    };
    patch(patches, 10, true, compare);
    scheduler_->runUntilQuiet();
    ASSERT_TRUE(sm->ready());
    patch(patches, 40, true, compare);
    ASSERT_FALSE(HasFailure()) << "round " << round << "\n" << log_;
    log_.clear();
    mib_->tunnelInetConfigTableDelAll();
  }
}

TEST_P(Property, EverySlotHasItsRowWhateverTheInputsDoAndAStartOverAnEmptiedTableForgetsNoClaim) {
  for (std::uint32_t round = 0; round != rounds; ++round) {
    Patches patches(testSeed() + round);
    {
      auto const sm = inetConfigMachine();
      patch(patches, 60, false, [&] {
        if (sm->ready())
          expectEverySlotHasItsRow(*sm);
      });
      scheduler_->runUntilQuiet();
    }
    mib_->tunnelInetConfigTableDelAll();
    auto const sm = inetConfigMachine();
    scheduler_->runUntilQuiet();
    ASSERT_TRUE(sm->ready());
    expectEverySlotHasItsRow(*sm);
    expectNoClaimIsForgotten(*sm, claims());
    ASSERT_FALSE(HasFailure()) << "round " << round << "\n" << log_;
    log_.clear();
    mib_->tunnelInetConfigTableDelAll();
  }
}

TEST_P(Property, AStartOverTheRowsOfTheSameInputsRemovesThemUntilTheNextEvent) {
  for (std::uint32_t round = 0; round != rounds; ++round) {
    Patches patches(testSeed() + round);
    {
      auto const sm = inetConfigMachine();
      patch(patches, 40, true);
      scheduler_->runUntilQuiet();
    }
    auto const sm = inetConfigMachine();
    scheduler_->runUntilQuiet();
    ASSERT_TRUE(sm->ready());
    EXPECT_TRUE(mib_->tunnelInetConfigTable().empty());
    expectStoreAndTableAgree(*sm);
    document_.apply(json::parse(R"([
      {"op": "add", "path": "/ifMib/ifIndexByIntfId/99", "value": 1},
      {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/99", "value": {}},
      {"op": "remove", "path": "/tunnelIntfStatusDir/intfStatus/99"},
      {"op": "remove", "path": "/ifMib/ifIndexByIntfId/99"}])"));
    expectOneRowForEachClaimedKey(*mib_, claims());
    expectStoreAndTableAgree(*sm);
    ASSERT_FALSE(HasFailure()) << "round " << round << "\n" << log_;
    log_.clear();
    mib_->tunnelInetConfigTableDelAll();
  }
}

} // namespace
} // namespace TunnelIntfSnmp
