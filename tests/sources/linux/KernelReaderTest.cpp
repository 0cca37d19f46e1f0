// What a reader of the kernel leaves to others on the thread, and what readings of policies and
// states cost where one thing concerns many others.
#include "sources/linux/KernelReader.h"
#include "sources/linux/KernelStates.h"
#include "tests/sources/linux/KernelLinks.h"
#include "tests/sources/linux/ScriptedDumps.h"
#include "tests/sources/linux/XfrmBytes.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <thread>

namespace {

using Plexa::IntfId;
using Sources::Linux::IpsecPolicies;
using Sources::Linux::KernelReader;
using Sources::Linux::KernelStates;
using Sources::Linux::ReceiveBuffer;
using testing::SizeIs;
using namespace XfrmBytes;

/// Needs so long for each event.
class SlowUser : public KernelReader::User {
public:
  static constexpr std::chrono::milliseconds each{3};

  void dumpBegins() override {}
  bool found(Sources::Linux::Bytes) override { return true; }
  void dumpEnds(bool, KernelReader::Pace) override { reader->published(); }
  bool heard(Sources::Linux::Bytes) override {
    ++events;
    std::this_thread::sleep_for(each);
    return true;
  }
  void isInSync() override {}
  void isDegraded(std::string_view) override {}
  std::chrono::milliseconds retryAfter(std::exception const &) override { return each; }

  KernelReader * reader = nullptr;
  int events = 0;
};

class LinkReader : public KernelLinks {};

TEST_F(LinkReader, LeavesTheThreadToOthersWhenItsUserIsSlow) {
  Sources::Linux::NetlinkSubject const subject{.protocol = NETLINK_ROUTE,
                                               .family = "a route",
                                               .things = "links",
                                               .groups = {RTNLGRP_LINK},
                                               .request = RTM_GETLINK,
                                               .requestZeros = sizeof(ifinfomsg)};
  ReceiveBuffer const buffer(ReceiveBuffer::Contents::plain);
  auto const trace = Lumo::Platform::getDebugHandler("KernelReaderTest", false);
  SlowUser user;
  KernelReader reader({.subject = subject,
                       .loop = loop,
                       .trace = *trace,
                       .buffer = buffer,
                       .kernelBuffer = 1 << 20,
                       .period = std::chrono::seconds(20),
                       .ask = {}},
                      user);
  user.reader = &reader;
  reader.readNow();
  constexpr int linkCount = 20;
  for (int i = 0; i != linkCount; ++i)
    ip(fmt::format("link add vx{0} type vxlan id {0} dstport 4789", i + 1));
  loop.runOnce();
  EXPECT_GT(user.events, 0);
  EXPECT_LT(user.events, linkCount) << "the rest has its turn later";
  settle();
  EXPECT_GE(user.events, linkCount);
}

/// Policies and states that a test writes, over links that it makes up.
class ManyPolicies : public KernelLinks {
protected:
  static constexpr std::uint32_t policyCount = 60;

  void start(std::vector<Octets> policyMessages, std::vector<Octets> stateMessages) {
    answer(policyDumps, std::move(policyMessages));
    answer(stateDumps, std::move(stateMessages));
    IpsecPolicies::Options options;
    options.ask = [this] { return policyDumps.ask(); };
    policies.emplace(
        surroundings(), [] {},
        [this](IntfId intfId) {
          if (states)
            states->lookAgain(intfId);
        },
        options);
    states.emplace(
        surroundings(), *policies, [] {}, [this] { return stateDumps.ask(); });
    policies->start();
    states->start();
  }
  static void answer(ScriptedDumps & dumps, std::vector<Octets> messages) {
    messages.push_back(ScriptedDumps::done());
    dumps.answerIs(messages);
  }

  ScriptedDumps policyDumps;
  ScriptedDumps stateDumps;
  std::optional<IpsecPolicies> policies;
  std::optional<KernelStates> states;
};

Octets policyMessage(PolicyInfo const & info, Template const & asked, Octets const & more = {}) {
  return xfrmMessage(newPolicy, policyInfo(info),
                     joined({attribute(tmpl, templateOctets(asked)), more}));
}
Selector wide() {
  return {.source = "", .destination = "", .sourceLength = 0, .destinationLength = 0};
}
Sources::Link greLink(std::uint32_t number) {
  return {.intfId = IntfId(number),
          .name = fmt::format("g{}", number),
          .kind = "gre",
          .local = *Plexa::IpGenAddr::fromString("10.0.0.1"),
          .remote = *Plexa::IpGenAddr::fromString(fmt::format("10.0.1.{}", number))};
}

// Each of so many policies is for each of so many links.
TEST_F(ManyPolicies, AreReadWithoutALookAtEachLinkForEachOfThem) {
  for (std::uint32_t i = 1; i <= 50; ++i)
    links.linkIs(greLink(i));
  std::vector<Octets> messages;
  for (std::uint32_t i = 1; i <= policyCount; ++i)
    messages.push_back(policyMessage({.selector = wide(), .priority = i, .index = i}, {}));
  start(messages, {});
  EXPECT_EQ(policies->summary(), std::to_string(policyCount));
  EXPECT_EQ(policies->publisher().counts().statusClaims, 50u);
  EXPECT_EQ(policies->linkWork().links, 0u) << "all are looked at in the end";
}

// As on a gateway that has one xfrm link for all who dial in.
TEST_F(ManyPolicies, OfOneInterfaceAreNotAllLookedAtWhereTheFirstSays) {
  links.linkIs({.intfId = IntfId(1), .name = "x1", .kind = "xfrm", .ifId = 42});
  auto const id = attribute(ifId, native<std::uint32_t>(42));
  std::vector<Octets> messages;
  std::vector<Octets> stateMessages;
  for (std::uint32_t i = 1; i <= policyCount; ++i) {
    auto const peer = fmt::format("192.0.2.{}", i);
    messages.push_back(policyMessage({.selector = wide(), .index = i},
                                     {.mode = 1, .source = "198.51.100.1", .destination = peer},
                                     id));
    stateMessages.push_back(
        xfrmMessage(newState, stateInfo({.source = "198.51.100.1", .destination = peer, .mode = 1}),
                    joined({attribute(algAead, algorithm()), id})));
  }
  start(messages, stateMessages);
  EXPECT_THAT(states->connections(), SizeIs(1));
  auto const before = policies->policyWork().looks;
  states->lookAgain(IntfId(1));
  EXPECT_EQ(policies->policyWork().looks, before + 1);
}

TEST(States, FromNoCertainAddressServeEachThatFits) {
  Sources::Linux::States states;
  Sources::Linux::Flow const flow{.local = *Plexa::IpGenAddr::fromString("10.0.0.1"),
                                  .remote = *Plexa::IpGenAddr::fromString("10.0.0.2"),
                                  .protocol = 47};
  auto const wanted =
      Sources::Linux::States::wanted({}, {.protocol = 50}, {flow.local, flow.remote});
  ASSERT_TRUE(wanted);
  states.stateIs({.id = {.destination = flow.remote, .protocol = 50, .spi = 7}, .isUsable = true});
  EXPECT_EQ(states.progress(*wanted), Sources::Linux::States::Progress::usable)
      << "as the kernel looks for them";
}

} // namespace
