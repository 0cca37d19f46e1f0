// Paths that fit into an address and paths that do not.
#include "os/UnixAddress.h"
#include <gtest/gtest.h>
#include <string>

namespace {

TEST(UnixAddress, IsTheFamilyAndThePath) {
  auto const address = Os::UnixAddress::ofPath("/run/some.sock");
  ASSERT_TRUE(address);
  auto const & raw = *reinterpret_cast<sockaddr_un const *>(address->get());
  EXPECT_EQ(raw.sun_family, AF_UNIX);
  EXPECT_STREQ(raw.sun_path, "/run/some.sock");
  EXPECT_EQ(address->size(), sizeof(sockaddr_un));
}

TEST(UnixAddress, LeavesRoomForTheEndOfThePath) {
  std::string const longest(107, 'p'); // unix(7): 108 bytes, the last one a null
  ASSERT_TRUE(Os::UnixAddress::ofPath(longest));
  auto const address = Os::UnixAddress::ofPath(longest);
  EXPECT_EQ(longest, reinterpret_cast<sockaddr_un const *>(address->get())->sun_path);
  EXPECT_FALSE(Os::UnixAddress::ofPath(longest + "p"));
}

TEST(UnixAddress, OfAnAbstractNameEndsWithTheName) {
  auto const address = Os::UnixAddress::ofAbstractName("notify");
  ASSERT_TRUE(address);
  auto const & raw = *reinterpret_cast<sockaddr_un const *>(address->get());
  EXPECT_EQ(std::string("\0notify", 7), std::string(raw.sun_path, 7));
  EXPECT_EQ(address->size(), sizeof raw.sun_family + 7);
}

TEST(UnixAddress, OfAnAbstractNameTakesTheWholePlace) {
  std::string const longest(107, 'n'); // unix(7): 108 bytes, the first one a null
  auto const address = Os::UnixAddress::ofAbstractName(longest);
  ASSERT_TRUE(address);
  EXPECT_EQ(address->size(), sizeof(sockaddr_un));
  EXPECT_FALSE(Os::UnixAddress::ofAbstractName(longest + "n"));
}

} // namespace
