// The source against the running kernel, with vxlan links because every kernel has those.
#include "sources/linux/LinuxSource.h"
#include "tests/sources/linux/KernelLinks.h"
#include "tests/support/TraceRecorder.h"
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <set>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using nlohmann::json;
using Sources::SourceStatus;
using testing::ElementsAre;
using testing::HasSubstr;

/// What is published of the vxlan links that these tests make.
json vxlan(char const * local, char const * remote, int hopLimit = 7, int tos = 0x22) {
  return {{"srcAddr", local},     {"dstAddr", remote}, {"mode", "vxlan"},
          {"hopLimit", hopLimit}, {"tos", tos},        {"ipsec", false}};
}

/// So many that a full read has several parts.
std::string manyVxlans(int links) {
  std::string lines;
  for (int i = 0; i != links; ++i)
    lines += fmt::format("link add vx{0} type vxlan id {0} local 10.0.0.1 remote 10.0.0.2 dstport "
                         "4789 ttl 7 tos 0x88\n",
                         i);
  return lines;
}

class LinuxSource : public KernelLinks {
protected:
  void addVxlan(std::string const & name, int id = 100) {
    ip(fmt::format("link add {} type vxlan id {} local 10.0.0.1 remote 10.0.0.2 dstport 4789 ttl 7 "
                   "tos 0x88",
                   name, id));
  }
  void TearDown() override {
    if (!source) // the test was skipped
      return;
    auto const doing = source->status();
    EXPECT_EQ(doing.state, SourceStatus::State::inSync) << doing.lastError;
  }
};

TEST_F(LinuxSource, PublishesWhatIsThereAtItsStart) {
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
  EXPECT_EQ(ifIndex(id), std::stoul(id));
  EXPECT_EQ(source->status().records.statuses, 1u);
  EXPECT_EQ(source->status().fullReads, 1u);
}

TEST_F(LinuxSource, PublishesAndRemovesALinkAsItComesAndGoes) {
  start();
  addVxlan("vx1");
  auto const id = idOf("vx1");
  settle();
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
  EXPECT_EQ(ifIndex(id), std::stoul(id));
  ip("link del vx1");
  settle();
  EXPECT_TRUE(isGone(id));
  EXPECT_EQ(source->status().records.statuses, 0u);
  EXPECT_EQ(source->status().fullReads, 1u) << "events were enough";
}

TEST_F(LinuxSource, ReadsIpv6AndInheritedValues) {
  start();
  ip("link add vx1 type vxlan id 1 local 2001:db8::1 remote 2001:db8::2 dstport 4789 ttl inherit "
     "tos inherit");
  settle();
  EXPECT_EQ(status(idOf("vx1")), vxlan("2001:db8::1", "2001:db8::2", 0, 0));
}

TEST_F(LinuxSource, GivesLinksWithoutAHopLimitTheSystemsOwn) {
  std::ofstream setting("/proc/sys/net/ipv4/ip_default_ttl");
  if (!(setting << 77 << std::flush))
    GTEST_SKIP() << "the settings of the network namespace cannot be written here";
  ip("link add vx1 type vxlan id 1 local 10.0.0.1 remote 10.0.0.2 dstport 4789 tos 0x88");
  start();
  EXPECT_EQ(status(idOf("vx1")), vxlan("10.0.0.1", "10.0.0.2", 77));
}

TEST_F(LinuxSource, ChangesTheRecordInPlace) {
  addVxlan("vx1");
  ip("link set vx1 up");
  start();
  auto const id = idOf("vx1");
  auto const before = record(id);
  ASSERT_TRUE(before);
  ip("link set vx1 type vxlan id 100 remote 10.0.0.3");
  settle();
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.3"));
  EXPECT_EQ(record(id), before);
}

TEST_F(LinuxSource, SeesASilentChangeOfALinkThatIsDownAtTheNextFullRead) {
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  ip("link set vx1 type vxlan id 100 remote 10.0.0.3");
  passFullReadPeriod();
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.3"));
  ip("link set vx1 type vxlan id 100 remote 10.0.0.4");
  passFullReadPeriod();
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.4"));
}

