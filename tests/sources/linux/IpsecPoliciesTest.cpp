// The ipsec flag of tunnels under real policies of the running kernel, with vxlan links because
// every kernel has those. Policies need no ESP in the kernel; states would.
#include "sources/linux/IpsecPolicies.h"
#include "sources/linux/NetlinkSockets.h"
#include "tests/sources/linux/KernelLinks.h"
#include "tests/sources/linux/ScriptedDumps.h"
#include "tests/sources/linux/XfrmBytes.h"
#include "tests/support/TraceRecorder.h"
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <iterator>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <random>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using nlohmann::json;
using Sources::SourceStatus;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::SizeIs;

constexpr char const * hosts = "src 10.0.0.1/32 dst 10.0.0.2/32";
constexpr char const * esp = "tmpl proto esp mode transport";

class PolicyLinks : public KernelLinks {
protected:
  void SetUp() override {
    KernelLinks::SetUp();
    if (!IsSkipped() && !ipSucceeds("xfrm policy >/dev/null"))
      GTEST_SKIP() << "this kernel has no IPsec policies";
  }
  void addVxlan(std::string const & name, std::string const & remote = "10.0.0.2") {
    ip(fmt::format("link add {} type vxlan id {} local 10.0.0.1 remote {} dstport 4789", name,
                   ++vxlans_, remote));
  }
  /// `ip xfrm policy VERB ... dir out ...`
  void policy(std::string const & verb, std::string const & selector,
              std::string const & rest = "") {
    ip(fmt::format("xfrm policy {} {} dir out {}", verb, selector, rest));
  }
  bool isIpsec(std::string const & link) const { return status(idOf(link))["ipsec"].get<bool>(); }
  std::string detail(std::string const & name) const {
    for (auto const & [key, text] : source->status().details)
      if (key == name)
        return text;
    return "";
  }

private:
  int vxlans_ = 0;
};

TEST_F(PolicyLinks, AreProtectedByAPolicyThatIsThereAtTheStart) {
  addVxlan("vx1");
  addVxlan("vx2", "10.0.0.3");
  policy("add", hosts, esp);
  start();
  EXPECT_TRUE(isIpsec("vx1"));
  EXPECT_FALSE(isIpsec("vx2"));
  EXPECT_EQ(detail("policies"), "1");
  EXPECT_EQ(source->status().records.statusClaims, 1u);
}

TEST_F(PolicyLinks, FollowAPolicyInPlaceWithinOneTurnOfTheLoop) {
  addVxlan("vx1");
  start();
  auto const id = idOf("vx1");
  auto const object = record(id);
  auto const fullReads = source->status().fullReads;
  policy("add", hosts, esp);
  loop.runOnce();
  EXPECT_TRUE(isIpsec("vx1"));
  policy("update", hosts, "action block");
  loop.runOnce();
  EXPECT_FALSE(isIpsec("vx1")) << "what is blocked is not protected";
  policy("update", hosts, esp);
  loop.runOnce();
  EXPECT_TRUE(isIpsec("vx1"));
  policy("delete", hosts);
  loop.runOnce();
  EXPECT_FALSE(isIpsec("vx1"));
  EXPECT_EQ(record(id), object);
  EXPECT_EQ(source->status().fullReads, fullReads);
}

// As every geneve link, and many others.
TEST_F(PolicyLinks, ThatLeaveTheirAddressToTheRoutesFollowTheRoute) {
  ipBatch("link set lo up\n"
          "address add 10.0.0.1/24 dev lo\n"
          "address add 10.0.0.9/24 dev lo\n"
          "route add 10.0.0.2/32 dev lo src 10.0.0.1\n"
          "link add vx1 type vxlan id 1 remote 10.0.0.2 dstport 4789\n");
  policy("add", hosts, esp);
  start();
  EXPECT_TRUE(isIpsec("vx1"));
  ip("route change 10.0.0.2/32 dev lo src 10.0.0.9");
  passFullReadPeriod();
  EXPECT_FALSE(isIpsec("vx1"));
  policy("add", "src 10.0.0.9/32 dst 10.0.0.2/32", esp);
  settle();
  EXPECT_TRUE(isIpsec("vx1")) << "by the policy of the address that it has now";
}

