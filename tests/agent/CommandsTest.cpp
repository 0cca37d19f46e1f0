// Requests as the control socket gets them, and their answers, without a socket.
#include "agent/Commands.h"
#include "platform/Lumo.h"
#include "platform/zel/Type.h"
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace {

using Json = nlohmann::json;
using testing::HasSubstr;

/// An entity without any table.
class EmptyMib final : public Zel::PtrInterface {
public:
  Zel::Type const & type() const override {
    static Zel::Type const type{"Test::EmptyMib", {}};
    return type;
  }
};

class Commands : public testing::Test {
protected:
  Json ask(std::string const & request) {
    auto const answer = commands_.answer(request);
    std::string out;
    while (answer(out)) {
    }
    EXPECT_EQ(std::string::npos, out.find('\n')) << "an answer is one line";
    return Json::parse(out);
  }
  Json ask(std::string const & command, Json const & arguments) {
    return ask(Json{{"command", command}, {"arguments", arguments}}.dump());
  }
  Json result(std::string const & command, Json const & arguments = Json::object()) {
    auto const answer = ask(command, arguments);
    EXPECT_EQ(true, answer.value("ok", false)) << answer;
    return answer.value("result", Json());
  }
  std::string error(std::string const & command, Json const & arguments = Json::object()) {
    auto const answer = ask(command, arguments);
    EXPECT_EQ(false, answer.value("ok", true)) << answer;
    return answer.value("error", "");
  }

  StateDb::StateDb database_;
  StateDb::StateDocument document_{database_};
  Zel::Ptr<Kiln::TaskScheduler> const scheduler_ = Kiln::TaskSchedulerRoot::findOrCreateScheduler();
  Agent::Patches patches_{document_};
  std::shared_ptr<Agent::RereadOutcome> const rereadOutcome_ =
      std::make_shared<Agent::RereadOutcome>(std::vector<std::string>());
  int restarts_ = 0;
  std::vector<Agent::SourceConnections> connections_;
  Sources::Links links_;
  Agent::Commands commands_{{document_, Zel::makePtr<EmptyMib>(), patches_, *scheduler_,
                             [] {
                               return nlohmann::ordered_json{{"ready", true}};
                             },
                             [this] { return rereadOutcome_; }, [this] { ++restarts_; },
                             [this] { return connections_; }, database_, links_}};
};

TEST_F(Commands, ListsItselfAndEveryNameThatAnOperatorNeeds) {
  std::vector<std::string> names;
  for (auto const & command : result("list-commands"))
    names.push_back(command.at("name"));
  EXPECT_THAT(names, testing::UnorderedElementsAre(
                         "list-commands", "version", "status", "tables/show", "tables/columns",
                         "tunnels/show", "ike/show", "tasks/show", "statedb/show", "patch",
                         "trace/list", "trace/set", "coverage/show", "reread", "restart-machines"));
}

TEST_F(Commands, RefuseWhatIsNoRequest) {
  for (auto const * request :
       {"", "{", "[]", "7", "{}", R"({"command": 7})", R"({"command": "status", "arguments": 7})",
        "\xff\xfe", R"({"command": "\ud800"})"}) {
    auto const answer = ask(request);
    EXPECT_EQ(false, answer.at("ok")) << request;
    EXPECT_NE("", answer.at("error")) << request;
  }
}

TEST_F(Commands, RefuseAnUnknownCommandByItsName) {
  EXPECT_THAT(error("dance"), HasSubstr("\"dance\""));
}

TEST_F(Commands, CountWhatTheyRefuse) {
  auto const before = Lumo::counter("agent-control-requests-refused");
  error("dance");
  EXPECT_EQ(before + 1, Lumo::counter("agent-control-requests-refused"));
  EXPECT_EQ(before + 1, result("coverage/show").at("agent-control-requests-refused"));
}

TEST_F(Commands, IkeShowsTheConnectionsOfEachSource) {
  EXPECT_EQ(Json::array(), result("ike/show"));
  connections_ = {{"linux", {}},
                  {"vici", {{"hq", "net", Ipsec::Ike::ConnState::ikeUp, "ipsec0", "if_id"}}}};
  EXPECT_EQ(Json::parse(R"([{"connection": "hq", "child": "net", "state": "ikeUp",
                             "interface": "ipsec0", "reason": "if_id", "source": "vici"}])"),
            result("ike/show"));
}

