// A patch that is led step by step while others change the database.
#include "statedb/PatchRun.h"
#include "statedb/StateDocument.h"
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using StateDb::DocumentError;
using StateDb::PatchRun;
using testing::HasSubstr;

std::string placeOf(std::size_t intf) {
  return "/ifMib/ifIndexByIntfId/" + std::to_string(intf);
}

/// Adds an ifIndex for each interface from 1 on.
json additions(std::size_t count) {
  auto patch = json::array();
  for (std::size_t intf = 1; intf <= count; ++intf)
    patch.push_back({{"op", "add"}, {"path", placeOf(intf)}, {"value", intf}});
  return patch;
}

json testOf(std::size_t intf, json const & value) {
  return {{"op", "test"}, {"path", placeOf(intf)}, {"value", value}};
}

class PatchRuns : public testing::Test {
protected:
  std::size_t size() const { return database_.ifMib()->ifIndexByIntfId().size(); }
  void others(std::size_t intf, std::uint32_t ifIndex) {
    document_.apply(json::array({{{"op", "add"}, {"path", placeOf(intf)}, {"value", ifIndex}}}));
  }
  static std::size_t finish(PatchRun & run) {
    std::size_t steps = 1;
    while (run.step())
      ++steps;
    return steps;
  }

  StateDb::StateDb database_;
  StateDb::StateDocument document_{database_};
};

TEST_F(PatchRuns, CheckEachOperationBeforeTheFirstChange) {
  auto run = document_.begin(additions(10));
  for (int step = 1; step != 10; ++step) {
    EXPECT_TRUE(run.step());
    EXPECT_EQ(0u, size()) << step;
  }
  EXPECT_TRUE(run.step());
  EXPECT_EQ(1u, size()) << "the last check and the first change are one step";
  for (std::size_t made = 2; made <= 10; ++made) {
    EXPECT_TRUE(run.step());
    EXPECT_EQ(made, size());
  }
  finish(run);
  EXPECT_EQ(10u, size());
}

TEST_F(PatchRuns, TakeStepsByTheNumberOfOperations) {
  for (std::size_t const count : {1u, 10u, 100u, 10'000u}) {
    auto run = document_.begin(additions(count));
    EXPECT_EQ(3 * count - 1, finish(run)) << "checked, made and given back";
  }
  auto tests = json::array();
  for (int i = 0; i != 100; ++i)
    tests.push_back(testOf(7, 7));
  auto run = document_.begin(tests);
  EXPECT_EQ(200u - 1, finish(run)) << "there is nothing to make";
  auto nothing = document_.begin(json::array());
  EXPECT_EQ(1u, finish(nothing));
}

TEST_F(PatchRuns, RefuseWithNothingChangedWhateverWasChecked) {
  auto patch = additions(10);
  patch.push_back(testOf(1, 2));
  auto run = document_.begin(patch);
  for (int step = 0; step != 10; ++step)
    run.step();
  try {
    run.step();
    FAIL() << "the test holds";
  } catch (DocumentError const & error) {
    EXPECT_EQ(10u, error.operation());
    EXPECT_THAT(error.what(), HasSubstr("the test failed"));
  }
  EXPECT_EQ(0u, size());
  run.giveUp();
  EXPECT_EQ(11u, finish(run)) << "given back operation by operation";
  EXPECT_EQ(0u, size());
  EXPECT_THROW(document_.begin(json::object()), DocumentError);
}

TEST_F(PatchRuns, AreCheckedAnewWhenOthersChangeWhatWasChecked) {
  others(77, 1);
  auto patch = json::array({testOf(77, 1)});
  for (auto const & addition : additions(10))
    patch.push_back(addition);
  auto run = document_.begin(patch);
  for (int step = 0; step != 5; ++step)
    run.step();
  others(77, 2);
  EXPECT_THROW(finish(run), DocumentError) << "what was tested is not so any more";
  EXPECT_EQ(1u, size());
}

TEST_F(PatchRuns, AreMadeWhenOthersChangeSomethingElse) {
  auto run = document_.begin(additions(10));
  for (int step = 0; step != 5; ++step)
    run.step();
  others(77, 2);
  EXPECT_EQ(3u * 10 - 1, finish(run)) << "the checks have begun anew";
  EXPECT_EQ(11u, size());
}

TEST_F(PatchRuns, EndAlthoughOthersNeverRest) {
  auto run = document_.begin(additions(10));
  std::size_t steps = 0;
  for (; size() < 11 && steps != 1000; ++steps) {
    others(77, static_cast<std::uint32_t>(steps + 1));
    run.step();
  }
  EXPECT_LE(steps, static_cast<std::size_t>(PatchRun::restartsMost) + 10);
  EXPECT_EQ(11u, size());
}

TEST_F(PatchRuns, GoOnAfterARecordThatOthersRemovedMeanwhile) {
  std::vector<std::string> failures;
  StateDb::StateDocument document(
      database_, [&](std::string_view pointer, std::exception const & exception) {
        failures.push_back(std::string(pointer) + ": " + exception.what());
      });
  std::string const status = "/tunnelIntfStatusDir/intfStatus/5";
  document.apply(json::array({{{"op", "add"}, {"path", status}, {"value", json::object()}}}));
  auto patch = additions(2);
  patch.push_back({{"op", "replace"}, {"path", status + "/tos"}, {"value", 7}});
  patch.push_back({{"op", "add"}, {"path", placeOf(9)}, {"value", 9}});
  auto run = document.begin(patch);
  for (int step = 0; step != 4; ++step)
    run.step();
  EXPECT_EQ(1u, size());
  document.apply(json::array({{{"op", "remove"}, {"path", status}}}));
  finish(run);
  EXPECT_THAT(failures, testing::ElementsAre(status + "/tos: was removed while the patch was "
                                                      "carried out"));
  EXPECT_EQ(3u, size());
}

} // namespace
