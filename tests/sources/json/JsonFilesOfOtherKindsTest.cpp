// Paths that lead to no file that can be read, and what tells two versions of a file apart.
#include "os/Descriptor.h"
#include "os/UnixAddress.h"
#include "sources/json/JsonFile.h"
#include "statedb/Publisher.h"
#include "tests/support/TemporaryFolder.h"
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

using testing::Eq;

class JsonFiles : public testing::Test {
protected:
  std::optional<Sources::FileVersion> read(
      std::string const & path,
      Sources::BetweenPieces const & betweenPieces = [] { return true; }) {
    auto read = publisher_.beginFullRead();
    return Sources::readDocument(path, read, betweenPieces);
  }
  /// Why it cannot be read; empty: it can.
  std::string why(std::string const & path) {
    try {
      read(path);
      return "";
    } catch (Sources::JsonFileUnreadable const & unreadable) {
      EXPECT_EQ(Sources::readableVersion(path), std::nullopt);
      return unreadable.what();
    }
  }
  std::string written(std::string const & text) const {
    folder.write("branch.json", text);
    return folder.file("branch.json");
  }
  /// Gives the file a time so long ago that it counts as settled.
  static void settle(std::string const & path, long nanoseconds = 0) {
    timespec const times[] = {{0, UTIME_OMIT}, {1'000'000'000, nanoseconds}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  TemporaryFolder const folder;

private:
  StateDb::StateDb database_;
  StateDb::Publishers publishers_{database_};
  StateDb::Publisher publisher_{publishers_};
};

TEST_F(JsonFiles, ThatAreMissingAreRefused) {
  auto const missing = folder.file("missing.json");
  EXPECT_EQ(why(missing), missing + ": cannot be read: No such file or directory");
}

TEST_F(JsonFiles, ThatAreNoRegularOnesAreRefusedWithoutWaiting) {
  auto const refusal = [](char const * kind) {
    return std::string(": is ") + kind + "; the tunnels must be in a regular file";
  };
  auto const pipe = folder.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0); // nobody writes to it
  auto const socketFile = folder.file("socket");
  Os::Descriptor const socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  auto const address = *Os::UnixAddress::ofPath(socketFile);
  ASSERT_EQ(::bind(socket.get(), address.get(), address.size()), 0);

  EXPECT_EQ(why(folder.path().string()), folder.path().string() + refusal("a folder"));
  EXPECT_EQ(why(pipe), pipe + refusal("a named pipe"));
  EXPECT_EQ(why(socketFile), socketFile + refusal("a socket"));
  EXPECT_EQ(why("/dev/zero"), "/dev/zero" + refusal("a device"));
}

// All but the first octets are a hole: what is refused has not been read.
TEST_F(JsonFiles, ThatAreTooLargeAreRefused) {
  auto const large = written("{}");
  std::filesystem::resize_file(large, Sources::largestFile + 1);
  EXPECT_EQ(why(large), large + ": has 268435457 bytes; no more than 268435456 are read");
  std::filesystem::resize_file(large, Sources::largestFile);
  EXPECT_NE(Sources::readableVersion(large), std::nullopt);
}

TEST_F(JsonFiles, ThatGrowWhileTheyAreReadAreReadAsTheyWere) {
  auto const path = written("{}");
  auto const grow = [&] {
    std::ofstream(path, std::ios::app) << "garbage";
    return true;
  };
  EXPECT_NO_THROW(read(path, grow));
  EXPECT_THROW(read(path), Sources::JsonFileError);
}

TEST_F(JsonFiles, HaveAVersionThatIsTheContents) {
  auto const path = written("{}");
  settle(path);
  auto const version = read(path);
  ASSERT_NE(version, std::nullopt);
  EXPECT_THAT(Sources::readableVersion(path), Eq(version));
  ASSERT_EQ(::chmod(path.c_str(), 0400), 0);
  ASSERT_EQ(::link(path.c_str(), folder.file("other").c_str()), 0);
  EXPECT_THAT(Sources::readableVersion(path), Eq(version)) << "only rights and names are others";
}

TEST_F(JsonFiles, HaveAnotherVersionWhenAnythingIsWritten) {
  auto const path = written("{}");
  settle(path);
  auto const version = read(path);
  settle(path, 1);
  EXPECT_NE(Sources::readableVersion(path), version) << "written a nanosecond later";
  written("{} ");
  settle(path);
  EXPECT_NE(Sources::readableVersion(path), version) << "longer";
  folder.write("new", "{}");
  settle(folder.file("new"));
  std::filesystem::rename(folder.file("new"), path);
  EXPECT_NE(Sources::readableVersion(path), version) << "another file";
}

// The clock of a file system is coarse: what is written in the same tick looks alike.
TEST_F(JsonFiles, HaveNoVersionRightAfterTheyWereWritten) {
  EXPECT_EQ(read(written("{}")), std::nullopt);
}

} // namespace
