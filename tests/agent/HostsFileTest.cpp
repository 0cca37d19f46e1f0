// libwrap itself reads the files here, as it does beneath net-snmp.
#include "agent/HostsFile.h"
#include "tests/support/TemporaryFolder.h"
#include <gtest/gtest.h>
#include <memory>
#include <tcpd.h>
#include <thread>

namespace {

using Clock = Agent::HostsFile::Clock;
using namespace std::literals;

constexpr auto later = 10s; // long enough for a change to be settled

class HostsFile : public testing::Test {
protected:
  HostsFile() {
    hosts_allow_table = allowPath_.data();
    hosts_deny_table = denyPath_.data();
  }
  ~HostsFile() override {
    hosts_allow_table = systemsAllowTable_;
    hosts_deny_table = systemsDenyTable_;
  }

  void write(std::string const & text) const { folder_.write("deny", text); }
  /// The file with that text, when it has been looked at.
  std::unique_ptr<Agent::HostsFile> seen(std::string const & text) const {
    write(text);
    auto file = std::make_unique<Agent::HostsFile>(hosts_deny_table);
    file->look(Clock::now() + later);
    return file;
  }
  bool isAllowed() const {
    char daemon[] = "tunnelsnmpd";
    char unknown[] = STRING_UNKNOWN;
    char address[] = "192.0.2.1";
    return hosts_ctl(daemon, unknown, address, unknown) != 0;
  }
  bool isLeftToLibwrap() const { return hosts_deny_table == denyPath_.data(); }

private:
  char * const systemsAllowTable_ = hosts_allow_table;
  char * const systemsDenyTable_ = hosts_deny_table;
  TemporaryFolder folder_;
  std::string allowPath_ = folder_.file("allow");
  std::string denyPath_ = folder_.file("deny");
};

TEST_F(HostsFile, IsNotReadWhileItHoldsNoRule) {
  for (auto const * text : {"", "\n", "# nobody is denied\n", " \t\n#\n\n"}) {
    auto const file = seen(text);
    EXPECT_FALSE(isLeftToLibwrap()) << text;
    EXPECT_TRUE(isAllowed()) << text;
  }
}

TEST_F(HostsFile, IsReadWhenItHoldsARule) {
  for (auto const * text : {"ALL: ALL\n", "# all\nALL: ALL\n", "\n\ntunnelsnmpd: 192.0.2.\n"}) {
    auto const file = seen(text);
    EXPECT_TRUE(isLeftToLibwrap()) << text;
    EXPECT_FALSE(isAllowed()) << text;
  }
}

TEST_F(HostsFile, IsReadWhenLibwrapWouldComplainOfIt) {
  for (auto const & text : {"# does not end"s, "# goes on \\\n# here\n"s, "# or not \\\n"s,
                            "#\0\n"s, "#" + std::string(2000, 'x') + "\n"}) {
    auto const file = seen(text);
    EXPECT_TRUE(isLeftToLibwrap()) << text;
  }
}

TEST_F(HostsFile, IsReadWhenItMayChangeAgainAndLookTheSame) {
  write("# nobody is denied\n");
  Agent::HostsFile file(hosts_deny_table);
  file.look(Clock::now());
  EXPECT_TRUE(isLeftToLibwrap());
}

TEST_F(HostsFile, IsLookedIntoAgainWhenItHasChanged) {
  write("#\n");
  Agent::HostsFile file(hosts_deny_table);
  file.look(Clock::now() + later);
  write("ALL: ALL\n");
  file.look(Clock::now() + 2 * later);
  EXPECT_FALSE(isAllowed());
  write("#ALL: ALL\n");
  file.look(Clock::now() + 3 * later);
  EXPECT_FALSE(isLeftToLibwrap());
}

TEST_F(HostsFile, IsLookedIntoAgainWhenOnlyItsTimeTellsOfTheChange) {
  write("#LL: ALL\n");
  Agent::HostsFile file(hosts_deny_table);
  file.look(Clock::now() + later);
  ASSERT_FALSE(isLeftToLibwrap());
  std::this_thread::sleep_for(50ms); // the file system's clock tells nothing shorter apart
  write("ALL: ALL\n");
  file.look(Clock::now() + 2 * later);
  EXPECT_FALSE(isAllowed());
}

TEST_F(HostsFile, IsLeftToLibwrapWhenItIsAFolder) {
  std::filesystem::create_directory(hosts_deny_table);
  Agent::HostsFile file(hosts_deny_table);
  file.look(Clock::now() + later);
  EXPECT_TRUE(isLeftToLibwrap());
}

TEST_F(HostsFile, MayBeMissing) {
  Agent::HostsFile file(hosts_deny_table);
  file.look(Clock::now() + later);
  EXPECT_TRUE(isAllowed());
  write("ALL: ALL\n");
  file.look(Clock::now() + 2 * later);
  EXPECT_FALSE(isAllowed());
}

TEST_F(HostsFile, IsLookedAtNoMoreOftenThanAHundredTimesASecond) {
  auto const now = Clock::now() + later;
  write("#\n");
  Agent::HostsFile file(hosts_deny_table);
  file.look(now);
  write("ALL: ALL\n");
  file.look(now + 9ms);
  EXPECT_FALSE(isLeftToLibwrap());
  file.look(now + 10ms);
  EXPECT_TRUE(isLeftToLibwrap());
}

TEST_F(HostsFile, IsLookedAtWhenTheClockWasPutBack) {
  write("#\n");
  Agent::HostsFile file(hosts_deny_table);
  file.look(Clock::now() + later);
  file.look(Clock::now() + 5ms);
  EXPECT_TRUE(isLeftToLibwrap()); // it has changed just now
}

TEST_F(HostsFile, IsLibwrapsAgainAtTheEnd) {
  write("#\n");
  {
    Agent::HostsFile file(hosts_deny_table);
    file.look(Clock::now() + later);
    ASSERT_FALSE(isLeftToLibwrap());
  }
  EXPECT_TRUE(isLeftToLibwrap());
}

} // namespace
