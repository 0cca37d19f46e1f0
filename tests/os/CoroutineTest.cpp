// A function that is left and entered again. Under the thread sanitizer this shows as well that the
// turns order everything.
#include "os/Coroutine.h"
#include <csignal>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Os::Coroutine;

TEST(Coroutine, WorksOnlyWhileItIsResumed) {
  std::vector<int> seen;
  Coroutine coroutine([&](Coroutine::Pause const & pause) {
    seen.push_back(1);
    EXPECT_TRUE(pause());
    seen.push_back(2);
    EXPECT_TRUE(pause());
    seen.push_back(3);
  });
  EXPECT_EQ(seen, std::vector<int>());
  EXPECT_TRUE(coroutine.resume());
  EXPECT_EQ(seen, std::vector({1}));
  seen.push_back(10);
  EXPECT_TRUE(coroutine.resume());
  EXPECT_FALSE(coroutine.isOver());
  EXPECT_FALSE(coroutine.resume());
  EXPECT_EQ(seen, std::vector({1, 10, 2, 3}));
  EXPECT_TRUE(coroutine.isOver());
}

TEST(Coroutine, GivesWhatTheFunctionRaisesToWhoResumedIt) {
  Coroutine coroutine([](Coroutine::Pause const & pause) {
    EXPECT_TRUE(pause());
    throw std::runtime_error("meant to happen");
  });
  EXPECT_TRUE(coroutine.resume());
  EXPECT_THROW(coroutine.resume(), std::runtime_error);
  EXPECT_TRUE(coroutine.isOver());
}

TEST(Coroutine, HasItsFunctionReturnWhenItIsNoLongerWanted) {
  bool told = false;
  bool destroyed = false;
  struct Mark {
    ~Mark() { flag = true; }
    bool & flag;
  };
  {
    Coroutine coroutine([&](Coroutine::Pause const & pause) {
      Mark const mark{destroyed};
      while (pause()) {
      }
      told = !pause(); // once more: it must not wait now
    });
    EXPECT_TRUE(coroutine.resume());
    EXPECT_TRUE(coroutine.resume());
  }
  EXPECT_TRUE(told);
  EXPECT_TRUE(destroyed);
}

TEST(Coroutine, LosesWhatIsRaisedAtItsEnd) {
  Coroutine coroutine([&](Coroutine::Pause const & pause) {
    if (!pause())
      throw std::runtime_error("nobody is there to hear it");
  });
  EXPECT_TRUE(coroutine.resume());
}

TEST(Coroutine, NeverCallsAFunctionThatIsNeverResumed) {
  bool called = false;
  {
    Coroutine const coroutine([&](Coroutine::Pause const &) { called = true; });
  }
  EXPECT_FALSE(called);
}

TEST(Coroutine, TakesManyTurns) {
  constexpr int turns = 20'000;
  std::string text;
  Coroutine coroutine([&](Coroutine::Pause const & pause) {
    for (int i = 1; i != turns; ++i) {
      text += 'f';
      ASSERT_TRUE(pause());
    }
  });
  while (coroutine.resume())
    text += 'c';
  EXPECT_EQ(text.size(), 2u * (turns - 1));
  EXPECT_EQ(text.substr(0, 6), "fcfcfc");
}

// The system gives a process's signal to its first thread where it can, so delivery alone would not
// show it.
TEST(Coroutine, TakesNoSignals) {
  sigset_t blocked;
  sigemptyset(&blocked);
  Coroutine coroutine(
      [&](Coroutine::Pause const &) { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); });
  EXPECT_FALSE(coroutine.resume());
  for (auto const signal : {SIGTERM, SIGINT, SIGHUP})
    EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "the maker's own are as before";
}

TEST(Coroutine, LeavesSignalsToTheOtherThread) {
  static thread_local bool here = false;
  static bool caughtHere = false;
  here = true;
  caughtHere = false;
  auto const before = std::signal(SIGUSR1, [](int) { caughtHere = here; });
  Coroutine coroutine([](Coroutine::Pause const & pause) {
    kill(getpid(), SIGUSR1);
    EXPECT_TRUE(pause());
  });
  EXPECT_TRUE(coroutine.resume());
  EXPECT_TRUE(caughtHere);
  std::signal(SIGUSR1, before);
  EXPECT_FALSE(coroutine.resume());
}

} // namespace