TEST_F(LinuxSource, SeesASilentChangeWhenToldToReadAgain) {
  addVxlan("vx1");
  start();
  ip("link set vx1 type vxlan id 100 remote 10.0.0.3");
  reread();
  EXPECT_EQ(status(idOf("vx1")), vxlan("10.0.0.1", "10.0.0.3"));
}

TEST_F(LinuxSource, PublishesNothingWhenNothingHasChanged) {
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  auto const changes = source->status().changes;
  ip("link set vx1 up");
  ip("link set vx1 down");
  ip("link set vx1 mtu 1400");
  ip("link set vx1 name vx2");
  settle();
  passFullReadPeriod();
  EXPECT_EQ(source->status().changes, changes);
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
  EXPECT_EQ(idOf("vx2"), id);
}

TEST_F(LinuxSource, KeepsALinkThatEntersAndLeavesABridge) {
  addVxlan("vx1");
  ip("link add br1 type bridge");
  start();
  auto const id = idOf("vx1");
  ip("link set vx1 master br1");
  settle();
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
  ip("link set vx1 nomaster");
  settle();
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
  EXPECT_EQ(source->status().changes, 2u);
}

TEST_F(LinuxSource, LeavesOutKindsThatWereNotAskedFor) {
  addVxlan("vx1");
  start("");
  addVxlan("vx2", 200);
  settle();
  EXPECT_TRUE(isGone(idOf("vx1")));
  EXPECT_TRUE(isGone(idOf("vx2")));
  EXPECT_EQ(source->status().records.statuses, 0u);
}

/// A process with a network namespace of its own, which ends with it.
class OtherNamespace {
public:
  OtherNamespace() {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL); // also when the test ends by a signal
      auto const result = static_cast<char>(unshare(CLONE_NEWNET));
      [[maybe_unused]] auto const written = write(ready[1], &result, 1);
      for (;;)
        pause();
    }
    char result = 1;
    EXPECT_EQ(read(ready[0], &result, 1), 1);
    EXPECT_EQ(result, 0);
    close(ready[0]);
    close(ready[1]);
  }
  ~OtherNamespace() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  pid_t process() const { return process_; }

private:
  pid_t process_;
};

TEST_F(LinuxSource, LosesALinkThatMovesToAnotherNamespace) {
  OtherNamespace const other;
  addVxlan("vx1");
  addVxlan("vx2", 200);
  ip("link set vx1 up");
  start();
  for (auto const * name : {"vx1", "vx2"}) {
    auto const id = idOf(name);
    EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
    ip(fmt::format("link set {} netns {}", name, other.process()));
    settle();
    EXPECT_TRUE(isGone(id)) << name;
  }
}

TEST_F(LinuxSource, SaysOfALinkThatItsOuterPacketsLeaveInAnotherNamespace) {
  OtherNamespace const other;
  addVxlan("vx1");
  start();
  auto const command =
      fmt::format("nsenter --net=/proc/{}/ns/net ip link add vx2 netns {} type vxlan id 2 local "
                  "10.0.0.1 remote 10.0.0.2 dstport 4789",
                  other.process(), getpid());
  ASSERT_EQ(std::system(command.c_str()), 0);
  settle();
  ASSERT_NE(links.findByName("vx2"), nullptr);
  EXPECT_FALSE(links.findByName("vx1")->isCarriedElsewhere);
  EXPECT_TRUE(links.findByName("vx2")->isCarriedElsewhere);
}

TEST_F(LinuxSource, ForgetsATunnelWhoseIndexNowBelongsToAnotherLink) {
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  ip("link del vx1");
  ip(fmt::format("link add br1 index {} type bridge", id));
  passFullReadPeriod();
  EXPECT_TRUE(isGone(id));
}

