// What is told of a tunnel's connection by the kernel's states: real ones where they need no ESP,
// and written ones; and what becomes of the keys in their messages.
#include "sources/linux/KernelStates.h"
#include "tests/sources/linux/ScriptedKernel.h"
#include "tests/sources/linux/XfrmBytes.h"
#include "tests/support/TraceRecorder.h"
#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/socket.h>

namespace {

using nlohmann::json;
using Plexa::IntfId;
using Sources::Linux::IpsecPolicies;
using Sources::Linux::KernelStates;
using Sources::Linux::ReceiveBuffer;
using testing::ElementsAre;
using namespace XfrmBytes;

/// A gre link from 10.0.0.1 to 10.0.0.2 with id 1, an xfrm link of if_id 42 with id 2, a vti link
/// of key 9 from 10.0.0.1 to 10.0.0.2 with id 3; policies and states that the test writes.
class KernelStatesTest : public ScriptedKernel {
protected:
  void SetUp() override {
    KernelLinks::SetUp();
    auto const local = *Plexa::IpGenAddr::fromString("10.0.0.1");
    auto const remote = *Plexa::IpGenAddr::fromString("10.0.0.2");
    links.linkIs(
        {.intfId = IntfId(1), .name = "g1", .kind = "gre", .local = local, .remote = remote});
    links.linkIs({.intfId = IntfId(2), .name = "x1", .kind = "xfrm", .ifId = 42});
    links.linkIs({.intfId = IntfId(3),
                  .name = "v1",
                  .kind = "vti",
                  .outputKey = 9,
                  .local = local,
                  .remote = remote});
  }
  void statesAre(std::vector<Octets> messages) {
    answer(stateDumps, std::move(messages));
    states->reread();
    settle();
  }
  void policiesAre(std::vector<Octets> messages) {
    answer(policyDumps, std::move(messages));
    policies->reread();
    settle();
  }
  /// "up" and so on; null when nothing is told.
  json state(int id) const {
    auto const record =
        at(fmt::format("/ikeStatus/appliedProfiles/(kernel)/appliedIntfId/{}/connState", id));
    auto const info = at(fmt::format("/ikeStatus/ipsecTunnelInfo/{}/profileName", id));
    EXPECT_EQ(info, record.is_null() ? json() : json("(kernel)"));
    return record;
  }

