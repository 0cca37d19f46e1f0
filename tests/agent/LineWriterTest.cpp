// Lines to streams of every kind, most of them with nobody at their other end.
#include "agent/LineWriter.h"
#include "os/Descriptor.h"
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace {

struct Ends {
  Os::Descriptor read;
  Os::Descriptor write;
};

Ends pipeEnds() {
  std::array<int, 2> ends{};
  EXPECT_EQ(0, pipe(ends.data()));
  return {Os::Descriptor(ends[0]), Os::Descriptor(ends[1])};
}

Ends socketEnds() {
  std::array<int, 2> ends{};
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()));
  return {Os::Descriptor(ends[0]), Os::Descriptor(ends[1])};
}

/// A terminal that changes nothing on its way, and the keyboard's side of it.
Ends terminalEnds() {
  Os::Descriptor keyboard(posix_openpt(O_RDWR | O_NOCTTY));
  EXPECT_EQ(0, grantpt(keyboard.get()));
  EXPECT_EQ(0, unlockpt(keyboard.get()));
  Os::Descriptor terminal(open(ptsname(keyboard.get()), O_RDWR | O_NOCTTY));
  termios raw{};
  tcgetattr(terminal.get(), &raw);
  cfmakeraw(&raw);
  tcsetattr(terminal.get(), TCSANOW, &raw);
  return {std::move(keyboard), std::move(terminal)};
}

/// What has arrived by now.
std::string takeFrom(Os::Descriptor const & end) {
  fcntl(end.get(), F_SETFL, O_NONBLOCK);
  std::string all;
  std::array<char, 65536> part{};
  for (;;) {
    auto const got = read(end.get(), part.data(), part.size());
    if (got <= 0)
      return all;
    all.append(part.data(), static_cast<std::size_t>(got));
  }
}

class LineWriter : public testing::TestWithParam<Ends (*)()> {
protected:
  void SetUp() override { std::signal(SIGPIPE, SIG_IGN); }
};

TEST_P(LineWriter, LosesWhatHasNoRoomAndSaysSoWhenThereIsRoomAgain) {
  auto const ends = GetParam()();
  Agent::LineWriter writer(ends.write.get());
  std::size_t written = 0;
  std::string const line(100, 'x');
  while (writer.line(line))
    ASSERT_LT(++written, 1'000'000u);
  EXPECT_FALSE(writer.line(line));
  EXPECT_EQ(2u, writer.lost());
  auto const before = takeFrom(ends.read);
  EXPECT_TRUE(writer.line("the next"));
  EXPECT_EQ(2u, writer.lost());
  auto text = before + takeFrom(ends.read);
  // Of a terminal or a socket a part of the last line may have got through, with a line end behind.
  auto const whole = (line + "\n").size() * written;
  ASSERT_GE(text.size(), whole);
  EXPECT_THAT(text.substr(whole), testing::EndsWith("tunnelsnmpd: 2 lines were lost\nthe next\n"));
  EXPECT_THAT(text.substr(whole), testing::MatchesRegex("(x+\n)?tunnelsnmpd[^\n]*\nthe next\n"));
}

TEST_P(LineWriter, LeavesTheStreamToOthersAsItWas) {
  auto const ends = GetParam()();
  auto const flags = fcntl(ends.write.get(), F_GETFL);
  Agent::LineWriter writer(ends.write.get());
  EXPECT_TRUE(writer.line("text"));
  EXPECT_EQ(flags, fcntl(ends.write.get(), F_GETFL));
  EXPECT_EQ("text\n", takeFrom(ends.read));
}

TEST_P(LineWriter, LosesALineWhoseReaderHasGone) {
  auto ends = GetParam()();
  Agent::LineWriter writer(ends.write.get());
  EXPECT_TRUE(writer.line("one"));
  ends.read = Os::Descriptor();
  EXPECT_FALSE(writer.line("two"));
  EXPECT_EQ(1u, writer.lost());
}

INSTANTIATE_TEST_SUITE_P(Stream, LineWriter,
                         testing::Values(&pipeEnds, &socketEnds, &terminalEnds));

TEST(LineWriterCuts, ALineThatIsLongerThanAPipeTakesAtOnce) {
  auto const ends = pipeEnds();
  Agent::LineWriter writer(ends.write.get());
  EXPECT_TRUE(writer.line(std::string(10'000, 'x')));
  auto const text = takeFrom(ends.read);
  EXPECT_EQ(Agent::LineWriter::longest, text.size());
  EXPECT_THAT(text, testing::EndsWith("xxx...\n"));
  EXPECT_TRUE(writer.line(std::string(Agent::LineWriter::longest - 1, 'y')));
  EXPECT_EQ(std::string(Agent::LineWriter::longest - 1, 'y') + "\n", takeFrom(ends.read));
}

TEST(LineWriterFiles, AreWrittenToAndMayBeFull) {
  Os::Descriptor const full(open("/dev/full", O_WRONLY));
  Agent::LineWriter writer(full.get());
  EXPECT_FALSE(writer.line("lost"));
  EXPECT_EQ(1u, writer.lost());
}

TEST(LineWriterFiles, MayTakeThePlaceOfOneAnother) {
  auto const first = pipeEnds();
  auto const second = pipeEnds();
  Os::Descriptor const stream(dup(first.write.get()));
  Agent::LineWriter writer(stream.get());
  EXPECT_TRUE(writer.line("to the first"));
  dup2(second.write.get(), stream.get());
  EXPECT_TRUE(writer.line("to the second"));
  EXPECT_EQ("to the first\n", takeFrom(first.read));
  EXPECT_EQ("to the second\n", takeFrom(second.read));
}

} // namespace