TEST_F(PolicyLinks, AreProtectedFromTheirFirstRecordOn) {
  start();
  policy("add", hosts, esp);
  settle();
  addVxlan("vx1");
  auto const changes = source->status().changes;
  settle();
  EXPECT_TRUE(isIpsec("vx1"));
  EXPECT_EQ(source->status().changes, changes + 3) << "ifIndex, status, claim";
  ip("link set vx1 up");
  ip("link set vx1 type vxlan id 1 remote 10.0.0.3");
  settle();
  EXPECT_FALSE(isIpsec("vx1")) << "its packets are others now";
  ip("link del vx1");
  settle();
  EXPECT_EQ(source->status().records.statusClaims, 0u);
}

TEST_F(PolicyLinks, ObeyThePolicyOfTheLowestPriority) {
  addVxlan("vx1");
  start();
  policy("add", "src 10.0.0.0/24 dst 10.0.0.0/24", "priority 100 " + std::string(esp));
  settle();
  EXPECT_TRUE(isIpsec("vx1"));
  policy("add", std::string(hosts) + " proto udp dport 4789", "priority 50"); // bypass
  settle();
  EXPECT_FALSE(isIpsec("vx1"));
  policy("add", std::string(hosts) + " proto udp dport 4790", "priority 10 " + std::string(esp));
  settle();
  EXPECT_FALSE(isIpsec("vx1")) << "another port";
  policy("delete", std::string(hosts) + " proto udp dport 4789");
  settle();
  EXPECT_TRUE(isIpsec("vx1"));
}

TEST_F(PolicyLinks, AreNotProtectedByPoliciesForOthers) {
  addVxlan("vx1");
  start();
  policy("add", hosts, std::string("if_id 7 ") + esp);
  policy("add", hosts, std::string("mark 7 ") + esp);
  ip(fmt::format("xfrm policy add {} dir in {}", hosts, esp));
  ip(fmt::format("xfrm policy add {} dir fwd {}", hosts, esp));
  settle();
  EXPECT_FALSE(isIpsec("vx1"));
  EXPECT_EQ(detail("policies"), "2") << "the outbound ones";
}

TEST_F(PolicyLinks, AreNotProtectedByPoliciesForWhatComesIn) {
  addVxlan("vx1");
  ip(fmt::format("xfrm policy add {} dir in {}", hosts, esp));
  start();
  EXPECT_FALSE(isIpsec("vx1"));
  EXPECT_EQ(detail("policies"), "0") << "by the dump";
}

TEST_F(PolicyLinks, AreReadAgainAfterAFlush) {
  addVxlan("vx1");
  policy("add", hosts, esp);
  start();
  EXPECT_TRUE(isIpsec("vx1"));
  ip("xfrm policy flush");
  settle();
  EXPECT_FALSE(isIpsec("vx1"));
  EXPECT_EQ(detail("policies"), "0");
}

TEST_F(PolicyLinks, LoseAPolicyWhoseTimeIsOver) {
  addVxlan("vx1");
  start();
  policy("add", hosts, std::string("limit time-hard 1 ") + esp);
  settle();
  EXPECT_TRUE(isIpsec("vx1"));
  settle(std::chrono::seconds(5)); // of real time: the kernel's own timer
  EXPECT_FALSE(isIpsec("vx1"));
}

TEST_F(PolicyLinks, FindWhatWasMissedAtTheNextFullRead) {
  addVxlan("vx1");
  start();
  document.apply({{{"op", "replace"},
                   {"path", "/tunnelIntfStatusDir/intfStatus/" + idOf("vx1") + "/ipsec"},
                   {"value", true}}});
  policy("add", "src 10.0.0.1/32 dst 10.9.9.9/32", esp);
  passFullReadPeriod();
  EXPECT_FALSE(isIpsec("vx1"));
  EXPECT_EQ(detail("policies"), "1");
}

