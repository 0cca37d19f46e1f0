// What the linux source makes of dumps that do not go as they should. The kernel's answers are
// written here; its events come from a network namespace in which nothing happens.
#include "tests/sources/linux/KernelLinks.h"
#include "tests/sources/linux/ScriptedDumps.h"
#include "tests/support/FailingMemory.h"
#include <cerrno>
#include <fmt/format.h>
#include <gmock/gmock.h>

namespace {

using Sources::SourceStatus;
using testing::ElementsAre;
using testing::HasSubstr;
using State = SourceStatus::State;
using Dumps = ScriptedDumps;

constexpr char const * tooFast =
    "source linux: links come and go too fast to read them all: trying again";
constexpr int attempts = 5; // of one reading, when links come and go meanwhile

class LinuxDump : public KernelLinks {
protected:
  /// Starts the source with one link, 7, of hop limit 11.
  void begin() {
    dumps.answerIs({Dumps::gre(7, 11), Dumps::done()});
    source = std::make_unique<Sources::LinuxSource>("", surroundings(),
                                                    Sources::LinuxSource::defaultReceiveBuffer,
                                                    [this] { return dumps.ask(); });
    source->start();
    ASSERT_EQ(hopLimit(7), 11);
  }
  /// Reads the answers that have been given.
  void read() {
    source->reread();
    settle();
  }
  void passRetryPeriod() {
    loop.advance(Sources::LinuxSource::retryPeriod);
    settle();
  }
  void answerInterrupted(int times) {
    for (int i = 0; i != times; ++i)
      dumps.answerIs({Dumps::gre(7, 12), Dumps::interrupted(Dumps::done())});
  }
  /// Reads, with an allocation that fails after so many others. True if and only if it was one of
  /// the test's loop itself.
  bool readWithoutMemory(long before) {
    FailingMemory const failing(before, FailingMemory::Fails::once);
    source->reread();
    auto isLoops = false;
    for (auto more = true; more;) {
      try {
        more = loop.runOnce();
      } catch (std::bad_alloc const &) {
        isLoops = true;
      }
    }
    while (scheduler->runOne()) {
    }
    return isLoops;
  }
  /// Of that link; null when it is not published.
  nlohmann::json hopLimit(int index) const {
    auto const found = status(std::to_string(index));
    return found.is_null() ? found : found["hopLimit"];
  }
  void expectDegraded(std::string const & error) const {
    EXPECT_FALSE(source->status().isReading);
    EXPECT_EQ(source->status().state, State::degraded);
    EXPECT_EQ(source->status().lastError, error);
  }
  void expectInSync() const {
    EXPECT_FALSE(source->status().isReading);
    EXPECT_EQ(source->status().lastError, "");
    EXPECT_EQ(source->status().state, State::inSync);
  }