TEST_F(LinuxSource, ReadsEverythingAgainWhenEventsWereLost) {
  constexpr int smallest = 4096;
  addVxlan("vx1");
  addVxlan("vx2", 200);
  start("kinds=+vxlan", smallest);
  auto const lost = Lumo::counter("linux-overflows");
  auto const resyncs = Lumo::counter("linux-resyncs");
  auto const deleted = idOf("vx2");
  std::string storm;
  for (int i = 0; i != 100; ++i)
    storm += "link set vx1 up\nlink set vx1 down\n";
  ipBatch(storm + "link set vx1 type vxlan id 100 remote 10.0.0.3\n"
                  "link add vx3 type vxlan id 300 local 10.0.0.1 remote 10.0.0.9 dstport 4789 ttl "
                  "7 tos 0x88\n"
                  "link del vx2\n");
  settle();
  EXPECT_GT(Lumo::counter("linux-overflows"), lost);
  EXPECT_GT(Lumo::counter("linux-resyncs"), resyncs);
  EXPECT_EQ(status(idOf("vx1")), vxlan("10.0.0.1", "10.0.0.3"));
  EXPECT_EQ(status(idOf("vx3")), vxlan("10.0.0.1", "10.0.0.9"));
  EXPECT_TRUE(isGone(deleted));
}

TEST_F(LinuxSource, HearsOfChangesAfterALoss) {
  constexpr int smallest = 4096;
  addVxlan("vx1");
  start("kinds=+vxlan", smallest);
  auto const lost = Lumo::counter("linux-overflows");
  std::string storm;
  for (int i = 0; i != 100; ++i)
    storm += "link set vx1 up\nlink set vx1 down\n";
  ipBatch(storm);
  settle();
  ASSERT_GT(Lumo::counter("linux-overflows"), lost);
  auto const fullReads = source->status().fullReads;
  addVxlan("vx2", 200);
  settle();
  EXPECT_EQ(status(idOf("vx2")), vxlan("10.0.0.1", "10.0.0.2"));
  EXPECT_EQ(source->status().fullReads, fullReads) << "an event was enough";
}

TEST_F(LinuxSource, ReadsAgainWhenLinksComeAndGoDuringTheRead) {
  constexpr int mostAttempts = 300;
  ipBatch(manyVxlans(150));
  start();
  auto const interrupted = Lumo::counter("linux-dumps-interrupted");
  auto * const batch = popen("ip -batch -", "w");
  ASSERT_NE(batch, nullptr);
  for (int i = 0; i != mostAttempts && Lumo::counter("linux-dumps-interrupted") == interrupted;
       ++i) {
    std::fputs("link add br1 type bridge\nlink del br1\n", batch);
    std::fflush(batch);
    reread();
  }
  EXPECT_GT(Lumo::counter("linux-dumps-interrupted"), interrupted);
  EXPECT_EQ(pclose(batch), 0);
  settle();
  loop.advance(Sources::LinuxSource::retryPeriod);
  settle();
  EXPECT_EQ(source->status().records.statuses, 150u);
  EXPECT_EQ(status(idOf("vx149")), vxlan("10.0.0.1", "10.0.0.2"));
}

TEST_F(LinuxSource, ReadsEverythingInSeveralTurnsOfTheLoop) {
  ipBatch(manyVxlans(150));
  start();
  ip("link set vx149 type vxlan id 149 remote 10.0.0.3");
  source->reread();
  int turns = 0;
  for (; loop.runOnce(); ++turns)
    EXPECT_EQ(status(idOf("vx149")), vxlan("10.0.0.1", "10.0.0.2")) << "before all is read";
  EXPECT_GT(turns, 2);
  EXPECT_TRUE(source->status().isReading) << "it is not published yet";
  settle();
  EXPECT_FALSE(source->status().isReading);
  EXPECT_EQ(status(idOf("vx149")), vxlan("10.0.0.1", "10.0.0.3"));
}