  static Octets esp(Template const & asked = {.reqid = 5}, Octets const & more = {},
                    std::uint32_t index = 9) {
    return xfrmMessage(newPolicy, policyInfo({.index = index}),
                       joined({attribute(tmpl, templateOctets(asked)), more}));
  }
  static Octets stateOf(StateInfo const & info, Octets const & more = {}) {
    return xfrmMessage(newState, stateInfo(info), joined({attribute(algAead, algorithm()), more}));
  }
  static Octets larvalOf(StateInfo const & info) { return xfrmMessage(newState, stateInfo(info)); }
};

TEST_F(KernelStatesTest, TellTheConnectionOfATunnelInTransportMode) {
  start({esp()}, {stateOf({.reqid = 5})});
  EXPECT_EQ(state(1), "up");
  EXPECT_EQ(state(2), nullptr) << "no policy";
  statesAre({larvalOf({.spi = 0, .reqid = 5})});
  EXPECT_EQ(state(1), "connecting");
  statesAre({stateOf({.source = "10.0.0.2", .destination = "10.0.0.1", .reqid = 5})});
  EXPECT_EQ(state(1), "down") << "that one is inbound";
  statesAre({});
  EXPECT_EQ(state(1), "down");
  policiesAre({});
  EXPECT_EQ(state(1), nullptr);
  EXPECT_EQ(at("/ikeStatus/appliedProfiles/(kernel)"), nullptr);
}

struct OtherState {
  char const * name;
  StateInfo info;
};
class StateForOthers : public KernelStatesTest, public testing::WithParamInterface<OtherState> {};

TEST_P(StateForOthers, DoesNotCount) {
  start({esp()}, {stateOf(GetParam().info)});
  EXPECT_EQ(state(1), "down");
}

INSTANTIATE_TEST_SUITE_P(
    Each, StateForOthers,
    testing::Values(OtherState{"OfAnotherReqid", {.reqid = 6}},
                    OtherState{"OfAnotherMode", {.mode = 1, .reqid = 5}},
                    OtherState{"OfAnotherProtocol", {.protocol = 51, .reqid = 5}},
                    OtherState{"OfAnotherPeer", {.destination = "10.0.0.3", .reqid = 5}},
                    OtherState{"FromAnotherAddress", {.source = "10.0.0.3", .reqid = 5}}),
    [](auto const & one) { return std::string(one.param.name); });

TEST_F(KernelStatesTest, NeedAStateForEachTemplate) {
  auto const both = joined(
      {templateOctets({.protocol = 50, .reqid = 5}), templateOctets({.protocol = 51, .reqid = 5})});
  auto const message = xfrmMessage(newPolicy, policyInfo({}), attribute(tmpl, both));
  start({message}, {stateOf({.protocol = 50, .reqid = 5})});
  EXPECT_EQ(state(1), "down");
  statesAre({stateOf({.protocol = 50, .reqid = 5}), larvalOf({.protocol = 51, .reqid = 5})});
  EXPECT_EQ(state(1), "connecting");
  statesAre({stateOf({.protocol = 50, .reqid = 5}), stateOf({.protocol = 51, .reqid = 5})});
  EXPECT_EQ(state(1), "up");
}

TEST_F(KernelStatesTest, NeedTheStateOfCompressionUnlessItIsOptional) {
  auto const asked = [](std::uint8_t optional) {
    return xfrmMessage(
        newPolicy, policyInfo({}),
        attribute(tmpl, joined({templateOctets({.protocol = 108, .optional = optional}),
                                templateOctets({.protocol = 50})})));
  };
  auto const esp = stateOf({.protocol = 50});
  start({asked(0)}, {esp});
  EXPECT_EQ(state(1), "down") << "packets wait for it";
  policiesAre({asked(1)});
  EXPECT_EQ(state(1), "up");
  policiesAre({asked(0)});
  statesAre(
      {esp, xfrmMessage(newState, stateInfo({.protocol = 108}), attribute(algComp, algorithm(0)))});
  EXPECT_EQ(state(1), "up");
}

// The tunnel is made by compression then, and ESP protects what goes between its ends.
TEST_F(KernelStatesTest, FollowATunnelOfCompressionToTheStateBehindIt) {
  auto const id = attribute(ifId, native<std::uint32_t>(42));
  auto const templates =
      joined({templateOctets(
                  {.protocol = 108, .mode = 1, .source = "192.0.2.1", .destination = "192.0.2.2"}),
              templateOctets({.protocol = 50})});
  auto const compression = xfrmMessage(
      newState,
      stateInfo({.source = "192.0.2.1", .destination = "192.0.2.2", .protocol = 108, .mode = 1}),
      joined({attribute(algComp, algorithm(0)), id}));
  start({xfrmMessage(newPolicy, policyInfo({}), joined({attribute(tmpl, templates), id}))},
        {compression, stateOf({.source = "192.0.2.1", .destination = "192.0.2.2"}, id)});
  EXPECT_EQ(state(2), "up");
  statesAre({compression});
  EXPECT_EQ(state(2), "down");
}

TEST_F(KernelStatesTest, ShowTheBestOfSeveralPolicies) {
  auto const id = attribute(ifId, native<std::uint32_t>(42));
  auto const tunnel = [&](char const * destination, std::uint32_t index) {
    return esp({.mode = 1, .source = "192.0.2.1", .destination = destination}, id, index);
  };
  start({tunnel("192.0.2.2", 9), tunnel("192.0.2.3", 17)},
        {stateOf({.source = "192.0.2.1", .destination = "192.0.2.3", .mode = 1}, id)});
  EXPECT_EQ(state(2), "up");
}

TEST_F(KernelStatesTest, SayNothingBeforeTheStatesHaveBeenRead) {
  startPolicies({esp()}, {stateOf({.reqid = 5})});
  EXPECT_EQ(state(1), nullptr) << "down would be a guess";
  states->start();
  EXPECT_EQ(state(1), "up");
}

TEST_F(KernelStatesTest, TellThatOfAnXfrmLinkByItsIfId) {
  auto const id = attribute(ifId, native<std::uint32_t>(42));
  auto const tunnel = Template{.mode = 1, .source = "192.0.2.1", .destination = "192.0.2.2"};
  auto const info = StateInfo{.source = "192.0.2.1", .destination = "192.0.2.2", .mode = 1};
  start({esp(tunnel, id)}, {stateOf(info)});
  EXPECT_EQ(state(2), "down") << "a state without the if_id";
  statesAre({stateOf(info, id)});
  EXPECT_EQ(state(2), "up");
  EXPECT_EQ(state(1), nullptr);
}

// Its policies say between which hosts; nothing else does.
TEST_F(KernelStatesTest, TellThatOfAnXfrmLinkInTransportModeByItsPolicysHosts) {
  auto const id = attribute(ifId, native<std::uint32_t>(42));
  start({esp({.reqid = 5}, id)}, {stateOf({.reqid = 5}, id)});
  EXPECT_EQ(state(2), "up");
  statesAre({stateOf({.destination = "10.0.0.3", .reqid = 5}, id)});
  EXPECT_EQ(state(2), "down");
  policiesAre({xfrmMessage(newPolicy, policyInfo({.selector = {.destinationLength = 31}}),
                           joined({attribute(tmpl, templateOctets({.reqid = 5})), id}))});
  statesAre({stateOf({.reqid = 5}, id)});
  EXPECT_EQ(state(2), "down") << "nobody knows to which host";
}

TEST_F(KernelStatesTest, TellThatOfAVtiLinkByItsKey) {
  auto const nine = attribute(mark, joined({native<std::uint32_t>(9), native(UINT32_MAX)}));
  auto const tunnel = Template{.mode = 1, .source = "10.0.0.1", .destination = "10.0.0.2"};
  start({esp(tunnel, nine)}, {stateOf({.mode = 1}, nine)});
  EXPECT_EQ(state(3), "up");
  policiesAre({esp({.mode = 1, .source = "10.0.0.1", .destination = "10.0.0.7"}, nine)});
  EXPECT_EQ(state(3), nullptr) << "the tunnel of another link of that key";
  policiesAre({esp({.mode = 1, .source = "10.0.0.7", .destination = "10.0.0.2"}, nine)});
  EXPECT_EQ(state(3), nullptr) << "that from another address";
  policiesAre({esp({.mode = 1}, nine)});
  EXPECT_EQ(state(3), "down") << "a policy that leaves its ends open";
}

TEST_F(KernelStatesTest, FollowTheEndpointsOfAVtiLink) {
  auto const nine = attribute(mark, joined({native<std::uint32_t>(9), native(UINT32_MAX)}));
  start({esp({.mode = 1, .source = "10.0.0.1", .destination = "10.0.0.2"}, nine)},
        {stateOf({.mode = 1}, nine)});
  EXPECT_EQ(state(3), "up");
  auto link = *links.find(IntfId(3));
  link.remote = *Plexa::IpGenAddr::fromString("10.0.0.7");
  links.linkIs(link);
  EXPECT_EQ(state(3), nullptr) << "at once, without a reading";
}

TEST_F(KernelStatesTest, KeepSilentAboutLinksOfWhichAnIkeDaemonSpeaks) {
  boundLinks.add(IntfId(1));
  start({esp()}, {stateOf({.reqid = 5})});
  EXPECT_EQ(state(1), nullptr);
  boundLinks.remove(IntfId(1));
  EXPECT_EQ(state(1), "up");
  boundLinks.add(IntfId(1));
  EXPECT_EQ(state(1), nullptr) << "before the daemon's records come";
}

TEST_F(KernelStatesTest, TellPeopleOfEachConnection) {
  start({esp()}, {stateOf({.reqid = 5})});
  EXPECT_THAT(states->connections(),
              ElementsAre(Sources::Ike::ConnectionReport{.connection = "(kernel)",
                                                         .child = "",
                                                         .state = ::Ipsec::Ike::ConnState::up,
                                                         .interface = "g1",
                                                         .reason = "kernel policy"}));
  EXPECT_EQ(states->summary(), "1");
}

TEST_F(KernelStatesTest, KeepWhatIsKnownWhenAStateCannotBeRead) {
  TraceRecorder traces({{"KernelStates", "all"}});
  start({esp()}, {stateOf({.reqid = 5})});
  statesAre({xfrmMessage(newState, stateInfo({.family = 7}), attribute(algAead, algorithm()))});
  EXPECT_EQ(state(1), "up");
  EXPECT_EQ(states->lastError(), "source linux: 1 IPsec states cannot be understood: trace "
                                 "KernelStates:0 says why");
  EXPECT_THAT(traces.texts(0), testing::Contains("message about a state is malformed: 7 is no "
                                                 "address family"));
  statesAre({});
  EXPECT_EQ(state(1), "down") << "this dump could be read";
}

TEST_F(KernelStatesTest, KeepWhatAnInterruptedDumpDidNotShow) {
  start({esp()}, {stateOf({.reqid = 5})});
  for (int i = 0; i != 5; ++i) // as often as one reading tries
    stateDumps.answerIs({ScriptedDumps::interrupted(ScriptedDumps::done())});
  states->reread();
  settle();
  EXPECT_EQ(stateDumps.asked(), 6);
  EXPECT_EQ(state(1), "up") << "it may be there";
}

// Keys

TEST_F(KernelStatesTest, WipesTheKeysOfADumpAndOfAnEvent) {
  start({esp()}, {stateOf({.reqid = 5})});
  auto const octets = states->buffer().bytes();
  auto const isZero = [&] {
    return std::ranges::all_of(octets, [](auto octet) { return octet == std::byte(0); });
  };
  EXPECT_TRUE(isZero());
  if (!ipSucceeds(
          "xfrm state allocspi src 10.0.0.1 dst 10.0.0.2 proto esp min 256 max 300 >/dev/null"))
    GTEST_SKIP() << "this kernel has no IPsec states";
  std::ranges::fill(octets, std::byte(0x77)); // what an event is received over
  ip("xfrm state flush");
  loop.runOnce();
  EXPECT_EQ(octets[0], std::byte(0));
  EXPECT_EQ(octets[15], std::byte(0));
}

TEST(SecretBuffer, IsWipedWhateverHappensToWhatWasReceived) {
  ReceiveBuffer const buffer(ReceiveBuffer::Contents::secret);
  Sources::Linux::NetlinkSubject const subject{.protocol = 0,
                                               .family = "a",
                                               .things = "things",
                                               .groups = {},
                                               .request = 0,
                                               .requestZeros = 0};
  ScriptedDumps dumps;
  auto const message = xfrmMessage(newState, stateInfo({}), attribute(algAead, algorithm()));
  dumps.answerIs({message});
  Sources::Linux::NetlinkDump dump(subject, dumps.ask(), buffer);
  auto sawKey = false;
  EXPECT_THROW(dump.receive([&](Sources::Linux::Bytes received) {
    sawKey = std::ranges::count(received, std::byte(0xa5)) == 32;
    throw std::runtime_error("no");
  }),
               std::runtime_error);
  EXPECT_TRUE(sawKey);
  EXPECT_TRUE(std::ranges::all_of(buffer.bytes(), [](auto one) { return one == std::byte(0); }));
}

/// The flags of the mapping that holds the address, as the kernel shows them.
std::string flagsOf(void const * address) {
  std::ifstream mappings("/proc/self/smaps");
  auto const wanted = reinterpret_cast<std::uintptr_t>(address);
  auto isIn = false;
  for (std::string line; std::getline(mappings, line);) {
    unsigned long begin = 0;
    unsigned long end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2)
      isIn = begin <= wanted && wanted < end;
    if (isIn && line.starts_with("VmFlags:"))
      return line;
  }
  return "";
}