TEST_F(PolicyLinks, OfAnotherNamespaceAreLeftAlone) {
  TraceRecorder traces({{"IpsecPolicies", "7"}});
  policy("add", hosts, esp);
  start();
  auto const pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    unshare(CLONE_NEWNET);
    pause();
  }
  auto const command =
      fmt::format("nsenter --net=/proc/{}/ns/net ip link add vx1 netns {} type vxlan id 2 local "
                  "10.0.0.1 remote 10.0.0.2 dstport 4789",
                  pid, getpid());
  auto made = false;
  for (int i = 0; i != 50 && !made; ++i) { // until the child has left our namespace
    usleep(20'000);
    auto const isIts = system(fmt::format("test $(readlink /proc/{}/ns/net) != $(readlink "
                                          "/proc/{}/ns/net)",
                                          pid, getpid())
                                  .c_str()) == 0;
    made = isIts && system(command.c_str()) == 0;
  }
  ASSERT_TRUE(made);
  settle();
  EXPECT_FALSE(isIpsec("vx1"));
  ip("link set vx1 mtu 1300");
  settle();
  EXPECT_THAT(traces.texts(7), ElementsAre(HasSubstr("leave in another network namespace")));
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

TEST_F(PolicyLinks, AreReadAgainWhenEventsWereLost) {
  addVxlan("vx1");
  Sources::LinuxSource ofLinks("kinds=+vxlan", surroundings());
  Sources::Linux::IpsecPolicies::Options options;
  options.kernelBuffer = 4096;
  Sources::Linux::IpsecPolicies policies(
      surroundings(), [] {}, [](Plexa::IntfId) {}, options);
  ofLinks.start();
  policies.start();
  auto const lost = Lumo::counter("linux-overflows");
  std::string storm;
  for (int i = 1; i != 200; ++i)
    storm += fmt::format("xfrm policy add src 10.0.0.1/32 dst 10.7.0.{} dir out {}\n", i, esp);
  ipBatch(storm + fmt::format("xfrm policy add {} dir out {}\n", hosts, esp));
  settle();
  EXPECT_GT(Lumo::counter("linux-overflows"), lost);
  EXPECT_TRUE(isIpsec("vx1"));
  EXPECT_EQ(policies.summary(), "200");
}

/// Some policies for the packets of the first vxlan link, or almost; each blocks or demands ESP,
/// and the first, for whatever the others leave, demands ESP.
std::string randomPolicies(std::mt19937 & random) {
  auto const any = [&](auto const & choices) { return choices[random() % std::size(choices)]; };
  constexpr char const * sources[] = {"0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/24", "10.0.0.1/32",
                                      "10.0.0.3/32"};
  constexpr char const * destinations[] = {"0.0.0.0/0", "10.0.0.0/30", "10.0.0.2/32",
                                           "10.0.0.9/32"};
  constexpr char const * packets[] = {"", "proto udp", "proto udp dport 4789",
                                      "proto udp dport 4790", "proto gre"};
  constexpr char const * actions[] = {"action block", esp};
  auto lines = fmt::format(
      "xfrm policy add src 0.0.0.0/0 dst 10.0.0.0/29 dir out priority 100000 {}\n", esp);
  for (int i = 0; i != 8; ++i)
    lines += fmt::format("xfrm policy add src {} dst {} {} dir out priority {} {}\n", any(sources),
                         any(destinations), any(packets), random() % 1000 * 10 + i, any(actions));
  return lines;
}

/// True if and only if the kernel lets a packet of the first vxlan link's flow go.
bool isSent() {
  Os::Descriptor const socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, "10.0.0.1", &address.sin_addr);
  EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  inet_pton(AF_INET, "10.0.0.2", &address.sin_addr);
  address.sin_port = htons(4789);
  auto const sent =
      sendto(socket.get(), "x", 1, 0, reinterpret_cast<sockaddr *>(&address), sizeof address);
  EXPECT_TRUE(sent == 1 || errno == EPERM) << std::strerror(errno);
  return sent == 1;
}

// The kernel is asked: what it does not block goes by a policy that demands ESP.
TEST_F(PolicyLinks, AreJudgedAsTheKernelJudgesTheirPackets) {
  if (!ipSucceeds("link add veth0 type veth peer name veth1"))
    GTEST_SKIP() << "this kernel has no links of kind veth";
  ip("addr add 10.0.0.1/8 dev veth0");
  ip("link set veth0 up");
  ip("link set veth1 up");
  addVxlan("vx1");
  start();
  auto const seed = std::random_device()();
  SCOPED_TRACE(fmt::format("random number {}", seed));
  std::mt19937 random(seed);
  int blocked = 0;
  constexpr int rounds = 40;
  for (int round = 0; round != rounds && !HasFailure(); ++round) {
    ip("xfrm policy flush");
    auto const lines = randomPolicies(random);
    // Of two with the same selector the kernel refuses the second, and ip ends there.
    auto * const batch = popen("ip -batch - 2>/dev/null", "w");
    std::fwrite(lines.data(), 1, lines.size(), batch);
    pclose(batch);
    settle();
    ASSERT_EQ(isIpsec("vx1"), isSent()) << lines;
    blocked += isIpsec("vx1") ? 0 : 1;
  }
  EXPECT_GT(blocked, 0);
  EXPECT_LT(blocked, rounds);
}