TEST_F(LinuxSource, HearsOfChangesWhileItReadsEverything) {
  ipBatch(manyVxlans(150));
  ip("link set vx0 up");
  start();
  auto const changed = idOf("vx0");
  auto const deleted = idOf("vx1");
  source->reread();
  loop.runOnce(); // of the kernel's answer the first part
  ASSERT_TRUE(source->status().isReading);
  ip("link set vx0 type vxlan id 0 remote 10.0.0.3");
  ip("link del vx1");
  addVxlan("late", 500);
  loop.runReady();
  EXPECT_EQ(status(changed), vxlan("10.0.0.1", "10.0.0.3"));
  EXPECT_TRUE(isGone(deleted));
  EXPECT_EQ(status(idOf("late")), vxlan("10.0.0.1", "10.0.0.2"));
  settle();
  EXPECT_EQ(status(changed), vxlan("10.0.0.1", "10.0.0.3"));
  EXPECT_TRUE(isGone(deleted));
  EXPECT_EQ(status(idOf("late")), vxlan("10.0.0.1", "10.0.0.2"));
}

TEST_F(LinuxSource, GivesUpAReadWhenTheKernelDoesNotAnswer) {
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  ip("link set vx1 type vxlan id 100 remote 10.0.0.3");
  source->reread();
  loop.advance(Sources::LinuxSource::patience); // and nobody looks for the answer
  EXPECT_FALSE(source->status().isReading);
  EXPECT_EQ(source->status().state, SourceStatus::State::degraded);
  EXPECT_EQ(source->status().lastError,
            "source linux: cannot read the links: the kernel does not answer");
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
  passFullReadPeriod();
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.3"));
}

TEST_F(LinuxSource, TellsOthersWhatItKnowsOfALink) {
  addVxlan("vx1");
  start();
  addVxlan("vx2", 200);
  settle();
  auto const * const first = links.findByName("vx1");
  auto const * const second = links.findByName("vx2");
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(first->intfId.stringValue(), idOf("vx1"));
  EXPECT_EQ(second->kind, "vxlan");
  EXPECT_EQ(second->local.stringValue(), "10.0.0.1");
  EXPECT_EQ(second->remote.stringValue(), "10.0.0.2");
  EXPECT_EQ(second->port, 4789);
  EXPECT_FALSE(second->isCarriedElsewhere);
  ip("link set vx1 name vx3");
  ip("link del vx2");
  settle();
  EXPECT_EQ(links.size(), 1u);
  EXPECT_EQ(links.find(links.findByName("vx3")->intfId)->name, "vx3");
}

TEST_F(LinuxSource, TracesWhatItPublishes) {
  TraceRecorder traces({{"LinuxSource", "all"}});
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  EXPECT_THAT(traces.texts(8), ElementsAre("reading all links"));
  EXPECT_THAT(traces.texts(7), ElementsAre("published 2 changes"));
  ip("link set vx1 up");
  settle();
  EXPECT_THAT(traces.texts(9), testing::Contains(fmt::format("link {}: nothing new", id)));
  ip("link del vx1");
  settle();
  EXPECT_THAT(traces.texts(7),
              ElementsAre("published 2 changes", fmt::format("link {}: published", id)));
}

TEST_F(LinuxSource, RestoresWhatOthersDidToItsRecordsAtTheNextFullRead) {
  addVxlan("vx1");
  addVxlan("vx2", 200);
  addVxlan("vx3", 300);
  start();
  auto const one = idOf("vx1");
  auto const two = idOf("vx2");
  auto const three = idOf("vx3");
  document.apply({{{"op", "remove"}, {"path", "/tunnelIntfStatusDir/intfStatus/" + one}},
                  {{"op", "remove"}, {"path", "/ifMib/ifIndexByIntfId/" + two}},
                  {{"op", "replace"},
                   {"path", "/tunnelIntfStatusDir/intfStatus/" + three + "/dstAddr"},
                   {"value", "192.0.2.1"}}});
  passFullReadPeriod();
  EXPECT_EQ(status(one), vxlan("10.0.0.1", "10.0.0.2"));
  EXPECT_EQ(ifIndex(two), std::stoul(two));
  EXPECT_EQ(status(three), vxlan("10.0.0.1", "10.0.0.2"));
}

