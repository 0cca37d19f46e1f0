// Who closes a descriptor, and when.
#include "os/Descriptor.h"
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

Os::Descriptor opened() {
  return Os::Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}
bool isOpen(int number) {
  return fcntl(number, F_GETFD) != -1;
}

TEST(Descriptor, IsClosedWithItsOwner) {
  int number = -1;
  {
    auto const descriptor = opened();
    number = descriptor.get();
    EXPECT_TRUE(descriptor);
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, AFailedSystemCallIsNone) {
  Os::Descriptor const missing(open("/no/such/file", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(missing);
  EXPECT_FALSE(Os::Descriptor());
}

TEST(Descriptor, IsItsNewOwnersAfterAMove) {
  auto first = opened();
  auto const number = first.get();
  auto second = opened();
  auto const replaced = second.get();
  second = std::move(first);
  EXPECT_EQ(second.get(), number);
  EXPECT_TRUE(isOpen(number));
  EXPECT_FALSE(isOpen(replaced));
  EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move): what is left is promised
}

TEST(Descriptor, IsNotClosedOnceReleased) {
  int number = -1;
  {
    auto descriptor = opened();
    number = descriptor.release();
    EXPECT_FALSE(descriptor);
  }
  EXPECT_TRUE(isOpen(number));
  Os::Descriptor const again(number);
}

TEST(Descriptor, LeavesTheErrorOfTheCallBefore) {
  errno = ENOENT;
  { Os::Descriptor const bad(1 << 20); } // close() fails
  EXPECT_EQ(errno, ENOENT);
}

} // namespace
