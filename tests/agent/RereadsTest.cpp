// Wishes to read everything again, and their answers, with sources that a test drives.
#include "agent/Rereads.h"
#include "platform/Lumo.h"
#include "tests/support/TestLoop.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Reads for as long as the test says.
class SlowSource final : public Sources::Source {
public:
  explicit SlowSource(std::string name) : name_(std::move(name)) {}
  std::string name() const override { return name_; }
  void start() override {}
  void reread() override {
    ++wishes;
    now.isReading = true;
  }
  Sources::SourceStatus status() const override { return now; }
  void done(std::string const & error = "") {
    now.isReading = false;
    now.lastError = error;
  }

  Sources::SourceStatus now;
  int wishes = 0;

private:
  std::string const name_;
};

class Rereads : public testing::Test {
protected:
  Rereads() {
    for (auto const * name : {"json:a", "json:b"})
      sources_.push_back(std::make_unique<SlowSource>(name));
  }
  SlowSource & source(std::size_t number) { return static_cast<SlowSource &>(*sources_[number]); }
  void look() { loop.advance(std::chrono::milliseconds(10)); }

  TestLoop loop;
  int configurations = 0;
  std::vector<bool> heard;
  std::vector<std::string> configurationFailures;

private:
  Agent::Rereads::Sources sources_;

protected:
  Agent::Rereads rereads{loop, sources_,
                         [this] {
                           ++configurations;
                           return configurationFailures;
                         },
                         [this](bool isUnderWay) { heard.push_back(isUnderWay); }};
};

TEST_F(Rereads, AnswerWhenEverySourceHasRead) {
  auto const answer = rereads.wish();
  EXPECT_EQ(configurations, 1);
  EXPECT_EQ(source(0).wishes, 1);
  source(0).done();
  look();
  EXPECT_EQ(*answer, std::nullopt);
  EXPECT_TRUE(rereads.isUnderWay());
  source(1).done();
  look();
  ASSERT_NE(*answer, std::nullopt);
  EXPECT_THAT(**answer, IsEmpty());
  EXPECT_FALSE(rereads.isUnderWay());
  EXPECT_EQ(loop.timers(), 0u);
}

TEST_F(Rereads, AnswerWithEachFailure) {
  configurationFailures = {"the configuration is wrong"};
  auto const answer = rereads.wish();
  source(0).done();
  source(1).done("the file is wrong");
  look();
  EXPECT_THAT(**answer, ElementsAre("the configuration is wrong", "json:b: the file is wrong"));
}

TEST_F(Rereads, AnswerInTimeWhichSourceIsStillReading) {
  auto const answer = rereads.wish();
  source(0).done();
  loop.advance(Agent::Rereads::patience - std::chrono::milliseconds(1));
  EXPECT_EQ(*answer, std::nullopt);
  loop.advance(std::chrono::milliseconds(1));
  ASSERT_NE(*answer, std::nullopt);
  EXPECT_THAT(**answer, ElementsAre("json:b: is still reading after 30 s; \"tunnelsnmpctl status\" "
                                    "shows when it has done so"));
  EXPECT_FALSE(rereads.isUnderWay());
  EXPECT_EQ(loop.timers(), 0u);
}

TEST_F(Rereads, MakeOneFurtherReadingOfAllWishesThatComeMeanwhile) {
  auto const first = rereads.wish();
  std::vector<std::shared_ptr<Agent::RereadOutcome const>> later;
  for (int wishes = 0; wishes != 100; ++wishes)
    later.push_back(rereads.wish());
  EXPECT_EQ(configurations, 1);
  EXPECT_EQ(source(0).wishes, 1);
  for (auto const number : {0, 1})
    source(static_cast<std::size_t>(number)).done();
  look();
  EXPECT_NE(*first, std::nullopt);
  EXPECT_EQ(configurations, 2);
  EXPECT_EQ(source(0).wishes, 2);
  for (auto const & answer : later)
    EXPECT_EQ(*answer, std::nullopt);
  source(0).done();
  source(1).done("is wrong now");
  look();
  for (auto const & answer : later)
    EXPECT_THAT(**answer, ElementsAre("json:b: is wrong now"));
  EXPECT_EQ(configurations, 2);
  EXPECT_EQ(source(0).wishes, 2);
}

TEST_F(Rereads, TellOnceWhenTheyBeginAndOnceWhenTheLastIsOver) {
  rereads.wish();
  rereads.wish();
  EXPECT_THAT(heard, ElementsAre(true));
  for (auto const reading : {1, 2}) {
    EXPECT_THAT(heard, ElementsAre(true)) << reading;
    source(0).done();
    source(1).done();
    look();
  }
  EXPECT_THAT(heard, ElementsAre(true, false));
}

TEST_F(Rereads, CountEachWish) {
  auto const before = Lumo::counter("agent-rereads");
  rereads.wish();
  rereads.wish();
  EXPECT_EQ(Lumo::counter("agent-rereads"), before + 2);
}

TEST(RereadsWithoutSources, AnswerAtOnce) {
  TestLoop loop;
  Agent::Rereads::Sources const none;
  std::vector<bool> heard;
  Agent::Rereads rereads(
      loop, none, [] { return std::vector<std::string>(); },
      [&](bool isUnderWay) { heard.push_back(isUnderWay); });
  auto const answer = rereads.wish();
  ASSERT_NE(*answer, std::nullopt);
  EXPECT_FALSE(rereads.isUnderWay());
  EXPECT_THAT(heard, ElementsAre(true, false));
}

} // namespace
