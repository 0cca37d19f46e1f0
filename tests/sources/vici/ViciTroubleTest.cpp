// The source, with a strongSwan that is not there, does not answer, or says what it should not.
#include "os/UnixAddress.h"
#include "platform/Lumo.h"
#include "tests/sources/vici/ViciHost.h"
#include "tests/support/FailingMemory.h"
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Sources::Vici::encodeSegment;
using testing::ElementsAre;
using testing::HasSubstr;
using Type = ViciPeer::PacketType;

std::uint64_t losses() {
  return Lumo::counter("vici-losses");
}

/// Has this process do without the rights of root while it lives.
class NobodysRights {
public:
  NobodysRights() {
    if (before_ == 0 && ::seteuid(nobody) != 0)
      throw std::runtime_error("root's rights cannot be given up");
  }
  NobodysRights(NobodysRights const &) = delete;
  NobodysRights & operator=(NobodysRights const &) = delete;
  ~NobodysRights() {
    if (before_ == 0 && ::seteuid(before_) != 0)
      ADD_FAILURE() << "root's rights do not come back";
  }

private:
  static constexpr uid_t nobody = 65534;
  uid_t const before_ = ::geteuid();
};

class ViciTrouble : public ViciHost {
protected:
  /// Listens, has a connection up on link 7, and starts.
  void startUp() {
    officeIsUp();
    peer.listen();
    start();
    ASSERT_EQ(state(7), "up");
  }
  void expectUp() const {
    EXPECT_EQ(state(7), "up");
    expectInSync();
  }
};

// No daemon

TEST_F(ViciTrouble, WaitsForADaemonThatIsNotThereYet) {
  officeIsUp();
  start();
  expectDegraded("there is no such socket: is strongSwan running, with its plug-in vici?");
  EXPECT_EQ(profile(7), "");
  peer.listen();
  pass(1s);
  expectUp();
  EXPECT_THAT(told, ElementsAre(State::degraded, State::inSync));
}

TEST_F(ViciTrouble, TriesAgainAfterOneSecondAndThenLessAndLessOften) {
  start();
  for (auto const pause : {1s, 2s, 4s, 8s, 16s, 30s, 30s}) {
    auto const before = losses();
    pass(pause - 50ms);
    EXPECT_EQ(losses(), before) << pause.count();
    pass(50ms);
    EXPECT_EQ(losses(), before + 1) << pause.count();
  }
  peer.listen();
  pass(30s);
  expectInSync();
  peer.end();
  settle();
  peer.listen();
  pass(1s);
  expectInSync();
}

TEST_F(ViciTrouble, BeginsWithTheShortestPauseAgainOnlyAfterAWholeListing) {
  officeIsUp();
  peer.listen();
  peer.instead = [this](auto & session, auto const & packet) {
    if (packet.name == "list-sas")
      peer.send(session, "\xff\xff\xff\xff");
    return packet.name == "list-sas";
  };
  start();
  EXPECT_EQ(peer.accepted, 2);
  pass(1s);
  EXPECT_EQ(peer.accepted, 4);
  pass(1s);
  EXPECT_EQ(peer.accepted, 4) << "the pause is two seconds now";
  pass(1s);
  EXPECT_EQ(peer.accepted, 6);
}

TEST_F(ViciTrouble, SaysThatNobodyListens) {
  peer.listen();
  {
    Os::Descriptor const other(::socket(AF_UNIX, SOCK_STREAM, 0));
    auto const address = Os::UnixAddress::ofPath(folder.file("left"));
    ASSERT_EQ(::bind(other.get(), address->get(), address->size()), 0);
  }
  std::filesystem::rename(folder.file("left"), path);
  start();
  expectDegraded("nobody listens there: is strongSwan running?");
}

TEST_F(ViciTrouble, SaysWhichGroupMayUseTheSocket) {
  peer.listen();
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  struct stat socket {};
  ASSERT_EQ(::stat(path.c_str(), &socket), 0);
  auto const * const group = ::getgrgid(socket.st_gid);
  auto const name = group != nullptr ? group->gr_name : std::to_string(socket.st_gid);
  {
    NobodysRights const rights;
    start();
  }
  expectDegraded(fmt::format("permission denied: it is for the group {}; have the user that this "
                             "runs as join it, or run as root",
                             name));
}

