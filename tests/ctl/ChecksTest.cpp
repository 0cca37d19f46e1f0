// Each check of the doctor, fed with facts that no machine here has.
#include "ctl/doctor/Checks.h"
#include "ctl/doctor/Doctor.h"
#include <gmock/gmock.h>

namespace {

using namespace Ctl::Doctor;
using Json = nlohmann::ordered_json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

/// Of a daemon behind a master where nothing is wrong.
Facts healthy() {
  Facts facts;
  facts.control = {.path = "/c", .result = ControlFacts::Result::answers};
  facts.status = Json::parse(R"({"ready": true, "version": "1", "enterprise": 32473,
      "sources": [{"name": "linux", "state": "inSync", "records": {"intfStatus": 2}}],
      "agentx": {"address": "/m", "state": "serving", "session": 7,
                 "registrations": [{"oid": "1.3", "state": "registered", "reason": ""}]}})");
  facts.tunnels = Json::parse(R"([{"remarks": []}, {"remarks": []}])");
  facts.tables = Json::parse(R"({"tunnelIfTable": [{}, {}]})");
  facts.master.emplace();
  facts.config = parseSnmpdConfig("master agentx\nrocommunity public\n");
  facts.configFile = "/etc/snmp/snmpd.conf";
  facts.askedAt = "udp:127.0.0.1:161";
  facts.askedAs = "community \"public\"";
  facts.asked = {{.name = "TUNNEL-MIB",
                  .subtree = {1, 3, 6, 1, 2, 1, 10, 131},
                  .hasRows = true,
                  .answer = {.result = Answer::Result::value,
                             .oid = {1, 3, 6, 1, 2, 1, 10, 131, 1},
                             .text = "INTEGER: 3"}}};
  facts.mib = {.module = "M", .folders = {"/mibs"}, .file = "/mibs/M.txt"};
  return facts;
}

/// The one finding that is not right.
Finding only(Findings const & findings) {
  std::vector<Finding> wrong;
  for (auto const & one : findings)
    if (one.verdict != Verdict::right)
      wrong.push_back(one);
  EXPECT_EQ(1u, wrong.size());
  return wrong.empty() ? Finding{} : wrong.front();
}

TEST(Doctor, FindsNothingToDoWhereNothingIsWrong) {
  auto const findings = checkAll(healthy());
  EXPECT_EQ(Verdict::right, verdictOf(findings)) << findingsText(findings);
  EXPECT_EQ(10u, findings.size()) << "one each, and two of the configuration";
}

TEST(Doctor, LooksNoFurtherWithoutADaemon) {
  Facts facts;
  facts.control = {"/c", ControlFacts::Result::noSocket, "no such file"};
  facts.mib = healthy().mib;
  auto const findings = checkAll(facts);
  ASSERT_EQ(2u, findings.size());
  EXPECT_EQ(Verdict::todo, findings[0].verdict);
  EXPECT_EQ("no such file", findings[0].what);
  EXPECT_THAT(findings[0].advice, HasSubstr("systemctl start"));
}

TEST(Doctor, CannotTellWhereItMayNotAsk) {
  Facts facts;
  facts.control = {"/c", ControlFacts::Result::notPermitted, "Permission denied"};
  auto const found = only(checkDaemon(facts));
  EXPECT_EQ(Verdict::unknown, found.verdict);
  EXPECT_THAT(found.advice, HasSubstr("sudo"));
}

TEST(Doctor, TellsASourceThatReadsFromOneThatIsBroken) {
  auto facts = healthy();
  auto & source = facts.status["sources"][0];
  source["state"] = "stopped";
  source["reading"] = true;
  EXPECT_THAT(only(checkSources(facts)).advice, HasSubstr("wait-ready"));
  source["lastError"] = "why";
  EXPECT_THAT(only(checkSources(facts)).what, HasSubstr("why"));
}

TEST(Doctor, TellsWhichKindsOfLinkAreLeftOut) {
  auto facts = healthy();
  facts.status["sources"][0]["details"]["not published"] = "2 vxlan; --source linux:kinds=+vxlan";
  auto const findings = checkSources(facts);
  ASSERT_EQ(2u, findings.size());
  EXPECT_EQ(Verdict::right, findings[1].verdict);
  EXPECT_THAT(findings[1].what, HasSubstr("2 vxlan"));
}