  Dumps dumps;
};

TEST_F(LinuxDump, IsTakenAgainAtOnceWhenLinksCameAndWentMeanwhile) {
  begin();
  answerInterrupted(attempts - 1);
  dumps.answerIs({Dumps::gre(7, 13), Dumps::done()});
  read();
  EXPECT_EQ(dumps.asked(), 1 + attempts);
  EXPECT_EQ(hopLimit(7), 13);
  expectInSync();
}

TEST_F(LinuxDump, IsInterruptedWhereverItIsMarked) {
  begin();
  dumps.answerIs({Dumps::interrupted(Dumps::gre(7, 12)), Dumps::done()});
  dumps.answerIs({Dumps::gre(7, 13), Dumps::done()});
  read();
  EXPECT_EQ(dumps.asked(), 3);
  EXPECT_EQ(hopLimit(7), 13);
}

TEST_F(LinuxDump, IsNotTakenMoreThanSomeTimesInOneReading) {
  begin();
  auto const counted = Lumo::counter("linux-dumps-interrupted");
  answerInterrupted(attempts);
  read();
  EXPECT_EQ(dumps.asked(), 1 + attempts);
  EXPECT_EQ(Lumo::counter("linux-dumps-interrupted"), counted + attempts);
  EXPECT_EQ(hopLimit(7), 12) << "what it has seen";
  expectDegraded(tooFast);
  EXPECT_THAT(told, ElementsAre(State::degraded));
}

TEST_F(LinuxDump, KeepsLinksThatAnInterruptedOneDidNotShow) {
  dumps.answerIs({Dumps::gre(7, 11), Dumps::gre(8, 11), Dumps::done()});
  source = std::make_unique<Sources::LinuxSource>("", surroundings(),
                                                  Sources::LinuxSource::defaultReceiveBuffer,
                                                  [this] { return dumps.ask(); });
  source->start();
  answerInterrupted(attempts);
  read();
  EXPECT_EQ(hopLimit(8), 11);
}

// Each reading has all its attempts, and begins soon.
TEST_F(LinuxDump, HasAllItsAttemptsInTheNextReading) {
  begin();
  answerInterrupted(attempts);
  read();
  answerInterrupted(attempts - 1);
  dumps.answerIs({Dumps::gre(7, 13), Dumps::done()});
  passRetryPeriod();
  EXPECT_EQ(dumps.asked(), 1 + 2 * attempts);
  EXPECT_EQ(hopLimit(7), 13);
  expectInSync();
  EXPECT_THAT(told, ElementsAre(State::degraded, State::inSync));
}

TEST_F(LinuxDump, CountsAPartThatDidNotFitAsInterrupted) {
  begin();
  auto large = Dumps::gre(7, 12);
  large.resize(40'000);
  dumps.answerIs({large, Dumps::done()});
  dumps.answerIs({Dumps::gre(7, 13), Dumps::done()});
  read();
  EXPECT_EQ(dumps.asked(), 3);
  EXPECT_EQ(hopLimit(7), 13);
}

TEST_F(LinuxDump, KeepsWhatIsKnownOfALinkThatItCannotRead) {
  begin();
  dumps.answerIs({Dumps::malformed(7), Dumps::gre(8, 20), Dumps::done()});
  read();
  EXPECT_EQ(hopLimit(7), 11);
  EXPECT_EQ(hopLimit(8), 20);
  EXPECT_NE(links.findByName("gre7"), nullptr);
  expectDegraded("source linux: 1 links cannot be understood: trace LinuxSource:0 says why");
}

TEST_F(LinuxDump, ForgetsAFaultWithTheDumpThatHadIt) {
  begin();
  dumps.answerIs({Dumps::malformed(7), Dumps::done()});
  read();
  EXPECT_EQ(source->status().state, State::degraded);
  dumps.answerIs({Dumps::gre(7, 12), Dumps::done()});
  read();
  expectInSync();
  dumps.answerIs({Dumps::malformed(7), Dumps::interrupted(Dumps::done())});
  dumps.answerIs({Dumps::gre(7, 13), Dumps::done()});
  read();
  expectInSync();
  EXPECT_EQ(hopLimit(7), 13);
}

TEST_F(LinuxDump, MayTakeLongAsLongAsPartsOfItCome) {
  begin();
  source->reread(); // nothing is answered yet
  for (int index = 20; index != 26; ++index) {
    loop.advance(Sources::LinuxSource::patience * 3 / 4);
    dumps.send(Dumps::gre(index, 15));
    loop.runReady();
    ASSERT_TRUE(source->status().isReading) << index;
  }
  dumps.send(Dumps::done());
  settle();
  expectInSync();
  EXPECT_EQ(hopLimit(25), 15);
  EXPECT_EQ(hopLimit(7), nullptr);
}

TEST_F(LinuxDump, IsGivenUpWhenNoFurtherPartOfItComes) {
  begin();
  source->reread();
  loop.advance(Sources::LinuxSource::patience * 3 / 4);
  dumps.send(Dumps::gre(7, 12));
  loop.runReady();
  loop.advance(Sources::LinuxSource::patience);
  settle();
  expectDegraded("source linux: cannot read the links: the kernel does not answer");
  EXPECT_EQ(hopLimit(7), 11) << "nothing of it is published";
}

/// How a dump can fail, and what is said of it.
struct Failure {
  std::string name;
  std::vector<Dumps::Part> parts;
  std::string said;
};
void PrintTo(Failure const & failure, std::ostream * out) {
  *out << failure.name;
}

class FailedDump : public LinuxDump, public testing::WithParamInterface<Failure> {};

TEST_P(FailedDump, ChangesNothingAndIsTriedAgainSoon) {
  begin();
  dumps.answerIs(GetParam().parts);
  source->reread();
  dumps.close();
  settle();
  expectDegraded("source linux: cannot read the links: " + GetParam().said);
  EXPECT_EQ(hopLimit(7), 11);
  EXPECT_EQ(source->status().fullReads, 1u);
  dumps.answerIs({Dumps::gre(7, 13), Dumps::done()});
  passRetryPeriod();
  expectInSync();
  EXPECT_EQ(hopLimit(7), 13);
}

TEST_P(FailedDump, TakesWishesThatCameMeanwhileAlong) {
  begin();
  dumps.answerIs(GetParam().parts);
  source->reread();
  source->reread();
  dumps.close();
  settle();
  EXPECT_EQ(dumps.asked(), 2) << "not at once";
  dumps.answerIs({Dumps::gre(7, 13), Dumps::done()});
  passRetryPeriod();
  EXPECT_EQ(hopLimit(7), 13);
  EXPECT_EQ(dumps.asked(), 3) << "one reading is enough";
  settle();
  EXPECT_EQ(dumps.asked(), 3);
}

INSTANTIATE_TEST_SUITE_P(
    Linux, FailedDump,
    testing::Values(Failure{"Refused", {Dumps::refusal(EPERM)}, "Operation not permitted"},
                    Failure{"RefusedInTheMiddle",
                            {Dumps::gre(7, 12), Dumps::refusal(ENOBUFS)},
                            "Out of memory"},
                    Failure{"EndedWithAnError",
                            {Dumps::gre(7, 12), Dumps::doneWith(EPERM)},
                            "Operation not permitted"},
                    Failure{"Closed", {Dumps::gre(7, 12)}, "the socket has been closed"}),
    [](auto const & failure) { return failure.param.name; });

TEST_F(LinuxDump, IsTriedAgainWhenItCannotEvenBeAskedFor) {
  auto fails = false;
  dumps.answerIs({Dumps::gre(7, 11), Dumps::done()});
  source = std::make_unique<Sources::LinuxSource>(
      "", surroundings(), Sources::LinuxSource::defaultReceiveBuffer, [&] {
        if (fails)
          throw std::runtime_error("source linux: cannot ask for the links: no reason");
        return dumps.ask();
      });
  source->start();
  fails = true;
  read();
  expectDegraded("source linux: cannot ask for the links: no reason");
  passRetryPeriod();
  expectDegraded("source linux: cannot ask for the links: no reason");
  EXPECT_THAT(told, ElementsAre(State::degraded)) << "once";
  fails = false;
  dumps.answerIs({Dumps::gre(7, 12), Dumps::done()});
  passRetryPeriod();
  expectInSync();
  EXPECT_EQ(hopLimit(7), 12);
}

TEST_F(LinuxDump, FollowsAfterAPeriodWhenThereWasNoMemoryForAnEarlierTime) {
  begin();
  told.reserve(16);
  {
    FailingMemory const failing(0, FailingMemory::Fails::always);
    source->reread();
  }
  EXPECT_EQ(source->status().lastError, "out of memory");
  dumps.answerIs({Dumps::gre(7, 12), Dumps::done()});
  passFullReadPeriod();
  EXPECT_EQ(hopLimit(7), 12);
  expectInSync();
}

TEST_F(LinuxDump, IsGivenUpWhenThereIsNoMemoryForIt) {
  begin();
  told.reserve(16);
  int givenUp = 0;
  auto hasFailed = true;
  for (long before = 0; hasFailed && !HasFailure(); ++before) {
    SCOPED_TRACE(fmt::format("allocation {}", before));
    dumps.answerIs({Dumps::gre(7, 12), Dumps::gre(8, 12), Dumps::done()});
    auto const isLoops = readWithoutMemory(before);
    hasFailed = FailingMemory::hasFailed();
    dumps.forgetAnswers();
    // What is missing may be the time of the next reading alone.
    if (hasFailed && !isLoops && !source->status().lastError.empty()) {
      ++givenUp;
      EXPECT_FALSE(source->status().isReading);
      EXPECT_EQ(source->status().lastError, "there is not enough memory");
      dumps.answerIs({Dumps::gre(7, 11), Dumps::done()});
      auto const asked = dumps.asked();
      passRetryPeriod();
      auto const werePolicies = dumps.asked() == asked; // whose reading was given up
      EXPECT_EQ(hopLimit(7), werePolicies ? 12 : 11);
      dumps.forgetAnswers();
    } else {
      EXPECT_EQ(hopLimit(7), 12);
    }
    expectInSync();
  }
  EXPECT_GT(givenUp, 20);
}

} // namespace