TEST(SecretBuffer, IsNeverPartOfACoreFile) {
  ReceiveBuffer const buffer(ReceiveBuffer::Contents::secret);
  auto const flags = flagsOf(buffer.bytes().data());
  if (flags.empty())
    GTEST_SKIP() << "/proc/self/smaps shows no flags here";
  EXPECT_THAT(flags, testing::HasSubstr(" dd"));
}

// Real states

class LinuxStates : public KernelLinks {
protected:
  void SetUp() override {
    KernelLinks::SetUp();
    if (!IsSkipped() && !ipSucceeds("xfrm state >/dev/null"))
      GTEST_SKIP() << "this kernel has no IPsec states";
  }
  void begin() {
    ip("link add vx1 type vxlan id 1 local 10.0.0.1 remote 10.0.0.2 dstport 4789");
    ip("xfrm policy add src 10.0.0.1/32 dst 10.0.0.2/32 dir out tmpl proto esp mode transport "
       "reqid 5");
    start("kinds=+vxlan,ipsec=states");
  }
  json state() const {
    return at(
        fmt::format("/ikeStatus/appliedProfiles/(kernel)/appliedIntfId/{}/connState", idOf("vx1")));
  }
  void passReadPeriod() {
    loop.advance(KernelStates::fullReadPeriod);
    settle();
  }
  static constexpr char acquired[] =
      "xfrm state allocspi src 10.0.0.1 dst 10.0.0.2 proto esp mode transport reqid 5 min 256 "
      "max 300 >/dev/null";
};