TEST_F(PolicyLinks, LetTheOldestPolicyOfEqualsDecideAtTheStartAndLater) {
  addVxlan("vx1");
  policy("add", "src 10.0.0.0/24 dst 10.0.0.0/24", esp);
  policy("add", hosts); // bypass, newer
  start();
  EXPECT_TRUE(isIpsec("vx1")) << "by the order of the dump";
  policy("delete", "src 10.0.0.0/24 dst 10.0.0.0/24");
  settle();
  EXPECT_FALSE(isIpsec("vx1"));
  policy("add", "src 10.0.0.0/24 dst 10.0.0.0/24", esp);
  settle();
  EXPECT_FALSE(isIpsec("vx1")) << "by the order of the events";
}

/// The end of CAP_NET_ADMIN in the effective set, while it lives.
class WithoutPrivilege {
public:
  WithoutPrivilege() {
    EXPECT_EQ(syscall(SYS_capget, &header_, before_), 0);
    __user_cap_data_struct now[2] = {before_[0], before_[1]};
    now[0].effective &= ~(1U << CAP_NET_ADMIN);
    EXPECT_EQ(syscall(SYS_capset, &header_, now), 0);
  }
  ~WithoutPrivilege() { EXPECT_EQ(syscall(SYS_capset, &header_, before_), 0); }

private:
  __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct before_[2] = {};
};

TEST_F(PolicyLinks, FollowTheirKindWhereReadingPoliciesIsNotPermitted) {
  TraceRecorder traces({{"IpsecPolicies", "0"}});
  addVxlan("vx1");
  policy("add", hosts, esp);
  {
    WithoutPrivilege const unprivileged;
    start();
    EXPECT_FALSE(isIpsec("vx1"));
    EXPECT_EQ(source->status().state, SourceStatus::State::inSync);
    EXPECT_EQ(source->status().lastError, "");
    EXPECT_EQ(detail("policies"), "not permitted: give CAP_NET_ADMIN; until then the ipsec flag "
                                  "follows the kind of the link");
    passFullReadPeriod();
    reread();
    EXPECT_THAT(traces.texts(0), SizeIs(1)) << "said once";
    EXPECT_THAT(notes, ElementsAre("IPsec policies: not permitted: give CAP_NET_ADMIN; until then "
                                   "the ipsec flag follows the kind of the link"));
    EXPECT_FALSE(source->status().isReading);
  }
  passFullReadPeriod();
  EXPECT_TRUE(isIpsec("vx1"));
  EXPECT_EQ(detail("policies"), "1");
}

TEST_F(PolicyLinks, FollowTheirKindWhereTheKernelHasNoPolicies) {
  addVxlan("vx1");
  Sources::LinuxSource ofLinks("kinds=+vxlan", surroundings());
  ofLinks.start();
  Sources::Linux::IpsecPolicies::Options options;
  options.protocol = 31; // which nobody has
  Sources::Linux::IpsecPolicies policies(
      surroundings(), [] {}, [](Plexa::IntfId) {}, options);
  policies.start();
  EXPECT_EQ(policies.lastError(), "");
  EXPECT_EQ(policies.summary(), "not supported by this kernel: load xfrm_user; until then the "
                                "ipsec flag follows the kind of the link");
}

/// Policies that a test writes, over links that it makes up.
class ScriptedPolicies : public KernelLinks {
protected:
  using Octets = LinkBytes::Octets;

