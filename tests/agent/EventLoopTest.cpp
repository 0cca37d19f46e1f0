// The event loop over libevent: descriptors, times and signals, with real ones.
#include "agent/EventLoop.h"
#include "platform/Lumo.h"
#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;

struct Pipe {
  Pipe() {
    if (pipe(ends.data()) != 0)
      throw std::runtime_error("no pipe");
  }
  ~Pipe() {
    close(ends[0]);
    close(ends[1]);
  }
  void put() { EXPECT_EQ(1, write(ends[1], "x", 1)); }
  void take() {
    char octet;
    EXPECT_EQ(1, read(ends[0], &octet, 1));
  }
  std::array<int, 2> ends;
};

bool noWork() {
  return false;
}

TEST(EventLoop, CallsAReaderForAsLongAsThereIsSomethingToRead) {
  Agent::EventLoop loop;
  Pipe pipe;
  pipe.put();
  pipe.put();
  int calls = 0;
  auto const watch = loop.readable(pipe.ends[0], [&] {
    pipe.take();
    if (++calls == 2)
      loop.stop();
  });
  loop.run(noWork);
  EXPECT_EQ(2, calls);
}

TEST(EventLoop, CallsAWriterWhileThereIsRoomAndNoLonger) {
  Agent::EventLoop loop;
  Pipe pipe;
  int calls = 0;
  auto const watch = loop.writable(pipe.ends[1], [&] {
    ++calls;
    std::string const more(4096, 'x'); // a page: a pipe takes it whole or not at all
    EXPECT_EQ(4096, write(pipe.ends[1], more.data(), more.size()));
  });
  auto const later = loop.after(milliseconds(20), [&] { loop.stop(); });
  loop.run(noWork);
  EXPECT_EQ(fcntl(pipe.ends[1], F_GETPIPE_SZ) / 4096, calls) << "a full pipe must not be written";
}

TEST(EventLoop, CallsATimerOnce) {
  Agent::EventLoop loop;
  int calls = 0;
  auto const once = loop.after(milliseconds(0), [&] { ++calls; });
  auto const later = loop.after(milliseconds(20), [&] { loop.stop(); });
  loop.run(noWork);
  EXPECT_EQ(1, calls);
}

TEST(EventLoop, CallsATimerAgainAndAgain) {
  Agent::EventLoop loop;
  int calls = 0;
  Os::Loop::Handle watch;
  watch = loop.every(milliseconds(1), [&] {
    if (++calls == 3)
      watch.reset();
  });
  auto const later = loop.after(milliseconds(40), [&] { loop.stop(); });
  loop.run(noWork);
  EXPECT_EQ(3, calls);
}

TEST(EventLoop, AWatchMayEndItselfInItsOwnCall) {
  Agent::EventLoop loop;
  std::string const text = "a text too long to be kept inside the function object itself";
  std::string seen;
  Os::Loop::Handle watch;
  watch = loop.after(milliseconds(0), [&loop, &watch, &seen, text] {
    watch.reset();
    seen = text;
    loop.stop();
  });
  loop.run(noWork);
  EXPECT_EQ(text, seen);
}

TEST(EventLoop, AnEndedWatchIsNotCalled) {
  Agent::EventLoop loop;
  Pipe pipe;
  pipe.put();
  bool called = false;
  auto watch = loop.readable(pipe.ends[0], [&] { called = true; });
  watch.reset();
  auto const later = loop.after(milliseconds(5), [&] { loop.stop(); });
  loop.run(noWork);
  EXPECT_FALSE(called);
}

TEST(EventLoop, ServesEventsBetweenTwoPiecesOfWork) {
  Agent::EventLoop loop;
  Pipe pipe;
  pipe.put();
  int works = 0;
  int worksWhenServed = 0;
  auto const watch = loop.readable(pipe.ends[0], [&] {
    worksWhenServed = works;
    loop.stop();
  });
  loop.run([&] { return ++works < 1000; });
  EXPECT_EQ(1, worksWhenServed);
}

TEST(EventLoop, DoesOnePieceOfWorkInATurnHoweverManyEventsThereAre) {
  Agent::EventLoop loop;
  Pipe pipe;
  pipe.put(); // never taken: readable in every turn
  int works = 0;
  int events = 0;
  auto const watch = loop.readable(pipe.ends[0], [&] { ++events; });
  loop.run([&] {
    if (++works == 100)
      loop.stop();
    return true;
  });
  EXPECT_EQ(100, works);
  EXPECT_EQ(100, events);
}

TEST(EventLoop, GoesOnAfterAnExceptionOutOfACallback) {
  Agent::EventLoop loop;
  auto const before = Lumo::counter("agent-callback-exceptions");
  auto const first =
      loop.after(milliseconds(0), [] { throw std::runtime_error("meant to happen"); });
  auto const second = loop.after(milliseconds(1), [&] { loop.stop(); });
  loop.run(noWork);
  EXPECT_EQ(before + 1, Lumo::counter("agent-callback-exceptions"));
}

TEST(EventLoop, HearsASignalThatCameBeforeItRan) {
  Agent::EventLoop loop;
  bool caught = false;
  auto const watch = loop.signal(SIGUSR1, [&] {
    caught = true;
    loop.stop();
  });
  raise(SIGUSR1);
  loop.run(noWork);
  EXPECT_TRUE(caught);
}

TEST(EventLoop, SaysWhyADescriptorCannotBeWatchedAndNothingElse) {
  Agent::EventLoop loop;
  testing::internal::CaptureStderr();
  try {
    auto const watch = loop.readable(open("/dev/null", O_RDONLY | O_CLOEXEC), [] {});
    ADD_FAILURE() << "a file is watched";
  } catch (std::runtime_error const & error) {
    EXPECT_STREQ("cannot watch a descriptor: Operation not permitted", error.what());
  }
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

} // namespace
