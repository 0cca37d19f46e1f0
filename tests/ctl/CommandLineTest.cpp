// The command line of tunnelsnmpctl: what it means, and what is refused with which text.
#include "ctl/CommandLine.h"
#include <gmock/gmock.h>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

Ctl::ParsedLine parse(std::vector<std::string> arguments) {
  return Ctl::parseCommandLine(std::move(arguments));
}

/// The one line with which the arguments are refused.
std::string refusal(std::vector<std::string> arguments) {
  auto const parsed = parse(std::move(arguments));
  EXPECT_EQ(nullptr, parsed.action);
  EXPECT_EQ(2, parsed.exitStatus);
  EXPECT_EQ(parsed.text.size() - 1, parsed.text.find('\n')) << parsed.text;
  EXPECT_THAT(parsed.text, HasSubstr("see tunnelsnmpctl --help"));
  return parsed.text;
}

TEST(CommandLine, ACommandIsAnActionWithItsArguments) {
  auto const show = parse({"show", "state", "/ifMib", "--json", "--control", "x"});
  EXPECT_EQ(&Ctl::showState, show.action);
  EXPECT_EQ("/ifMib", show.arguments.pointer);
  EXPECT_EQ("x", show.arguments.control);
  EXPECT_TRUE(show.arguments.json);
  auto const wait = parse({"wait-ready", "--timeout", "1.5"});
  EXPECT_EQ(&Ctl::waitReady, wait.action);
  EXPECT_EQ(1.5, wait.arguments.timeoutSeconds);
}

TEST(CommandLine, TheWholeDocumentHasAnEmptyPointer) {
  EXPECT_EQ(&Ctl::showState, parse({"show", "state", ""}).action);
}

TEST(CommandLine, HelpIsThereForEachCommand) {
  auto const help = parse({"wait-ready", "--help"});
  EXPECT_EQ(0, help.exitStatus);
  EXPECT_THAT(help.text, HasSubstr("--timeout SECONDS"));
  EXPECT_THAT(parse({"--help"}).text, AllOf(HasSubstr("Examples:"), HasSubstr("Exit status: 0")));
}

TEST(CommandLine, AnUnknownCommandIsToldTheCommandsAndTheNearest) {
  constexpr auto * commands =
      "the commands are show tables, show tunnels, show state, show ike, show tasks, show "
      "counters, "
      "trace list, trace set, status, doctor, patch, reread, restart-machines, wait-ready, watch, "
      "version";
  EXPECT_THAT(refusal({"statsu"}), AllOf(HasSubstr("\"statsu\" is no command (did you mean "
                                                   "\"status\"?)"),
                                         HasSubstr(commands)));
  EXPECT_THAT(refusal({"show", "tabels"}), AllOf(HasSubstr("\"show tabels\" is no command (did you "
                                                           "mean \"show tables\"?)"),
                                                 HasSubstr(commands)));
  EXPECT_THAT(refusal({"counters"}), HasSubstr("did you mean \"show counters\"?"));
  EXPECT_THAT(refusal({"--json", "patsh", "-"}), HasSubstr("did you mean \"patch\"?"));
}

TEST(CommandLine, WhatResemblesNoCommandIsGivenNone) {
  EXPECT_THAT(refusal({"frobnicate"}),
              AllOf(HasSubstr("\"frobnicate\" is no command; the commands"),
                    Not(HasSubstr("did you mean"))));
}

TEST(CommandLine, AMissingCommandIsToldTheCommands) {
  for (auto const & arguments : {std::vector<std::string>{}, {"show"}, {"--json"}})
    EXPECT_THAT(refusal(arguments), HasSubstr("give a command; the commands are show tables, "));
  EXPECT_THAT(refusal({"--fast"}), HasSubstr("there is no option --fast before a command"));
}

TEST(CommandLine, WhatIsTooMuchIsNamed) {
  EXPECT_THAT(refusal({"status", "dance"}), HasSubstr("dance"));
  EXPECT_THAT(refusal({"status", "--timeout", "3"}), HasSubstr("--timeout"));
  EXPECT_THAT(refusal({"patch"}), HasSubstr("FILE"));
}

TEST(CommandLine, ATimeoutIsANumberOfSeconds) {
  for (auto const * wrong :
       {"-1", "nan", "-nan", "inf", "-inf", "1e309", "1000001", "soon", "1s", " "}) {
    auto const text = refusal({"wait-ready", "--timeout", wrong});
    EXPECT_THAT(text, HasSubstr("--timeout: give 0 to 1000000 seconds")) << wrong;
    EXPECT_LT(text.size(), 100u) << wrong;
  }
  for (auto const * right : {"0", "0.1", "1e6", "1000000"})
    EXPECT_EQ(&Ctl::waitReady, parse({"wait-ready", "--timeout", right}).action) << right;
}

} // namespace
