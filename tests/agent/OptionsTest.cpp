// The command line: what it means, and what is refused with which text.
#include "agent/Options.h"
#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Agent::ParsedOptions parse(std::vector<std::string> arguments) {
  return Agent::parseOptions(std::move(arguments), "/plug/in.so");
}

struct Wrong {
  char const * name;
  std::vector<std::string> arguments;
  char const * says;
};
void PrintTo(Wrong const & wrong, std::ostream * out) {
  *out << wrong.name;
}

class WrongOptions : public testing::TestWithParam<Wrong> {};

TEST_P(WrongOptions, EndWithStatusTwoAndOneLineThatNamesThem) {
  auto const parsed = parse(GetParam().arguments);
  EXPECT_FALSE(parsed.options);
  EXPECT_EQ(2, parsed.exitStatus);
  EXPECT_THAT(parsed.text, HasSubstr(GetParam().says));
  EXPECT_EQ(parsed.text.size() - 1, parsed.text.find('\n'));
}

INSTANTIATE_TEST_SUITE_P(
    Options, WrongOptions,
    testing::Values(Wrong{"Unknown", {"--speed", "9"}, "--speed"},
                    Wrong{"Positional", {"linux"}, "linux"},
                    Wrong{
                        "ListenAndAgentx", {"--agentx", "--listen", "udp:127.0.0.1:0"}, "--agentx"},
                    Wrong{"TraceWithoutLevels", {"--trace", "Snmp"}, "--trace Snmp"},
                    Wrong{"TraceWithoutHandle", {"--trace", "=2"}, "--trace =2"},
                    Wrong{"TraceWithBadLevels", {"--trace", "Snmp=12"}, "--trace Snmp=12"},
                    Wrong{"SourceWithoutValue", {"--source"}, "--source"},
                    Wrong{"UnknownIterator", {"--iterator", "fast"}, "--iterator"},
                    Wrong{"IteratorByNumber", {"--iterator", "0"}, "--iterator"},
                    Wrong{"EmptyControl", {"--control", ""}, "--control"}),
    [](auto const & wrong) { return wrong.param.name; });

TEST(Options, HaveDefaultsThatServeOnLoopbackOnly) {
  auto const options = parse({}).options.value();
  EXPECT_EQ("udp:127.0.0.1:1161", options.listen);
  EXPECT_FALSE(options.agentx);
  EXPECT_EQ("", options.configFile);
  EXPECT_EQ("/run/tunnelsnmpd/tunnelsnmpd.sock", options.controlPath);
  EXPECT_EQ("/plug/in.so", options.pluginFile);
  EXPECT_TRUE(options.sources.empty());
}

TEST(Options, KeepSourcesAndTracesInOrder) {
  auto const options =
      parse({"--source", "json:a", "--trace", "B=1", "--source=linux", "--trace=A=0,9"})
          .options.value();
  EXPECT_THAT(options.sources, ElementsAre("json:a", "linux"));
  ASSERT_EQ(2u, options.traces.size());
  EXPECT_EQ("B", options.traces[0].handle);
  EXPECT_EQ(0b10u, options.traces[0].levelMask);
  EXPECT_EQ("A", options.traces[1].handle);
  EXPECT_EQ(0b1000000001u, options.traces[1].levelMask);
}

TEST(Options, TakeTheUsualMasterSocketWhenAgentxNamesNone) {
  EXPECT_EQ("/var/agentx/master", parse({"--agentx"}).options.value().agentx);
  EXPECT_EQ("/tmp/master", parse({"--agentx=/tmp/master"}).options.value().agentx);
  auto const options = parse({"--agentx", "--source", "linux"}).options.value();
  EXPECT_EQ("/var/agentx/master", options.agentx);
  EXPECT_THAT(options.sources, ElementsAre("linux"));
}

TEST(Options, ChooseTheIteratorByName) {
  EXPECT_EQ(Agent::Iterator::host, parse({}).options.value().iterator);
  EXPECT_EQ(Agent::Iterator::host, parse({"--iterator", "host"}).options.value().iterator);
  EXPECT_EQ(Agent::Iterator::stock, parse({"--iterator=stock"}).options.value().iterator);
}

TEST(Options, HelpTeachesAndSucceeds) {
  auto const parsed = parse({"--help"});
  EXPECT_EQ(0, parsed.exitStatus);
  EXPECT_FALSE(parsed.options);
  for (auto const * text : {"--listen", "--agentx", "--source", "--config", "--trace", "--control",
                            "--plugin", "--iterator", "Examples:", "Exit status:"})
    EXPECT_THAT(parsed.text, HasSubstr(text));
}

TEST(Options, HelpNamesEverySource) {
  auto const help = parse({"--help"}).text;
  for (auto const * text :
       {"json:FILE", "linux[:OPTIONS]", "kinds=+KIND,-KIND", "ipsec=states",
        "vici[:SOCKET][,bind=CONNECTION[/CHILD]@INTERFACE]", "/run/charon.vici"})
    EXPECT_THAT(help, HasSubstr(text));
}

TEST(Options, VersionIsShownAndSucceeds) {
  auto const parsed = parse({"--version"});
  EXPECT_EQ(0, parsed.exitStatus);
  EXPECT_THAT(parsed.text, testing::MatchesRegex("tunnelsnmpd [0-9.]+\n"));
}

} // namespace
