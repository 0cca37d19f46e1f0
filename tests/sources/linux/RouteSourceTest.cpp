// The address that the kernel would send from, by real routes.
#include "sources/linux/RouteSource.h"
#include "tests/sources/linux/KernelLinks.h"

namespace {

using Plexa::AddressFamily;
using Plexa::IpGenAddr;
using Sources::Linux::sourceTowards;

class RouteSource : public KernelLinks {
protected:
  void SetUp() override {
    KernelLinks::SetUp();
    if (!IsSkipped())
      ipBatch("link set lo up\n"
              "address add 10.0.0.1/24 dev lo\n"
              "address add 10.9.0.1/24 dev lo\n"
              "address add 2001:db8::1/64 dev lo nodad\n");
  }
  static IpGenAddr address(char const * text) { return *IpGenAddr::fromString(text); }
};

TEST_F(RouteSource, IsThatOfTheRoute) {
  EXPECT_EQ(sourceTowards(address("10.9.0.77")), address("10.9.0.1"));
  ip("route add 192.0.2.0/24 dev lo src 10.9.0.1");
  EXPECT_EQ(sourceTowards(address("192.0.2.5")), address("10.9.0.1"));
  ip("route change 192.0.2.0/24 dev lo src 10.0.0.1");
  EXPECT_EQ(sourceTowards(address("192.0.2.5")), address("10.0.0.1"));
  EXPECT_EQ(sourceTowards(address("2001:db8::77")), address("2001:db8::1"));
}

TEST_F(RouteSource, IsZeroWithoutARoute) {
  EXPECT_EQ(sourceTowards(address("203.0.113.1")), IpGenAddr(AddressFamily::ipv4));
  EXPECT_EQ(sourceTowards(address("2001:db9::1")), IpGenAddr(AddressFamily::ipv6));
}

} // namespace