TEST_F(Commands, PatchChangesWhatStateShows) {
  Json const patch = {{{"op", "add"}, {"path", "/ifMib/ifIndexByIntfId/7"}, {"value", 12}}};
  result("patch", {{"patch", patch}});
  EXPECT_EQ(12, result("statedb/show", {{"pointer", "/ifMib/ifIndexByIntfId/7"}}));
  EXPECT_EQ(12, result("statedb/show").at("ifMib").at("ifIndexByIntfId").at("7"));
}

TEST_F(Commands, AnUnusablePatchIsRefusedWithItsPlace) {
  Json const patch = {{{"op", "add"}, {"path", "/ifMib/ifIndexByIntfId/7"}, {"value", "x"}}};
  EXPECT_THAT(error("patch", {{"patch", patch}}), HasSubstr("/ifMib/ifIndexByIntfId/7"));
  EXPECT_THAT(error("patch"), HasSubstr("\"patch\" is missing"));
}

TEST_F(Commands, StateRefusesAPointerToNothing) {
  EXPECT_THAT(error("statedb/show", {{"pointer", "/nothing"}}), HasSubstr("/nothing"));
  EXPECT_THAT(error("statedb/show", {{"pointer", 7}}), HasSubstr("no text"));
}

TEST_F(Commands, TraceLevelsAreSetAndListed) {
  auto const handler = Lumo::Platform::getDebugHandler("CommandsTest", false);
  auto const set = result("trace/set", {{"unit", "CommandsTest"}, {"levels", "2,6-8"}});
  EXPECT_EQ("2,6-8", set.at("levels"));
  EXPECT_EQ("2,6-8", result("trace/list").at("CommandsTest"));
  EXPECT_EQ(0b111000100u, handler->levelMask());
}

TEST_F(Commands, TraceRefusesAHandleThatIsNoneAndListsThoseThereAre) {
  for (auto const * name : {"CommandsTest", "CommandsTestToo"})
    Lumo::Platform::getDebugHandler(name, false);
  EXPECT_THAT(error("trace/set", {{"unit", "CommandsTestNone"}, {"levels", "2"}}),
              testing::AllOf(HasSubstr("no trace handle CommandsTestNone,"),
                             HasSubstr("CommandsTest, CommandsTestToo")));
  EXPECT_FALSE(result("trace/list").contains("CommandsTestNone"));
  EXPECT_EQ(0u, Lumo::Platform::getDebugHandler("CommandsTestNone", false)->levelMask());
}

TEST_F(Commands, TraceRefusesBadLevels) {
  EXPECT_THAT(error("trace/set", {{"unit", "Snmp"}, {"levels", "99"}}), HasSubstr("99"));
  EXPECT_THAT(error("trace/set", {{"unit", "Snmp"}}), HasSubstr("\"levels\" is missing"));
}

TEST_F(Commands, RereadTellsItsFailures) {
  EXPECT_EQ(Json::object(), result("reread"));
  *rereadOutcome_ = {"one went wrong", "two as well"};
  EXPECT_EQ("one went wrong; two as well", error("reread"));
}

TEST_F(Commands, RereadAnswersWhenAllIsRead) {
  *rereadOutcome_ = std::nullopt;
  auto const answer = commands_.answer(R"({"command": "reread"})");
  std::string out;
  for (int looks = 0; looks != 3; ++looks)
    EXPECT_TRUE(answer(out));
  EXPECT_EQ("", out);
  *rereadOutcome_ = {"one went wrong"};
  EXPECT_FALSE(answer(out));
  EXPECT_EQ("one went wrong", Json::parse(out).at("error"));
}

TEST_F(Commands, StartTheMachinesAnew) {
  EXPECT_EQ(Json::object(), result("restart-machines"));
  EXPECT_EQ(1, restarts_);
}

TEST_F(Commands, StatusAndTablesAreHandedOn) {
  EXPECT_EQ(Json({{"ready", true}}), result("status"));
  EXPECT_EQ(Json::object(), result("tables/show"));
  auto const tasks = result("tasks/show");
  ASSERT_EQ(1u, tasks.size());
  EXPECT_EQ("patch", tasks[0].at("name"));
}

} // namespace
