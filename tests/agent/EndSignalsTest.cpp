// Each case signals a child process that does one long step, as the daemon might.
#include "agent/EndSignals.h"
#include "tests/support/TemporaryFolder.h"
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

void pass(milliseconds time) {
  auto const end = steady_clock::now() + time;
  while (steady_clock::now() < end) {
  }
}

/// Runs `step` in a child that is asked to end by signals; what it exits with, or minus the signal.
template <class Step>
int outcomeOf(Step step) {
  auto const child = fork();
  if (child == 0) {
    Agent::EventLoop loop;
    Agent::EndSignals const signals(loop);
    step(loop);
    _exit(42); // nobody ended it
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class EndSignals : public testing::TestWithParam<int> {};

TEST_P(EndSignals, StopTheLoopAlsoBeforeItRuns) {
  EXPECT_EQ(outcomeOf([](Agent::EventLoop & loop) {
              raise(GetParam());
              loop.run([] { return false; });
              _exit(7);
            }),
            7);
}

TEST_P(EndSignals, EndAProcessThatBlocksThemWhenItIsStarted) {
  sigset_t signal;
  sigset_t before;
  sigemptyset(&signal);
  sigaddset(&signal, GetParam());
  sigaddset(&signal, SIGALRM);
  sigprocmask(SIG_BLOCK, &signal, &before);
  auto const outcome = outcomeOf([](Agent::EventLoop & loop) {
    raise(GetParam());
    loop.run([] { return false; });
    _exit(7);
  });
  sigprocmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(outcome, 7);
}

INSTANTIATE_TEST_SUITE_P(, EndSignals, testing::Values(SIGTERM, SIGINT, SIGQUIT));

// A sanitizer gives a daemon a minute.
#ifndef SANITIZED
TEST(LongStep, EndsThereAndThenAndLeavesNoFile) {
  TemporaryFolder const folder;
  auto const file = folder.file("socket");
  folder.write("socket", "");
  auto const begin = steady_clock::now();
  EXPECT_EQ(outcomeOf([&](Agent::EventLoop &) {
              Agent::EndSignals::fileIs(file);
              raise(SIGTERM);
              pass(milliseconds(20'000));
            }),
            0);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(5'000));
  EXPECT_NE(access(file.c_str(), F_OK), 0);
}

TEST(LongStep, EndsInTimeThoughItIsAskedAgainAndAgain) {
  auto const begin = steady_clock::now();
  EXPECT_EQ(outcomeOf([](Agent::EventLoop &) {
              for (int i = 0; i != 60; ++i) {
                raise(SIGTERM);
                pass(milliseconds(300));
              }
            }),
            0);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(5'000));
}
#endif

TEST(LongStep, IsNotEndedByAnAlarmThatSomebodySends) {
  EXPECT_EQ(outcomeOf([](Agent::EventLoop &) {
              kill(getpid(), SIGALRM);
              pass(milliseconds(10));
            }),
            42);
}

} // namespace
