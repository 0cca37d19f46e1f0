// Network namespaces, the ip command, and a look at what is published.
#include "tests/sources/linux/KernelLinks.h"
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <net/if.h>
#include <sched.h>

std::string enterNewNetwork() {
  if (unshare(CLONE_NEWNET) == 0)
    return "";
  EXPECT_EQ(errno, EPERM) << "the network namespace cannot be made";
  return "making a network namespace is not permitted here: run it as root";
}

void ip(std::string const & arguments) {
  EXPECT_EQ(std::system(("ip " + arguments).c_str()), 0) << "ip " << arguments;
}

void ipBatch(std::string const & lines) {
  auto * const batch = popen("ip -batch -", "w");
  ASSERT_NE(batch, nullptr);
  EXPECT_EQ(std::fwrite(lines.data(), 1, lines.size(), batch), lines.size());
  EXPECT_EQ(pclose(batch), 0) << lines;
}

bool ipSucceeds(std::string const & arguments) {
  return std::system(("ip " + arguments + " 2>/dev/null").c_str()) == 0;
}

std::string idOf(std::string const & link) {
  auto const index = if_nametoindex(link.c_str());
  EXPECT_NE(index, 0u) << "there is no link " << link;
  return std::to_string(index);
}

void KernelLinks::SetUp() {
  if (auto const whyNot = enterNewNetwork(); !whyNot.empty())
    GTEST_SKIP() << whyNot;
}

void KernelLinks::start(std::string_view options, int receiveBuffer) {
  source = std::make_unique<Sources::LinuxSource>(options, surroundings(), receiveBuffer);
  source->start();
}

Zel::Ptr<Interface::TunnelIntfStatus> KernelLinks::record(std::string const & id) const {
  auto const * const found =
      database.tunnelIntfStatusDir()->intfStatus().find(Plexa::IntfId(std::stoull(id)));
  return found == nullptr ? Zel::Ptr<Interface::TunnelIntfStatus>() : *found;
}