TEST_F(LinuxSource, FollowsALinkWhoseRecordOthersRemoved) {
  addVxlan("vx1");
  addVxlan("vx2", 200);
  ip("link set vx1 up");
  start();
  auto const one = idOf("vx1");
  auto const two = idOf("vx2");
  document.apply({{{"op", "remove"}, {"path", "/tunnelIntfStatusDir/intfStatus/" + one}},
                  {{"op", "remove"}, {"path", "/ifMib/ifIndexByIntfId/" + one}},
                  {{"op", "remove"}, {"path", "/tunnelIntfStatusDir/intfStatus/" + two}}});
  ip("link set vx1 type vxlan id 100 remote 10.0.0.3");
  ip("link del vx2");
  settle();
  EXPECT_EQ(status(one), vxlan("10.0.0.1", "10.0.0.3"));
  EXPECT_EQ(ifIndex(one), std::stoul(one));
  EXPECT_TRUE(isGone(two));
}

TEST_F(LinuxSource, LeavesRecordsOfOthersAlone) {
  std::string const foreign = "4294967297";
  document.apply({{{"op", "add"},
                   {"path", "/tunnelIntfStatusDir/intfStatus/" + foreign},
                   {"value", {{"srcAddr", "192.0.2.1"}}}}});
  addVxlan("vx1");
  start();
  ip("link del vx1");
  settle();
  passFullReadPeriod();
  EXPECT_EQ(status(foreign)["srcAddr"], "192.0.2.1");
}

/// Writes down which input changed, in order.
class Order : public Zel::Notifiee {
public:
  Order(Zel::PtrInterface const & notifier, std::string name, std::vector<std::string> & seen)
      : name_(std::move(name)),
        seen_(seen) {
    hasNotificationActiveIs(true);
    notifierIs(&notifier);
  }
  void onNotification(Zel::Notification const &) override { seen_.push_back(name_); }

private:
  std::string name_;
  std::vector<std::string> & seen_;
};

TEST_F(LinuxSource, GivesTheIfIndexBeforeTheStatusAndTakesItAfterwards) {
  std::vector<std::string> seen;
  auto const status = Zel::makePtr<Order>(*database.tunnelIntfStatusDir(), "status", seen);
  auto const ifIndex = Zel::makePtr<Order>(*database.ifMib(), "ifIndex", seen);
  start();
  addVxlan("vx1");
  settle();
  EXPECT_THAT(seen, ElementsAre("ifIndex", "status"));
  seen.clear();
  ip("link del vx1");
  settle();
  EXPECT_THAT(seen, ElementsAre("status", "ifIndex"));
}

// To check an object's type the sanitizer opens descriptors of its own, and takes the object for
// broken when there is none.
#ifdef SANITIZED
constexpr bool sanitizerNeedsDescriptors = true;
#else
constexpr bool sanitizerNeedsDescriptors = false;
#endif