  void startPolicies() {
    Sources::Linux::IpsecPolicies::Options options;
    options.ask = [this] { return dumps.ask(); };
    policies.emplace(
        surroundings(), [] {}, [](Plexa::IntfId) {}, options);
    policies->start();
  }
  void linkIs(Sources::Link const & link, std::string const & mode) {
    links.linkIs(link);
    publisher.statusIs(link.intfId, Interface::TunnelIntfStatusValues{
                                        .srcAddr = link.local,
                                        .dstAddr = link.remote,
                                        .mode = *Plexa::tunnelIntfModeFromString(mode),
                                        .ipsec = mode == "vti" || mode == "xfrm"});
  }
  static Octets policyMessage(XfrmBytes::PolicyInfo const & info, XfrmBytes::Template const & asked,
                              Octets const & more = {}) {
    using namespace XfrmBytes;
    return xfrmMessage(newPolicy, policyInfo(info),
                       joined({attribute(tmpl, templateOctets(asked)), more}));
  }

  ScriptedDumps dumps;
  StateDb::Publisher publisher{publishers};
  std::optional<Sources::Linux::IpsecPolicies> policies;
};

TEST_F(ScriptedPolicies, GiveAnXfrmLinkTheEndpointsOfItsTunnel) {
  using namespace XfrmBytes;
  linkIs({.intfId = Plexa::IntfId(1), .name = "x1", .kind = "xfrm", .ifId = 42}, "xfrm");
  linkIs({.intfId = Plexa::IntfId(2), .name = "x2", .kind = "xfrm", .ifId = 43}, "xfrm");
  auto const wide =
      Selector{.source = "", .destination = "", .sourceLength = 0, .destinationLength = 0};
  auto const tunnel = Template{.mode = 1, .source = "192.0.2.1", .destination = "192.0.2.2"};
  dumps.answerIs({policyMessage({.selector = wide, .priority = 7, .index = 9}, tunnel,
                                attribute(ifId, native<std::uint32_t>(42))),
                  policyMessage({.selector = wide, .priority = 3, .index = 17},
                                {.mode = 1, .source = "192.0.2.3", .destination = "192.0.2.4"},
                                attribute(ifId, native<std::uint32_t>(42))),
                  ScriptedDumps::done()});
  startPolicies();
  EXPECT_EQ(status("1")["srcAddr"], "192.0.2.3") << "the one that decides";
  EXPECT_EQ(status("1")["dstAddr"], "192.0.2.4");
  EXPECT_TRUE(status("1")["ipsec"]);
  EXPECT_EQ(status("2")["srcAddr"], "");
  EXPECT_TRUE(status("2")["ipsec"]) << "by its kind";
  dumps.answerIs({ScriptedDumps::done()});
  policies->reread();
  settle();
  EXPECT_EQ(status("1")["srcAddr"], "");
  EXPECT_TRUE(status("1")["ipsec"]);
}

// In transport mode a template has no ends: one before or behind it has them.
TEST_F(ScriptedPolicies, GiveAnXfrmLinkTheEndpointsOfTheTemplateThatMakesATunnel) {
  using namespace XfrmBytes;
  auto const tunnel = [](std::uint8_t protocol, std::uint8_t optional = 0) {
    return templateOctets({.protocol = protocol,
                           .mode = 1,
                           .source = "192.0.2.1",
                           .destination = "192.0.2.2",
                           .optional = optional});
  };
  auto const policyOf = [](std::uint32_t id, Octets const & templates) {
    return xfrmMessage(newPolicy, policyInfo({.index = id * 8 + 1}),
                       joined({attribute(tmpl, templates), attribute(ifId, native(id))}));
  };
  for (std::uint32_t id = 1; id <= 3; ++id)
    linkIs({.intfId = Plexa::IntfId(id), .name = "x", .kind = "xfrm", .ifId = id}, "xfrm");
  auto const plainEsp = templateOctets({.protocol = 50});
  dumps.answerIs({policyOf(1, joined({tunnel(108), plainEsp})),
                  policyOf(2, joined({templateOctets({.protocol = 51}), tunnel(50)})),
                  policyOf(3, joined({tunnel(108, 1), plainEsp})), ScriptedDumps::done()});
  startPolicies();
  EXPECT_EQ(status("1")["dstAddr"], "192.0.2.2") << "compression makes it";
  EXPECT_EQ(status("2")["dstAddr"], "192.0.2.2") << "after authentication";
  EXPECT_EQ(status("3")["dstAddr"], "") << "it need not be made";
}

