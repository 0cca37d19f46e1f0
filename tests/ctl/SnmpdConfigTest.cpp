// What is read out of snmpd's configuration, and who sees what by it.
#include "ctl/doctor/SnmpdConfig.h"
#include <gmock/gmock.h>
#include <stdexcept>

namespace {

using namespace Ctl::Doctor;
using testing::ElementsAre;
using testing::IsEmpty;

Oid const tunnels{1, 3, 6, 1, 2, 1, 10, 131};

/// What the first reader of the configuration sees of the tunnels.
Sight sight(char const * text) {
  auto const config = parseSnmpdConfig(text);
  return sightOf(config, config.readers.at(0), tunnels);
}

TEST(SnmpdOid, IsReadWithAndWithoutADotAndByTheNamesOfUpperNodes) {
  EXPECT_EQ((Oid{1, 3, 6}), oidFromText(".1.3.6"));
  EXPECT_EQ((Oid{1, 3, 6}), oidFromText("1.3.6"));
  EXPECT_EQ((Oid{1}), oidFromText("iso"));
  EXPECT_EQ(tunnels, oidFromText("mib-2.10.131"));
  for (auto const * none : {"", ".", "1..3", "1.x", "sysDescr", "1.3.", "4294967296"})
    EXPECT_EQ(std::nullopt, oidFromText(none)) << none;
  EXPECT_EQ(".1.3.6", oidText({1, 3, 6}));
}

TEST(SnmpdConfig, OfNothingLetsNobodyRead) {
  auto const config = parseSnmpdConfig("# rocommunity public\n\nsysLocation here\nrocommunity\n");
  EXPECT_THAT(config.readers, IsEmpty());
  EXPECT_FALSE(config.isMaster);
}

TEST(SnmpdConfig, TakesDirectivesInLettersOfEitherCaseAndValuesInQuotationMarks) {
  auto const config =
      parseSnmpdConfig("ROCommunity \"my own\" default # comment\n\tmaster\tagentx\n");
  ASSERT_EQ(1u, config.readers.size());
  EXPECT_EQ("my own", config.readers[0].name);
  EXPECT_EQ("default", config.readers[0].source);
  EXPECT_TRUE(config.isMaster);
}

TEST(SnmpdConfig, KnowsTheMasterAndItsAddresses) {
  auto const config = parseSnmpdConfig("agentXSocket unix:/a,tcp:localhost:705\n"
                                       "agentaddress  127.0.0.1,[::1]\nmaster off\n");
  EXPECT_THAT(config.agentxSockets, ElementsAre("unix:/a", "tcp:localhost:705"));
  EXPECT_THAT(config.listeners, ElementsAre("127.0.0.1", "[::1]"));
  EXPECT_FALSE(config.isMaster);
}

TEST(SnmpdConfig, LetsACommunityReadEverythingOrASubtreeOrAView) {
  EXPECT_EQ(Sight::all, sight("rocommunity public"));
  EXPECT_EQ(Sight::all, sight("rwcommunity6 public default .1.3.6.1.2.1"));
  EXPECT_EQ(Sight::nothing, sight("rocommunity public default system"));
  EXPECT_EQ(Sight::part, sight("rocommunity public default .1.3.6.1.2.1.10.131.1.1.1"));
  EXPECT_EQ(Sight::nothing, sight("rocommunity public default -V none"));
}

TEST(SnmpdConfig, HasDebiansOwnHideTheTunnels) {
  EXPECT_EQ(Sight::nothing, sight("view   systemonly  included   .1.3.6.1.2.1.1\n"
                                  "view   systemonly  included   .1.3.6.1.2.1.25.1\n"
                                  "rocommunity  public default -V systemonly\n"));
}

TEST(SnmpdConfig, FollowsTheLongestLineOfAView) {
  EXPECT_EQ(Sight::all, sight("rocommunity p default -V v\nview v included .1\n"));
  EXPECT_EQ(Sight::nothing, sight("rocommunity p default -V v\nview v included .1\n"
                                  "view v excluded .1.3.6.1.2.1.10\n"));
  EXPECT_EQ(Sight::all, sight("rocommunity p default -V v\nview v included .1.3.6.1.2.1.10.131\n"
                              "view v excluded .1.3.6.1.2.1.10\n"));
  EXPECT_EQ(Sight::part, sight("rocommunity p default -V v\nview v included .1\n"
                               "view v excluded .1.3.6.1.2.1.10.131.1.1.3\n"));
  EXPECT_EQ(Sight::nothing, sight("rocommunity p default -V v\n"
                                  "view v excluded .1.3.6.1.2.1.10.131.1.1.3\n"));
}

TEST(SnmpdConfig, FollowsTheMaskOfAView) {
  EXPECT_EQ(Sight::all, sight("rocommunity p default -V v\n"
                              "view v included .1.3.6.1.2.1.99.131 fd\n")); // all but the 7th
  EXPECT_EQ(Sight::nothing, sight("rocommunity p default -V v\n"
                                  "view v included .1.3.6.1.2.1.99.131 ff\n"));
}

TEST(SnmpdConfig, JoinsSecurityNamesGroupsAndAccess) {
  auto const config = parseSnmpdConfig("access readers \"\" any noauth exact tunnelview none none\n"
                                       "view tunnelview included .1.3.6.1.2.1.10.131\n"
                                       "group readers v2c local\n"
                                       "group others usm local\n"
                                       "com2sec -Cn ctx local 127.0.0.1/32 secret\n");
  ASSERT_EQ(1u, config.readers.size());
  EXPECT_EQ("secret", config.readers[0].name);
  EXPECT_EQ("127.0.0.1/32", config.readers[0].source);
  EXPECT_EQ(Sight::all, sightOf(config, config.readers[0], tunnels));
}

TEST(SnmpdConfig, KnowsUsersAndTheOtherWayToWriteBoth) {
  auto const config = parseSnmpdConfig("rouser reader priv -V v\nauthcommunity read,net c default\n"
                                       "authuser log u\nauthcommunity log d\n");
  ASSERT_EQ(2u, config.readers.size());
  EXPECT_FALSE(config.readers[0].isCommunity);
  EXPECT_EQ("v", config.readers[0].view);
  EXPECT_EQ("c", config.readers[1].name);
}

TEST(SnmpdConfig, TellsOfLinesWithNamesThatItDoesNotKnow) {
  auto const config =
      parseSnmpdConfig("view v included tunnelMIB\nrocommunity p default ifTable\n");
  EXPECT_THAT(config.notUnderstood,
              ElementsAre("view v included tunnelMIB", "rocommunity p default ifTable"));
}

/// A few files in memory.
ConfigFiles files(std::map<std::string, std::string> const & texts) {
  return {[texts](std::string const & path) {
            if (!texts.contains(path))
              throw std::runtime_error(path + ": No such file or directory");
            return texts.at(path);
          },
          [texts](std::string const & folder) {
            std::vector<std::string> inside;
            for (auto const & [path, text] : texts)
              if (path.starts_with(folder + "/"))
                inside.push_back(path);
            if (inside.empty())
              throw std::runtime_error(folder + ": No such file or directory");
            return inside;
          }};
}

TEST(SnmpdConfig, ReadsWhatItIncludes) {
  auto const config = readSnmpdConfig(
      "/snmpd.conf", files({{"/snmpd.conf", "includeDir /d\nincludeFile /f\nincludeDir /none\n"},
                            {"/d/a.conf", "rocommunity a\n"},
                            {"/d/b.conf", "rocommunity b\n"},
                            {"/f", "master agentx\nincludeFile /f\n"}}));
  ASSERT_EQ(2u, config.readers.size());
  EXPECT_EQ("b", config.readers[1].name);
  EXPECT_TRUE(config.isMaster);
  EXPECT_THAT(config.unreadable, ElementsAre("/none: No such file or directory"));
}

TEST(SnmpdConfig, TellsWhatCannotBeRead) {
  auto const config = readSnmpdConfig("/none", files({}));
  EXPECT_THAT(config.unreadable, ElementsAre("/none: No such file or directory"));
}

TEST(SnmpdReader, MayAskFromHereUnlessItsSourceIsElsewhere) {
  for (auto const * source : {"", "default", "localhost", "127.0.0.1", "127.0.0.0/8", "::1"})
    EXPECT_TRUE(mayAskFromHere({.name = "c", .source = source})) << source;
  EXPECT_FALSE(mayAskFromHere({.name = "c", .source = "192.0.2.0/24"}));
}

TEST(SnmpdAddress, IsOneThatThisMachineReaches) {
  EXPECT_EQ("udp:127.0.0.1:161", addressFromHere({}));
  EXPECT_EQ("udp:127.0.0.1:161", addressFromHere({"127.0.0.1", "[::1]"}));
  EXPECT_EQ("udp:127.0.0.1:1161", addressFromHere({"udp:0.0.0.0:1161"}));
  EXPECT_EQ("udp:127.0.0.1:1161", addressFromHere({"udp:1161"}));
  EXPECT_EQ("udp:192.0.2.1:161", addressFromHere({"unix:/a", "192.0.2.1"}));
  EXPECT_EQ("udp6:[::1]:1161", addressFromHere({"udp6:[::1]:1161"}));
  EXPECT_EQ("tcp:127.0.0.1:1161", addressFromHere({"tcp:127.0.0.1:1161"}));
}

} // namespace
