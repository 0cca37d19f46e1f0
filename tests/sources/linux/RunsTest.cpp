// Work in small steps, some now and the rest when others have had their turn.
#include "sources/linux/Runs.h"
#include "tests/sources/SourceHost.h"
#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using Sources::Linux::Runs;

class RunsTest : public testing::Test, protected SourceHost {
protected:
  RunsTest() : SourceHost(Yield::always) {}

  bool step() {
    if (toDo == 0)
      return false;
    --toDo;
    if (toDo == failsAt)
      throw std::runtime_error("no");
    return true;
  }

  int toDo = 0;
  int failsAt = -1;
  int failures = 0;
  Runs runs{"RunsTest", [this] { return step(); }, [this](std::exception const &) { ++failures; }};
};

TEST_F(RunsTest, DoLittleAtOnce) {
  toDo = 100;
  runs.begin();
  EXPECT_EQ(toDo, 0);
  EXPECT_EQ(scheduler->runUntilQuiet(), 0u);
}

TEST_F(RunsTest, LeaveTheRestOfMuchForLater) {
  toDo = 1000;
  runs.begin();
  EXPECT_LT(toDo, 1000) << "some is done";
  EXPECT_GT(toDo, 500) << "nobody waits for the rest";
  EXPECT_GT(scheduler->runUntilQuiet(), 100u) << "others have their turns between";
  EXPECT_EQ(toDo, 0);
}

TEST_F(RunsTest, DoNothingAtOnceWhenAllIsForLater) {
  toDo = 3;
  runs.beginLater();
  EXPECT_EQ(toDo, 3);
  scheduler->runUntilQuiet();
  EXPECT_EQ(toDo, 0);
}

TEST_F(RunsTest, TellOfAFailureAndLeaveTheRestForTheNextCall) {
  toDo = 5;
  failsAt = 3;
  runs.beginLater();
  scheduler->runUntilQuiet();
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(toDo, 3);
  runs.finish();
  EXPECT_EQ(toDo, 0);
}

TEST_F(RunsTest, RaiseWhatFailsAtOnce) {
  toDo = 5;
  failsAt = 3;
  EXPECT_THROW(runs.begin(), std::runtime_error);
  EXPECT_EQ(failures, 0);
}

} // namespace