/// No more descriptors than there are now, while it lives.
class NoDescriptors {
public:
  NoDescriptors() {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    rlimit const none{0, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  ~NoDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }

private:
  rlimit before_;
};

TEST_F(LinuxSource, CannotStartWithoutASocket) {
  if (sanitizerNeedsDescriptors)
    GTEST_SKIP() << "the sanitizer needs descriptors itself; the plain build runs this";
  Sources::LinuxSource unstarted("", surroundings());
  try {
    NoDescriptors const none;
    unstarted.start();
    ADD_FAILURE() << "it started";
  } catch (std::runtime_error const & error) {
    EXPECT_THAT(error.what(), HasSubstr("source linux: cannot open a route netlink socket"));
  }
}

TEST_F(LinuxSource, KeepsWhatItHasWhileItCannotReadAndCatchesUpLater) {
  if (sanitizerNeedsDescriptors)
    GTEST_SKIP() << "the sanitizer needs descriptors itself; the plain build runs this";
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  ip("link set vx1 type vxlan id 100 remote 10.0.0.3");
  {
    NoDescriptors const none;
    passFullReadPeriod();
    EXPECT_EQ(source->status().state, SourceStatus::State::degraded);
    EXPECT_THAT(source->status().lastError, HasSubstr("cannot open a route netlink socket"));
    EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.2"));
  }
  passFullReadPeriod();
  EXPECT_EQ(source->status().lastError, "");
  EXPECT_EQ(status(id), vxlan("10.0.0.1", "10.0.0.3"));
}

/// The sockets of this process.
std::set<int> sockets() {
  std::set<int> found;
  for (auto const & entry : std::filesystem::directory_iterator("/proc/self/fd"))
    if (std::error_code error;
        std::filesystem::read_symlink(entry, error).string().starts_with("socket:"))
      found.insert(std::stoi(entry.path().filename().string()));
  return found;
}

/// A source whose first lasting socket, that of the links' events, can be broken. The other is that
/// of the policies'.
class BrokenEventSocket : public LinuxSource {
protected:
  void SetUp() override {
    LinuxSource::SetUp();
    if (IsSkipped())
      return;
    auto const before = sockets();
    start();
    auto const after = sockets();
    std::ranges::set_difference(after, before, std::back_inserter(events_));
    ASSERT_EQ(events_.size(), 2u);
  }
  /// What cannot be received from comes in the socket's place.
  void breakSocket() const {
    auto const file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(file, events_.front()), events_.front());
    close(file);
  }
  void passRetryPeriod() {
    loop.advance(Sources::LinuxSource::retryPeriod);
    settle();
  }
  void expectNoEvents() const {
    EXPECT_EQ(source->status().state, SourceStatus::State::degraded);
    EXPECT_THAT(source->status().lastError, HasSubstr("source linux: cannot hear of changes"));
  }
  void expectEvents() {
    EXPECT_EQ(source->status().lastError, "");
    auto const fullReads = source->status().fullReads;
    addVxlan("new", 999);
    settle();
    EXPECT_EQ(status(idOf("new")), vxlan("10.0.0.1", "10.0.0.2"));
    EXPECT_EQ(source->status().fullReads, fullReads) << "an event was enough";
  }

private:
  std::vector<int> events_;
};

TEST_F(BrokenEventSocket, IsReplacedSoon) {
  breakSocket();
  addVxlan("vx1");
  settle();
  expectNoEvents();
  passRetryPeriod();
  EXPECT_EQ(status(idOf("vx1")), vxlan("10.0.0.1", "10.0.0.2"));
  expectEvents();
}

TEST_F(BrokenEventSocket, IsReplacedAtOnceWhenItBreaksDuringAFullRead) {
  source->reread();
  breakSocket();
  settle();
  EXPECT_EQ(source->status().fullReads, 3u) << "one more, with a new socket";
  expectEvents();
}

TEST_F(BrokenEventSocket, EndsAFullReadThatFindsIt) {
  breakSocket();
  source->reread();
  settle();
  EXPECT_FALSE(source->status().isReading);
  expectNoEvents();
  passRetryPeriod();
  expectEvents();
}

// Two would take each other's links away.
TEST_F(LinuxSource, IsTheOnlySourceOfLinks) {
  start();
  EXPECT_THROW(Sources::LinuxSource("kinds=+gretap", surroundings()), std::invalid_argument);
  source.reset();
  start();
}

TEST_F(LinuxSource, IsNamedAsOnTheCommandLine) {
  EXPECT_EQ(Sources::LinuxSource("", surroundings()).name(), "linux");
  EXPECT_EQ(Sources::LinuxSource("kinds=+vxlan", surroundings()).name(), "linux:kinds=+vxlan");
  EXPECT_EQ(Sources::LinuxSource("", surroundings()).status().state, SourceStatus::State::stopped);
}

} // namespace