TEST_F(ScriptedPolicies, KeepWhatIsKnownOfOneThatCannotBeRead) {
  using namespace XfrmBytes;
  auto const local = *Plexa::IpGenAddr::fromString("10.0.0.1");
  auto const remote = *Plexa::IpGenAddr::fromString("10.0.0.2");
  linkIs(
      {.intfId = Plexa::IntfId(1), .name = "g1", .kind = "gre", .local = local, .remote = remote},
      "gre");
  dumps.answerIs({policyMessage({}, {}), ScriptedDumps::done()});
  startPolicies();
  EXPECT_TRUE(status("1")["ipsec"]);
  dumps.answerIs(
      {xfrmMessage(newPolicy, policyInfo({}), attribute(tmpl, Octets(3))), ScriptedDumps::done()});
  policies->reread();
  settle();
  EXPECT_TRUE(status("1")["ipsec"]);
  EXPECT_EQ(policies->lastError(), "source linux: 1 IPsec policies cannot be understood: trace "
                                   "IpsecPolicies:0 says why");
  dumps.answerIs({ScriptedDumps::done()});
  loop.advance(Sources::Linux::IpsecPolicies::fullReadPeriod);
  settle();
  EXPECT_FALSE(status("1")["ipsec"]);
  EXPECT_EQ(policies->lastError(), "");
}

// The end may begin the next reading, which drops events: not while one is being received.
TEST_F(ScriptedPolicies, DoNotEndAReadingInsideAnEvent) {
  dumps.answerIs({ScriptedDumps::done()});
  startPolicies();
  dumps.answerIs({ScriptedDumps::done()});
  policies->reread();
  loop.runOnce(); // what follows from the dump waits for its turn
  ip("xfrm policy add src 10.0.0.1/32 dst 10.0.0.2/32 dir out");
  loop.runOnce();
  EXPECT_EQ(policies->summary(), "1");
  EXPECT_TRUE(policies->isReading());
  settle();
  EXPECT_FALSE(policies->isReading());
  EXPECT_EQ(policies->summary(), "1") << "the event is newer";
}

TEST_F(ScriptedPolicies, KeepOneThatAnInterruptedDumpDidNotShow) {
  linkIs({.intfId = Plexa::IntfId(1),
          .name = "g1",
          .kind = "gre",
          .local = *Plexa::IpGenAddr::fromString("10.0.0.1"),
          .remote = *Plexa::IpGenAddr::fromString("10.0.0.2")},
         "gre");
  dumps.answerIs({policyMessage({}, {}), ScriptedDumps::done()});
  startPolicies();
  for (int i = 0; i != 5; ++i) // as often as one reading tries
    dumps.answerIs({ScriptedDumps::interrupted(ScriptedDumps::done())});
  policies->reread();
  settle();
  EXPECT_EQ(dumps.asked(), 6);
  EXPECT_TRUE(status("1")["ipsec"]) << "it may be there";
  EXPECT_EQ(policies->lastError(), "source linux: IPsec policies come and go too fast to read "
                                   "them all: trying again");
  dumps.answerIs({ScriptedDumps::done()});
  loop.advance(Sources::Linux::KernelReader::retryPeriod);
  settle();
  EXPECT_FALSE(status("1")["ipsec"]);
}

// One policy for all: the links are looked at in runs.
TEST_F(ScriptedPolicies, ReachManyLinksInRuns) {
  using namespace XfrmBytes;
  for (std::uint32_t i = 1; i <= 1000; ++i)
    linkIs({.intfId = Plexa::IntfId(i),
            .name = "g",
            .kind = "gre",
            .local = *Plexa::IpGenAddr::fromString("10.0.0.1"),
            .remote = *Plexa::IpGenAddr::fromString(fmt::format("10.1.{}.{}", i / 250, i % 250))},
           "gre");
  dumps.answerIs({ScriptedDumps::done()});
  startPolicies();
  auto const runs = scheduler->runs();
  scheduler->yieldIs(Yield::always);
  ip("xfrm policy add src 0.0.0.0/0 dst 0.0.0.0/0 dir out tmpl proto esp mode transport");
  loop.runOnce();
  auto const first = policies->publisher().counts().statusClaims;
  EXPECT_GT(first, 0u) << "some at once";
  EXPECT_LT(first, 1000u);
  settle();
  EXPECT_EQ(policies->publisher().counts().statusClaims, 1000u);
  EXPECT_GT(scheduler->runs(), runs + 100);
}

} // namespace