TEST(Doctor, TellsWhyThereAreNoRows) {
  auto facts = healthy();
  facts.tables = Json::parse(R"({"tunnelIfTable": []})");
  EXPECT_THAT(only(checkRows(facts)).advice, HasSubstr("show tunnels"));
  facts.tunnels = Json::array();
  EXPECT_THAT(only(checkRows(facts)).what, HasSubstr("no source publishes"));
  facts.status["ready"] = false;
  EXPECT_THAT(only(checkRows(facts)).advice, HasSubstr("wait-ready"));
}

TEST(Doctor, TellsHowManyTunnelsLackSomething) {
  auto facts = healthy();
  facts.tunnels[1]["remarks"] = {"no row in tunnelInetConfigTable: no local address"};
  auto const findings = checkRows(facts);
  ASSERT_EQ(2u, findings.size());
  EXPECT_EQ(Verdict::right, findings[1].verdict) << "it may be meant so";
  EXPECT_THAT(findings[1].what,
              HasSubstr("1 of 2 tunnels: no row in tunnelInetConfigTable: no local "
                        "address (1);"));
}

Facts behindClosedMaster() {
  auto facts = healthy();
  facts.status["agentx"] = Json::parse(R"({"address": "/var/agentx/master", "state":
      "waiting to try again", "lastError": "Permission denied", "registrations": []})");
  facts.master->daemon = {.user = 990, .groups = {991}};
  facts.master->parts = {
      {.path = "/var", .mode = 0755, .owner = 0, .group = 0},
      {.path = "/var/agentx", .mode = 0750, .owner = 0, .group = 991},
      {.path = "/var/agentx/master", .isSocket = true, .mode = 0660, .owner = 0, .group = 991}};
  return facts;
}

TEST(Doctor, FollowsThePathToTheMasterWithTheRightsOfTheDaemon) {
  auto facts = behindClosedMaster();
  EXPECT_EQ(Verdict::right, verdictOf(checkMaster(facts)));
  facts.master->parts[2].group = 0;
  EXPECT_THAT(only(checkMaster(facts)).what,
              AllOf(HasSubstr("may not connect to /var/agentx/master"), HasSubstr("mode 0660")));
  EXPECT_THAT(only(checkMaster(facts)).advice, HasSubstr("agentXPerms"));
  facts.master->parts[1].mode = 0700;
  EXPECT_THAT(only(checkMaster(facts)).what, HasSubstr("may not go through /var/agentx "));
  facts.master->parts[1].exists = false;
  EXPECT_THAT(only(checkMaster(facts)).what, HasSubstr("/var/agentx does not exist"));
  facts.master->daemon.user = 0;
  facts.master->parts[1].exists = true;
  EXPECT_EQ(Verdict::right, verdictOf(checkMaster(facts))) << "root may everything";
}

TEST(Doctor, TellsThatNobodyListensAtTheMastersSocket) {
  auto facts = behindClosedMaster();
  facts.master->connectError = "Connection refused";
  EXPECT_THAT(only(checkMaster(facts)).what, HasSubstr("nobody takes connections"));
}

TEST(Doctor, TellsWhatKeepsTheSessionFromOpening) {
  auto const found = only(checkSession(behindClosedMaster()));
  EXPECT_THAT(found.what, HasSubstr("waiting to try again; last error: Permission denied"));
  EXPECT_THAT(checkRegistrations(behindClosedMaster()), IsEmpty());
}

TEST(Doctor, NamesWhoElseHasAnOid) {
  auto facts = healthy();
  facts.status["agentx"]["state"] = "registering";
  facts.status["agentx"]["registrations"][0] =
      Json::parse(R"({"oid": "1.3", "state": "refused", "reason": "duplicateRegistration"})");
  EXPECT_THAT(only(checkRegistrations(facts)).what, HasSubstr("does not say to whom"));
  facts.owners["1.3"] = "STRING: other";
  EXPECT_THAT(only(checkRegistrations(facts)).what, HasSubstr("somebody else: STRING: other"));
  facts.status["agentx"]["registrations"][0]["reason"] = "requestDenied";
  EXPECT_THAT(only(checkRegistrations(facts)).what, HasSubstr("refuses 1.3: requestDenied"));
  facts.status["agentx"]["registrations"][0]["state"] = "asked for";
  EXPECT_THAT(only(checkRegistrations(facts)).what, HasSubstr("0 of 1"));
}

