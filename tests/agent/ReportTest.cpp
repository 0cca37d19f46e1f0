// The lines that the daemon reports faults with.
#include "agent/Report.h"
#include <gtest/gtest.h>
#include <new>

namespace {

TEST(Report, WritesOneLineHoweverManyTheTextHas) {
  testing::internal::CaptureStderr();
  Agent::report("first\n  second\r\n");
  EXPECT_EQ("tunnelsnmpd: first second\n", testing::internal::GetCapturedStderr());
}

TEST(Report, RemembersAndCountsTheLastFailure) {
  Lumo::Counter counter("report-test-failures");
  testing::internal::CaptureStderr();
  Agent::reportFailure(counter, "in a test", std::runtime_error("one"));
  Agent::reportFailure(counter, "in a test", std::runtime_error("two"));
  EXPECT_EQ("tunnelsnmpd: in a test: one\ntunnelsnmpd: in a test: two\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ("in a test: two", Agent::lastFailure());
  EXPECT_EQ(2u, counter.count());
}

TEST(Report, SaysInWordsThatThereIsNoMemoryWhoeverRaisedIt) {
  Lumo::Counter counter("report-test-shortages");
  testing::internal::CaptureStderr();
  Agent::reportFailure(counter, "in a test", std::bad_alloc());
  Agent::reportEnd(std::bad_alloc());
  Agent::reportEnd(std::runtime_error("no more"));
  EXPECT_EQ("tunnelsnmpd: in a test: out of memory\ntunnelsnmpd: out of memory\n"
            "tunnelsnmpd: no more\n",
            testing::internal::GetCapturedStderr());
}

TEST(Report, SpeaksWithAnothersVoice) {
  static std::vector<std::string> lines;
  Agent::voiceIs({"guest", [](std::string_view text) noexcept { lines.emplace_back(text); }});
  Agent::report("one\nline");
  Agent::say("a trace");
  Agent::voiceIs({"tunnelsnmpd", [](std::string_view) noexcept {}});
  Agent::report("not heard");
  EXPECT_EQ((std::vector<std::string>{"guest: one line", "a trace"}), lines);
}

} // namespace
