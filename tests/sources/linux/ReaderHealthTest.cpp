// What is said of a reading that the kernel refuses, or that fails in another way.
#include "sources/linux/ReaderHealth.h"
#include "sources/linux/KernelReader.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Sources::Linux {
namespace {

using testing::ElementsAre;
using Reason = NetlinkError::Reason;

auto const handler = Lumo::Platform::getDebugHandler("ReaderHealthTest", false);

class ReaderHealthTest : public testing::Test {
protected:
  static constexpr std::chrono::seconds period{20};

  /// As KernelReader tells a failure.
  std::chrono::milliseconds fails(std::exception const & reason) {
    auto const after = health.retryAfter(reason, period);
    health.isDegraded(reason.what());
    return after;
  }

  NetlinkSubject const subject{.protocol = 0,
                               .family = "a",
                               .things = "things",
                               .groups = {},
                               .request = 0,
                               .requestZeros = 0};
  NetlinkError const refusal{"no", Reason::notPermitted};
  NetlinkError const broken{"it broke", Reason::other};
  int changes = 0;
  ReaderHealth health{subject, *handler, "nothing is told", [this] { ++changes; }};
};

TEST_F(ReaderHealthTest, IsAnErrorUntilAReadingGoesWell) {
  EXPECT_EQ(fails(broken), KernelReader::retryPeriod) << "it may be over soon";
  EXPECT_EQ(health.lastError(), "it broke");
  EXPECT_EQ(changes, 1) << "who asked for it hears of it";
  health.isInSync();
  EXPECT_EQ(health.lastError(), "");
  EXPECT_EQ(changes, 2);
}

TEST_F(ReaderHealthTest, IsARefusalAndNoError) {
  fails(broken);
  EXPECT_EQ(fails(refusal), period) << "it is not over soon";
  EXPECT_EQ(health.lastError(), "") << "what was wrong before is no longer";
  EXPECT_EQ(health.refusal(), "not permitted: give CAP_NET_ADMIN; until then nothing is told");
  EXPECT_EQ(changes, 2);
  health.isAnswered();
  EXPECT_EQ(health.refusal(), "");
}

TEST_F(ReaderHealthTest, IsSaidOnceWhileItStays) {
  TraceRecorder traces({{"ReaderHealthTest", "0"}});
  fails(refusal);
  fails(refusal);
  EXPECT_THAT(traces.texts(0),
              ElementsAre("things: not permitted: give CAP_NET_ADMIN; until then nothing is told"));
  fails(NetlinkError("no", Reason::notSupported));
  EXPECT_EQ(traces.texts(0).size(), 2u) << "another one is news";
}

TEST_F(ReaderHealthTest, IsAnErrorAgainBehindARefusal) {
  fails(refusal);
  fails(broken);
  EXPECT_EQ(health.refusal(), "");
  EXPECT_EQ(health.lastError(), "it broke");
}

} // namespace
} // namespace Sources::Linux