TEST(Doctor, TellsWhatTheConfigurationLacks) {
  auto facts = healthy();
  facts.config = parseSnmpdConfig("master agentx\n");
  EXPECT_THAT(only(checkAccess(facts)).what, HasSubstr("lets nobody read"));
  facts.config = parseSnmpdConfig("master agentx\nview v included system\n"
                                  "rocommunity public default -V v\n");
  EXPECT_THAT(only(checkAccess(facts)).what, HasSubstr("community public is limited to view v"));
  EXPECT_THAT(only(checkAccess(facts)).advice, HasSubstr("view v included .1.3.6.1.2.1.10.131\""));
  facts.config->unreadable = {"/etc/snmp/snmpd.conf: Permission denied"};
  facts.config->readers.clear();
  EXPECT_EQ(Verdict::unknown, only(checkAccess(facts)).verdict);
}

TEST(Doctor, ComparesTheMastersSocketWithTheDaemons) {
  auto facts = behindClosedMaster();
  facts.config = parseSnmpdConfig("master agentx\nrocommunity public\n");
  EXPECT_EQ(Verdict::right, verdictOf(checkAccess(facts))) << "both have the default";
  facts.config = parseSnmpdConfig("master agentx\nrocommunity public\nagentXSocket unix:/other\n");
  EXPECT_THAT(only(checkAccess(facts)).advice, HasSubstr("--agentx unix:/other"));
  facts.config = parseSnmpdConfig("rocommunity public\n");
  EXPECT_THAT(only(checkAccess(facts)).what, HasSubstr("no \"master agentx\""));
}

TEST(Doctor, TellsWhatAManagerGets) {
  auto facts = healthy();
  facts.asked[0].answer.oid = {1, 3, 6, 1, 2, 1, 11};
  EXPECT_THAT(only(checkAnswers(facts)).what, HasSubstr("gets .1.3.6.1.2.1.11"));
  facts.asked[0].answer = {.result = Answer::Result::nothing};
  EXPECT_THAT(only(checkAnswers(facts)).what, HasSubstr("gets nothing"));
  facts.asked[0].hasRows = false;
  EXPECT_EQ(Verdict::right, verdictOf(checkAnswers(facts)));
  facts.asked[0].answer = {.result = Answer::Result::error, .text = "authorizationError"};
  EXPECT_THAT(only(checkAnswers(facts)).what, HasSubstr("authorizationError"));
  facts.asked.push_back(facts.asked[0]);
  facts.asked[0].answer = {};
  EXPECT_THAT(only(checkAnswers(facts)).what, HasSubstr("no answer from udp:127.0.0.1:161"));
  facts.hasCredentials = false;
  EXPECT_EQ(Verdict::unknown, only(checkAnswers(facts)).verdict);
}

TEST(Doctor, TellsWhereTheMibShouldBe) {
  auto facts = healthy();
  facts.mib.file.clear();
  EXPECT_THAT(only(checkMib(facts)).what, HasSubstr("/mibs"));
}

TEST(DoctorsText, KeepsToThePageAndSaysWhatToDoBelow) {
  Findings const findings{
      {.check = "one", .what = "right"},
      {"two\x1b", Verdict::todo, std::string(60, 'a') + " " + std::string(60, 'b'), "do\nit"}};
  EXPECT_EQ("ok     one      right\n"
            "TO DO  two\\x1B  " +
                std::string(60, 'a') + "\n" + std::string(16, ' ') + std::string(60, 'b') + "\n" +
                std::string(16, ' ') + "-> do\\x0Ait\n",
            findingsText(findings));
}

TEST(DoctorsJson, HasEachFindingAndTheVerdict) {
  EXPECT_EQ(Json::parse(R"({"verdict": "unknown", "findings": [
                {"check": "a", "verdict": "right", "what": "b", "advice": ""},
                {"check": "c", "verdict": "unknown", "what": "d", "advice": "e"}]})"),
            findingsJson({{.check = "a", .what = "b"}, {"c", Verdict::unknown, "d", "e"}}));
}

} // namespace