TEST_F(LinuxStates, TellThatAConnectionIsBeingMade) {
  begin();
  EXPECT_EQ(state(), "down");
  ip(acquired);
  passReadPeriod();
  EXPECT_EQ(state(), "connecting");
  EXPECT_EQ(source->connections().size(), 1u);
  ip("xfrm state deleteall");
  settle();
  EXPECT_EQ(state(), "down") << "by the event";
  ip(acquired);
  passReadPeriod();
  ip("xfrm state flush");
  settle();
  EXPECT_EQ(state(), "down");
  ip("xfrm policy flush");
  settle();
  EXPECT_EQ(state(), nullptr);
}

TEST_F(LinuxStates, TellThatAConnectionCouldNotBeMade) {
  if (!std::ofstream("/proc/sys/net/core/xfrm_acq_expires").put('1').flush())
    GTEST_SKIP() << "the settings of the network namespace cannot be written here";
  begin();
  ip(acquired);
  passReadPeriod();
  EXPECT_EQ(state(), "connecting");
  settle(std::chrono::seconds(5)); // of real time: the kernel's own timer
  EXPECT_EQ(state(), "down") << "by the event";
}

TEST_F(LinuxStates, TellThatAConnectionIsUp) {
  begin();
  auto const add =
      std::string("xfrm state add src 10.0.0.1 dst 10.0.0.2 proto esp spi 0x100 reqid 5 mode "
                  "transport auth 'hmac(sha256)' "
                  "0x0123456789012345678901234567890123456789012345678901234567890123 enc "
                  "'cbc(aes)' 0x01234567890123456789012345678901");
  if (!ipSucceeds(add))
    GTEST_SKIP() << "this kernel has no ESP";
  settle();
  EXPECT_EQ(state(), "up");
  ip("xfrm state delete src 10.0.0.1 dst 10.0.0.2 proto esp spi 0x100");
  settle();
  EXPECT_EQ(state(), "down");
  EXPECT_TRUE(status(idOf("vx1"))["ipsec"]) << "the policy decides, not the state";
}

TEST_F(LinuxStates, AreNotReadUnlessAskedFor) {
  ip("link add vx1 type vxlan id 1 local 10.0.0.1 remote 10.0.0.2 dstport 4789");
  ip("xfrm policy add src 10.0.0.1/32 dst 10.0.0.2/32 dir out tmpl proto esp mode transport");
  start("kinds=+vxlan");
  EXPECT_EQ(state(), nullptr);
  EXPECT_TRUE(source->connections().empty());
}

} // namespace
