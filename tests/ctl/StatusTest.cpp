// The daemon's state in words.
#include "ctl/Status.h"
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;
using testing::HasSubstr;
using testing::Not;

auto const now = std::chrono::system_clock::from_time_t(1700000000); // 2023-11-14T22:13:20Z

std::string text(char const * status) {
  return Ctl::statusText(Json::parse(status), now);
}

TEST(Status, BeginsWithReadiness) {
  EXPECT_THAT(text(R"({"ready": true, "version": "1", "servedAt": "x", "enterprise": 7})"),
              testing::StartsWith("ready       yes\nversion     1\nserved at   x\n"));
}

TEST(Status, TellsHowFarEachMachineIs) {
  auto const told = text(R"({"machines": [
      {"name": "a", "ready": true, "inputs": [{"name": "i", "scanState": "complete", "scanned": 3,
                                               "inputSize": 4}]},
      {"name": "b", "ready": false, "initialScanDone": false},
      {"name": "c", "ready": false, "initialScanDone": true},
      {"name": "d", "ready": false, "reconciling": true, "rescanUnheard": 2}]})");
  EXPECT_THAT(told, HasSubstr("\nMachines\nMACHINE  STATE                               REMARKS\n"
                              "a        ready\n"
                              "b        first pass\n"
                              "c        second pass\n"
                              "d        removes rows that nothing produced  "
                              "read everything again 2 times, as changes were missed\n"));
  EXPECT_THAT(told, HasSubstr("\nInputs\nMACHINE  INPUT  SCAN      SCANNED  INPUT SIZE\n"
                              "a        i      complete        3           4\n"));
}

TEST(Status, TellsOfSourcesAndThenWhatEachSaysOfItself) {
  auto const told = text(R"({"sources": [
      {"name": "linux", "state": "inSync", "reading": false, "lastError": "", "fullReads": 3,
       "changes": 12, "records": {"intfStatus": 2, "newOnes": 1}},
      {"name": "vici", "state": "degraded", "reading": true, "lastError": "no such socket",
       "fullReads": 0, "changes": 0, "records": {},
       "details": {"daemon": "strongSwan 5.9.8"}}]})");
  EXPECT_THAT(told, HasSubstr("SOURCE  STATE     READING  FULL READS  CHANGES\n"
                              "linux   in sync   no                3       12\n"
                              "vici    degraded  yes               0        0\n"));
  EXPECT_THAT(told, HasSubstr("\nSource linux\npublishes  2 tunnels, 1 newOnes\n"));
  EXPECT_THAT(told, HasSubstr("\nSource vici\nlast error  no such socket\n"
                              "publishes   nothing\ndaemon      strongSwan 5.9.8\n"));
}

TEST(Status, TellsHowLongTheMasterHasServed) {
  auto const told = text(R"({"agentx": {"address": "unix:m", "state": "serving", "session": 7,
      "sessions": 3, "since": "2023-11-14T22:10:18Z", "lastError": "",
      "registrations": [{"oid": "1.3.6", "context": "", "state": "registered", "reason": ""},
                        {"oid": "1.3.7", "context": "", "state": "refused",
                         "reason": "duplicateRegistration"}]}})");
  EXPECT_THAT(told, HasSubstr("\nAgentX master\naddress  unix:m\nstate    serving for 3 min 2 s\n"
                              "session  number 7\nopened   3 times\n"));
  EXPECT_THAT(told, HasSubstr("REGISTERED OID  STATE       REASON\n"
                              "1.3.6           registered\n"
                              "1.3.7           refused     duplicate registration\n"));
}

TEST(Status, ShowsNoMasterWhereThereIsNone) {
  EXPECT_THAT(text("{}"), Not(HasSubstr("AgentX")));
}

TEST(Status, TellsOfFailuresOnlyWhereThereWereAny) {
  EXPECT_THAT(text(R"({"failures": {"tasks": 0, "linesLost": 0, "last": ""}})"),
              HasSubstr("\nFailures survived\nnone\n"));
  EXPECT_THAT(text(R"({"failures": {"tasks": 0, "linesLost": 2, "last": "why"}})"),
              HasSubstr("\nFailures survived\nlines lost  2\nlast        why\n"));
}

TEST(Age, IsToldInTheUnitsThatMatter) {
  EXPECT_EQ("0 s", Ctl::ageText("2023-11-14T22:13:20Z", now));
  EXPECT_EQ("59 s", Ctl::ageText("2023-11-14T22:12:21Z", now));
  EXPECT_EQ("1 min 0 s", Ctl::ageText("2023-11-14T22:12:20Z", now));
  EXPECT_EQ("2 h 3 min", Ctl::ageText("2023-11-14T20:10:20Z", now));
  EXPECT_EQ("1 days 1 h", Ctl::ageText("2023-11-13T21:13:20Z", now));
  EXPECT_EQ("0 s", Ctl::ageText("2023-11-14T22:13:25Z", now)) << "a clock that was set back";
  EXPECT_EQ("yesterday", Ctl::ageText("yesterday", now));
}

} // namespace
