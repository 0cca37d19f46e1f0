// Random sequences of patches, in every way that a machine can run, against a plain function from the
// inputs to the table. TEST_SEED repeats a failed run.
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include "statedb/StateDocument.h"
#include "tests/machines/World.h"
#include <fmt/format.h>
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

class Patches {
public:
  explicit Patches(std::uint32_t seed) : random_(seed) {}

  std::size_t below(std::size_t limit) { return random_() % limit; }

  json status() {
    if (below(8) == 0)
      return nullptr;
    static char const * const addresses[] = {"", "0.0.0.0", "10.0.0.1", "10.0.0.2", "2001:db8::1"};
    return {{"srcAddr", addresses[below(5)]}, {"dstAddr", addresses[below(5)]},
            {"mode", below(4)},               {"hopLimit", below(256)},
            {"tos", below(64)},               {"ipsec", below(2) == 0}};
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
        return {{"op", "replace"}, {"path", statusPath + "/hopLimit"}, {"value", below(256)}};
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
  Zel::Ptr<TunnelIfTableSm> machine() {
    World const ways(GetParam(), testSeed());
    auto control = ways.control;
    control.taskScheduler = scheduler_;
    auto made = TunnelIfTableSm::TunnelIfTableSmIs(mib_, database_.tunnelIntfStatusDir(),
                                                   database_.ifMib(), control);
    made->hasNotificationActiveIs(true);
    return made;
  }
  // A few patches, with some or no task runs between one and the next.
  void patch(Patches & patches, std::size_t count, bool orderly) {
    for (; count > 0; --count) {
      json const patch = json::array({patches.operation(document_.read(""), orderly)});
      log_ += patch.dump() + "\n";
      document_.apply(patch);
      for (auto runs = patches.below(4); runs > 0; --runs)
        scheduler_->runOne();
    }
  }
  AllowedRows allowed() const {
    return allowedRows(*database_.tunnelIntfStatusDir(), *database_.ifMib());
  }

  Zel::Ptr<TestScheduler> scheduler_ =
      Zel::makePtr<TestScheduler>(GetParam().yield, testSeed());
  StateDb::StateDb database_;
  StateDb::StateDocument document_{database_};
  Zel::Ptr<TunnelMib> mib_ = Zel::makePtr<TunnelMib>("tunnelMib");
  std::string log_;
};
INSTANTIATE_TEST_SUITE_P(Modes, Property, ::testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

TEST_P(Property, OrderlyInputsAndTheTableAgreeWheneverItIsQuiet) {
  for (std::uint32_t round = 0; round != 60; ++round) {
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
  for (std::uint32_t round = 0; round != 60; ++round) {
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

} // namespace
} // namespace TunnelIntfSnmp