TEST_F(ViciTrouble, SaysThatTheSocketsFolderIsNotPermitted) {
  ASSERT_EQ(::mkdir(folder.file("closed").c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  source = std::make_unique<Sources::ViciSource>(":" + folder.file("closed/vici"), surroundings());
  {
    NobodysRights const rights;
    source->start();
  }
  EXPECT_THAT(source->status().lastError,
              HasSubstr("permission denied already for its folder: run as root"));
  ::chmod(folder.file("closed").c_str(), 0700);
}

TEST_F(ViciTrouble, DoesNotWaitInAQueueThatIsFull) {
  officeIsUp();
  peer.listen(0);
  peer.stoppedIs(true);
  auto const address = Os::UnixAddress::ofPath(path);
  std::vector<Os::Descriptor> waiting;
  do
    waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
  while (::connect(waiting.back().get(), address->get(), address->size()) == 0);
  start();
  expectDegraded("too many connections wait there: does strongSwan still work?");
  waiting.clear();
  peer.stoppedIs(false);
  pass(1s);
  expectUp();
}

// A daemon that goes

TEST_F(ViciTrouble, SaysUnknownThreeSecondsAfterTheDaemonHasEnded) {
  startUp();
  peer.end();
  settle();
  expectDegraded("it has closed the connection");
  pass(2950ms);
  EXPECT_EQ(state(7), "up");
  pass(50ms);
  EXPECT_EQ(state(7), "unknown");
  EXPECT_EQ(profile(7), "office");
  EXPECT_TRUE(isIpsec(7)) << "it stays bound";
  EXPECT_TRUE(boundLinks.has(Plexa::IntfId(7)));
  EXPECT_EQ(source->connections().at(0).state, Ipsec::Ike::ConnState::unknown);
  EXPECT_THAT(told, ElementsAre(State::degraded));
  peer.listen();
  pass(4s);
  expectUp();
}

TEST_F(ViciTrouble, SaysUnknownEachTimeTheDaemonEnds) {
  startUp();
  for (int times = 0; times != 3; ++times) {
    peer.end();
    settle();
    pass(3s);
    EXPECT_EQ(state(7), "unknown");
    peer.listen();
    pass(4s);
    expectUp();
  }
}

TEST_F(ViciTrouble, NeverSaysUnknownOfADaemonThatIsBackInTime) {
  startUp();
  peer.end();
  settle();
  peer.listen();
  for (int i = 0; i != 100; ++i) {
    pass(50ms);
    EXPECT_EQ(state(7), "up");
  }
  expectInSync();
}

TEST_F(ViciTrouble, FollowsFiftyRestarts) {
  startUp();
  auto const before = descriptors();
  for (int i = 0; i != 50; ++i) {
    peer.end();
    settle();
    saIs("office", 42, i % 2 == 0 ? "CONNECTING" : "ESTABLISHED");
    peer.listen();
    pass(1s);
    expectInSync();
    EXPECT_EQ(state(7), i % 2 == 0 ? "connecting" : "up");
  }
  EXPECT_EQ(descriptors(), before);
}

TEST_F(ViciTrouble, BeginsAnewWhenOneOfItsConnectionsIsLost) {
  startUp();
  for (auto const * event : {"list-sa", "ike-updown"}) {
    peer.closeFor(event);
    settle();
    expectDegraded("it has closed the connection");
    EXPECT_EQ(peer.sessions(), 0u);
    pass(1s);
    expectUp();
    EXPECT_EQ(peer.sessions(), 2u);
  }
}

TEST_F(ViciTrouble, PublishesWhatWasListedThoughTheDaemonEndsMeanwhile) {
  startUp();
  saIs("office", 42, "CONNECTING");
  scheduler->yieldIs(Yield::always);
  source->reread();
  while (loop.runOnce()) {
  }
  while (source->connections().at(0).state != Ipsec::Ike::ConnState::connecting)
    ASSERT_TRUE(scheduler->runOne()); // until it is handed over to be published
  EXPECT_EQ(state(7), "up");
  peer.end();
  while (loop.runOnce()) {
  }
  expectDegraded("it has closed the connection");
  settle();
  EXPECT_EQ(state(7), "connecting");
  expectDegraded("it has closed the connection");
  pass(3s);
  EXPECT_EQ(state(7), "unknown");
}

TEST_F(ViciTrouble, ForgetsAListingThatHasNotFoundItsLinksWhenTheDaemonEnds) {
  startUp();
  saIs("office", 42, "CONNECTING");
  source->reread();
  while (loop.runOnce()) {
  }
  peer.end();
  while (loop.runOnce()) {
  }
  settle();
  EXPECT_EQ(state(7), "up");
  expectDegraded("it has closed the connection");
}

TEST_F(ViciTrouble, LetsAListingOvertakeTheUnknown) {
  startUp();
  peer.end();
  settle();
  pass(2950ms);
  peer.listen();
  loop.advance(50ms); // when it becomes unknown, and is tried again
  while (loop.runOnce()) {
  }
  EXPECT_EQ(state(7), "up") << "the tasks have not run yet";
  settle();
  expectUp();
  pass(5s);
  expectUp();
}

// A daemon that is stopped

TEST_F(ViciTrouble, GivesUpADaemonThatDoesNotAnswer) {
  startUp();
  peer.stoppedIs(true);
  pass(5s); // to the next listing
  pass(1950ms);
  EXPECT_TRUE(source->status().isReading);
  pass(50ms);
  expectDegraded("it does not answer \"list-conns\": does it still work?");
  EXPECT_EQ(state(7), "up");
  pass(1s);
  EXPECT_EQ(state(7), "unknown") << "three seconds after it should have said something";
}

TEST_F(ViciTrouble, HasOneConnectionAtATimeToADaemonThatIsStopped) {
  startUp();
  peer.stoppedIs(true);
  pass(10s);
  auto const before = descriptors();
  for (int i = 0; i != 2000; ++i) {
    pass(50ms);
    EXPECT_LE(descriptors(), before + 1);
  }
  EXPECT_EQ(state(7), "unknown");
  EXPECT_THAT(told, ElementsAre(State::degraded)) << "once";
  peer.stoppedIs(false);
  pass(30s);
  expectUp();
}

TEST_F(ViciTrouble, GivesUpWhereverTheDaemonFallsSilent) {
  officeIsUp();
  peer.listen();
  std::string silentAt;
  peer.instead = [&](auto &, auto const & packet) { return packet.name == silentAt; };
  for (auto const * name :
       {"version", "list-sa", "list-conn", "ike-updown", "child-rekey", "list-conns", "list-sas"}) {
    silentAt = name;
    start();
    pass(1950ms);
    EXPECT_TRUE(source->status().isReading) << name;
    pass(50ms);
    expectDegraded(fmt::format("it does not answer \"{}\": does it still work?", name));
    silentAt.clear();
    pass(1s);
    expectUp();
  }
}

TEST_F(ViciTrouble, WaitsForADaemonThatIsSlowAsLongAsItSaysSomething) {
  startUp();
  peer.instead = [](auto &, auto const & packet) { return packet.name == "list-sas"; };
  source->reread();
  settle();
  auto const answer = encodeSegment(Type::response);
  for (auto const octet : answer) {
    pass(1900ms);
    EXPECT_TRUE(source->status().isReading);
    peer.sendTo("list-sa", std::string(1, octet));
    settle();
  }
  expectInSync();
}

TEST_F(ViciTrouble, DoesNotWaitForeverForADaemonThatIsSlow) {
  startUp();
  peer.instead = [](auto &, auto const & packet) { return packet.name == "list-sas"; };
  source->reread();
  settle();
  for (int i = 0; i != 31; ++i) {
    peer.sendTo("list-sa", encodeSegment(Type::event, "list-sa", peer.sas["office"]));
    settle();
    EXPECT_TRUE(source->status().isReading);
    pass(1900ms);
  }
  peer.sendTo("list-sa", encodeSegment(Type::event, "list-sa", peer.sas["office"]));
  pass(1900ms);
  expectDegraded("its answer to \"list-sas\" does not come to an end");
}

// A daemon that says what it should not

TEST_F(ViciTrouble, RecoversFromAConnectionThatIsClosedAtAnyOctet) {
  officeIsUp();
  peer.listen();
  start();
  auto const whole = peer.octets;
  for (std::size_t size = 0; size != whole; ++size) {
    SCOPED_TRACE(size);
    peer.octets = 0;
    peer.mostOctets = size;
    start();
    EXPECT_EQ(source->status().state, State::degraded);
    peer.mostOctets = SIZE_MAX;
    pass(1s);
    expectUp();
  }
}

TEST_F(ViciTrouble, RecoversFromAnythingThatTheDaemonMaySay) {
  std::tuple<char const *, std::string, char const *> const hostile[] = {
      {"list-sas", "\0\x08\0\1"s, "it sends a packet of 524289 octets"},
      {"list-sas", "\xff\xff\xff\xff"s, "it sends a packet of 4294967295 octets"},
      {"list-sas", "\0\0\0\0"s, "it sends 0 octets where 1 should stand"},
      {"list-sas", "\0\0\0\1\x09"s, "it sends a packet of the unknown type 9"},
      {"list-sas", encodeSegment(Type::request, "version"),
       "it sends a packet of type 0 that nobody asked for"},
      {"list-sas", encodeSegment(Type::confirmed),
       "it sends a packet of type 5 that nobody asked for"},
      {"ike-updown", encodeSegment(Type::response),
       "it sends a packet of type 1 that nobody asked for"},
      {"list-sas", encodeSegment(Type::response) + encodeSegment(Type::response),
       "it sends a packet of type 1 that nobody asked for"},
      {"list-sas", encodeSegment(Type::event, "list-sa", "\1\1c"s),
       "it sends a section without an end"},
      {"list-conns", encodeSegment(Type::event, "list-conn", "\5"s),
       "it sends an element of type 5 outside a list"},
      {"list-sas", encodeSegment(Type::response, {}, "\3"s),
       "it sends 0 octets where 1 should stand"},
      {"version", encodeSegment(Type::response, {}, "\2"s),
       "it sends the end of a section that has no start"},
      {"version", encodeSegment(Type::unknownCommand), "it does not know \"version\""},
      {"list-sas", encodeSegment(Type::unknownCommand), "it does not know \"list-sas\""},
      {"list-sa", encodeSegment(Type::unknownEvent), "it does not know how to list"},
      {"list-conn", encodeSegment(Type::unknownEvent), "it does not know how to list"},
      {"list-sas",
       encodeSegment(Type::response, {},
                     ViciBytes::Message().value("success", "no").value("errmsg", "not\nnow").str()),
       "it refuses to list: not now"}};
  officeIsUp();
  peer.listen();
  for (auto const & [name, octets, error] : hostile) {
    SCOPED_TRACE(error);
    peer.instead = [&, at = name, said = octets](auto & session, auto const & packet) {
      if (packet.name == at)
        peer.send(session, said);
      return packet.name == at;
    };
    start();
    expectDegraded(error);
    peer.instead = nullptr;
    pass(1s);
    expectUp();
  }
}

TEST_F(ViciTrouble, IsNotMisledByEventsThatItDoesNotExpect) {
  startUp();
  auto const before = Lumo::counter("vici-events-unexpected");
  auto const stray = ViciBytes::sa("stray", "ESTABLISHED", {});
  peer.sendTo("list-sa", encodeSegment(Type::event, "list-sa", stray));
  peer.sendTo("list-sa", encodeSegment(Type::event, "no-such", stray));
  peer.sendTo("ike-updown", encodeSegment(Type::event, "list-sa", stray));
  peer.sendTo("ike-updown", encodeSegment(Type::event, "", "\2 this is no message"));
  settle();
  pass(1s);
  expectUp();
  EXPECT_EQ(peer.listings, 1);
  EXPECT_EQ(Lumo::counter("vici-events-unexpected"), before + 4);
  EXPECT_EQ(source->connections().size(), 1u);
}

TEST_F(ViciTrouble, DoesWithoutAnEventThatTheDaemonDoesNotKnow) {
  auto const before = Lumo::counter("vici-events-unknown");
  peer.unknown = {"ike-update"};
  startUp();
  EXPECT_EQ(Lumo::counter("vici-events-unknown"), before + 1);
  expectUp();
}

TEST_F(ViciTrouble, EndsAListingWithoutAnEnd) {
  startUp();
  std::string many;
  for (int i = 0; i != 1000; ++i)
    many += encodeSegment(Type::event, "list-sa");
  int thousands = 150;
  peer.instead = [&](auto & session, auto const & packet) {
    for (int i = 0; packet.name == "list-sas" && i != thousands; ++i)
      peer.send(session, many);
    return false;
  };
  for (int listings = 0; listings != 2; ++listings) {
    source->reread();
    settle();
    expectInSync();
  }
  thousands = 201;
  source->reread();
  settle();
  expectDegraded("it sends more than 200000 events before an answer");
  EXPECT_EQ(state(7), "up");
}

TEST_F(ViciTrouble, TakesNoMoreThan64KiBATurn) {
  startUp();
  auto const stray = encodeSegment(Type::event, "no-such", std::string(1000, 'x'));
  for (int i = 0; i != 150; ++i)
    peer.sendTo("ike-updown", stray);
  auto const taken = [] { return Lumo::counter("vici-events-unexpected"); };
  auto const first = taken();
  for (auto before = first; loop.runOnce(); before = taken())
    EXPECT_LE((taken() - before) * stray.size(), 65536 + stray.size());
  EXPECT_EQ(taken(), first + 150);
}

TEST_F(ViciTrouble, TakesNamesOfAnyOctetsAndDeepSections) {
  linkIs(7, 42);
  auto const name = std::string(253, 'n') + "\0\xff"s;
  saIs(name, 42);
  ViciBytes::Message deep;
  for (int i = 0; i != 8; ++i)
    deep.section("child-sas").value("state", "INSTALLED");
  for (int i = 0; i != 8; ++i)
    deep.end();
  peer.sas["deep"] = deep;
  peer.listen();
  start();
  EXPECT_EQ(profile(7), std::string(253, 'n') + "\\x00\\xFF");
  expectInSync();
}

// Much to say

TEST_F(ViciTrouble, ReadsALargeListingInManySteps) {
  constexpr std::uint32_t many = 5'000;
  for (std::uint32_t id = 1; id <= many; ++id) {
    links.linkIs({.intfId = Plexa::IntfId(id), .name = {}, .kind = "xfrm", .ifId = id});
    saIs(fmt::format("c{}", id), id);
  }
  peer.listen();
  scheduler->yieldIs(Yield::always);
  source = std::make_unique<Sources::ViciSource>(":" + path, surroundings());
  source->start();
  std::size_t turns = 0;
  while (loop.runOnce())
    ++turns;
  EXPECT_GE(turns, peer.octets / 65536) << "64 KiB a turn at most";
  EXPECT_GE(peer.octets, 20u * 65536);
  EXPECT_GE(scheduler->runUntilQuiet(), 2 * many) << "handed over and released one by one";
  expectInSync();
  EXPECT_EQ(source->status().records.connections, many);
}

TEST_F(ViciTrouble, SurvivesAShortageOfMemory) {
  startUp();
  auto hasFailed = true;
  for (long before = 0; hasFailed; ++before) {
    SCOPED_TRACE(before);
    saIs("office", 42, before % 2 == 0 ? "CONNECTING" : "ESTABLISHED");
    auto isOthers = false; // the peer's, or the test's loop's
    {
      FailingMemory const failing(before, FailingMemory::Fails::once);
      source->reread();
      for (auto more = true; more;) {
        try {
          more = loop.runOnce();
        } catch (std::bad_alloc const &) {
          isOthers = true;
        }
      }
      while (scheduler->runOne()) {
      }
    }
    hasFailed = FailingMemory::hasFailed();
    if (isOthers) {
      peer.end();
      peer.listen();
      start();
    }
    pass(10s);
    expectInSync();
    EXPECT_EQ(state(7), before % 2 == 0 ? "connecting" : "up");
  }
}

TEST_F(ViciTrouble, TriesAgainThoughMemoryIsShortWhenTheDaemonEnds) {
  officeIsUp();
  for (auto const fails : {FailingMemory::Fails::once, FailingMemory::Fails::always}) {
    auto hasFailed = true;
    for (long before = 0; hasFailed; ++before) {
      SCOPED_TRACE(before);
      peer.listen();
      start();
      expectUp();
      peer.end();
      {
        FailingMemory const failing(before, fails);
        try {
          loop.runOnce();
        } catch (std::bad_alloc const &) {
          // The test's loop had none.
        }
      }
      hasFailed = FailingMemory::hasFailed();
      settle();
      EXPECT_EQ(source->status().state, State::degraded);
      EXPECT_FALSE(source->status().isReading);
      pass(8s);
      EXPECT_EQ(state(7), "unknown");
      peer.listen();
      pass(8s);
      expectUp();
      peer.end();
    }
  }
}

} // namespace
