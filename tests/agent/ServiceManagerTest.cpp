// A socket in the place of the service manager's, and what arrives there.
#include "agent/ServiceManager.h"
#include "agent/EventLoop.h"
#include "platform/Lumo.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestLoop.h"
#include <array>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

/// The variables that a manager sets, unset again when the test ends.
class ServiceManager : public testing::Test {
protected:
  ServiceManager() { unset(); }
  ~ServiceManager() override { unset(); }

  static void set(char const * name, std::string const & value) { setenv(name, value.c_str(), 1); }
  void listenAt(Os::UnixAddress const & address) {
    manager_ = Os::Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    ASSERT_EQ(0, bind(manager_.get(), address.get(), address.size()));
  }
  /// The manager's usual place.
  void listen() {
    listenAt(Os::UnixAddress::ofPath(path()).value());
    set("NOTIFY_SOCKET", path());
  }
  std::string path() const { return folder_.file("notify"); }

  /// What has arrived since the last time.
  std::vector<std::string> heard() const {
    std::vector<std::string> all;
    std::array<char, 4096> message{};
    for (;;) {
      auto const size = recv(manager_.get(), message.data(), message.size(), 0);
      if (size < 0)
        return all;
      all.emplace_back(message.data(), static_cast<std::size_t>(size));
    }
  }

  TestLoop loop_;

private:
  static void unset() {
    for (auto const * name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
      unsetenv(name);
  }

  TemporaryFolder const folder_;
  Os::Descriptor manager_;
};

TEST_F(ServiceManager, HearsEachStateWithALineForPeople) {
  listen();
  Agent::ServiceManager manager(loop_);
  EXPECT_THAT(heard(), ElementsAre("STATUS=Starting; the tables are not complete yet"));
  manager.ready("udp:127.0.0.1:1161");
  EXPECT_THAT(heard(), ElementsAre("READY=1\nSTATUS=Ready; listening on udp:127.0.0.1:1161"));
  manager.reloading();
  EXPECT_THAT(heard(), ElementsAre("RELOADING=1\nSTATUS=Reading everything again"));
  manager.reloaded();
  EXPECT_THAT(heard(), ElementsAre("READY=1\nSTATUS=Ready; listening on udp:127.0.0.1:1161"));
  manager.stopping();
  EXPECT_THAT(heard(), ElementsAre("STOPPING=1\nSTATUS=Ending"));
}

TEST_F(ServiceManager, IsNotToldThatAReadingMadeTheDaemonReady) {
  listen();
  Agent::ServiceManager manager(loop_);
  manager.reloading();
  manager.reloaded();
  EXPECT_THAT(heard(), ElementsAre(StartsWith("STATUS=Starting")));
}

TEST_F(ServiceManager, IsReachedByAnAbstractName) {
  auto const name = "tunnelsnmpd-notify-" + std::to_string(getpid());
  listenAt(Os::UnixAddress::ofAbstractName(name).value());
  set("NOTIFY_SOCKET", "@" + name);
  Agent::ServiceManager const manager(loop_);
  EXPECT_THAT(heard(), ElementsAre(StartsWith("STATUS=")));
}

TEST_F(ServiceManager, IsNotThereWithoutTheVariable) {
  set("WATCHDOG_USEC", "1000000");
  auto const before = Lumo::counter("agent-service-manager-unreached");
  Agent::ServiceManager manager(loop_);
  manager.ready("here");
  manager.stopping();
  EXPECT_EQ(0u, loop_.timers());
  EXPECT_EQ(before, Lumo::counter("agent-service-manager-unreached"));
}

TEST_F(ServiceManager, IsNotThereWhereTheVariableIsNoAddress) {
  for (auto const & name : {std::string(), std::string("notify"), std::string("vsock:2:1"),
                            "/" + std::string(200, 'x'), "@" + std::string(200, 'x')}) {
    set("NOTIFY_SOCKET", name);
    set("WATCHDOG_USEC", "1000000");
    Agent::ServiceManager manager(loop_);
    manager.ready("here");
    EXPECT_EQ(0u, loop_.timers()) << name;
  }
}

TEST_F(ServiceManager, IsCountedWhenNobodyListens) {
  set("NOTIFY_SOCKET", path());
  auto const before = Lumo::counter("agent-service-manager-unreached");
  Agent::ServiceManager const manager(loop_);
  EXPECT_EQ(before + 1, Lumo::counter("agent-service-manager-unreached"));
  EXPECT_EQ(0u, loop_.timers());
}

TEST_F(ServiceManager, HearsTheLatestWhenItsQueueWasFull) {
  listen();
  Agent::ServiceManager manager(loop_);
  while (loop_.timers() == 0)
    manager.ready("an old place");
  manager.ready("the new place");
  ASSERT_THAT(heard(), testing::Not(testing::Contains(testing::HasSubstr("the new place"))));
  loop_.advance(milliseconds(100));
  EXPECT_THAT(heard(), ElementsAre("READY=1\nSTATUS=Ready; listening on the new place"));
  EXPECT_EQ(0u, loop_.timers());
}

TEST_F(ServiceManager, HearsTwiceInTheTimeOfTheWatchdogThatTheLoopTurns) {
  listen();
  set("WATCHDOG_USEC", "30000000");
  set("WATCHDOG_PID", std::to_string(getpid()));
  Agent::ServiceManager const manager(loop_);
  heard();
  loop_.advance(milliseconds(14'999));
  EXPECT_THAT(heard(), IsEmpty());
  loop_.advance(milliseconds(1));
  EXPECT_THAT(heard(), ElementsAre("WATCHDOG=1"));
  loop_.advance(milliseconds(30'000));
  EXPECT_THAT(heard(), ElementsAre("WATCHDOG=1", "WATCHDOG=1"));
}

TEST_F(ServiceManager, WantsNoWatchdogFedThatIsAnotherProcesssOrNone) {
  listen();
  for (auto const & [time, process] :
       {std::pair("30000000", "1"), {"0", ""}, {"", ""}, {"soon", ""}, {"30 s", ""}, {"-5", ""}}) {
    set("WATCHDOG_USEC", time);
    set("WATCHDOG_PID", process);
    Agent::ServiceManager const manager(loop_);
    EXPECT_EQ(0u, loop_.timers()) << time << " of " << process;
  }
}

TEST_F(ServiceManager, GetsSomethingNowAndThenForTheLongestAndTheShortestWatchdog) {
  listen();
  for (auto const * time : {"1", "18446744073709551615"}) {
    set("WATCHDOG_USEC", time);
    Agent::ServiceManager const manager(loop_);
    heard();
    loop_.advance(time == std::string("1") ? milliseconds(1) : std::chrono::hours(12));
    EXPECT_THAT(heard(), ElementsAre("WATCHDOG=1")) << time;
  }
}

TEST_F(ServiceManager, HearsNothingWhileTheLoopHangs) {
  listen();
  set("WATCHDOG_USEC", "20000"); // each 10 ms
  Agent::EventLoop loop;
  Agent::ServiceManager const manager(loop);
  auto fed = 0;
  loop.run([&] { // turns and is fed; then hangs
    for (auto const & message : heard())
      fed += message == "WATCHDOG=1" ? 1 : 0;
    if (fed < 3)
      return false;
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_THAT(heard(), IsEmpty());
    loop.stop();
    return true;
  });
  EXPECT_EQ(3, fed);
}

} // namespace
