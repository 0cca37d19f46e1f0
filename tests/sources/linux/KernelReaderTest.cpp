// What a reader of the kernel leaves to others on the thread.
#include "sources/linux/KernelReader.h"
#include "tests/sources/linux/KernelLinks.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <thread>

namespace {

using Sources::Linux::KernelReader;
using Sources::Linux::ReceiveBuffer;

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

} // namespace
