// diff(), check() and publication().
#include "statedb/StateDocument.h"
#include "tests/statedb/Recorder.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using namespace nlohmann::literals;
using testing::ElementsAre;
using testing::IsEmpty;

// "op path" of each operation.
std::vector<std::string> steps(json const & patch) {
  std::vector<std::string> texts;
  for (auto const & operation : patch)
    texts.push_back(operation["op"].get<std::string>() + " " +
                    operation["path"].get<std::string>());
  return texts;
}
std::vector<std::string> diff(json const & from, json const & to) {
  return steps(StateDb::StateDocument::diff(from, to));
}
json statuses(json const & records) {
  return {{"tunnelIntfStatusDir", {{"intfStatus", records}}}};
}
json profiles(json const & records) {
  return {{"ikeStatus", {{"appliedProfiles", records}}}};
}

TEST(DocumentDiff, IsEmptyBetweenEqualDocuments) {
  auto const document = statuses({{"5", {{"mode", "gre"}}}});
  EXPECT_THAT(diff(document, document), IsEmpty());
  EXPECT_THAT(diff(json::object(), statuses(json::object())), IsEmpty());
  EXPECT_THAT(diff(statuses({{"5", {{"mode", "gre"}}}}),
                   statuses({{"5", {{"mode", 1}, {"tos", 0}, {"srcAddr", ""}}}})),
              IsEmpty());
}

TEST(DocumentDiff, TakesStatusesBeforeTheirIfIndexAndGivesThemAfterIt) {
  auto const from = R"({"tunnelIntfStatusDir": {"intfStatus": {"1": {}, "2": {}}},
                        "ifMib": {"ifIndexByIntfId": {"1": 1, "2": 2}},
                        "ikeStatus": {"ipsecTunnelInfo": {"1": {}, "2": {}},
                                      "appliedProfiles": {"p": {}}}})"_json;
  auto const to = R"({"tunnelIntfStatusDir": {"intfStatus": {"2": {"tos": 5}, "3": {}}},
                      "ifMib": {"ifIndexByIntfId": {"2": 22, "3": 3}},
                      "ikeStatus": {"ipsecTunnelInfo": {"2": {"profileName": "q"}},
                                    "appliedProfiles": {"q": {}}}})"_json;
  EXPECT_THAT(
      diff(from, to),
      ElementsAre(
          "remove /tunnelIntfStatusDir/intfStatus/1", "remove /ifMib/ifIndexByIntfId/1",
          "remove /ikeStatus/ipsecTunnelInfo/1", "remove /ikeStatus/appliedProfiles/p",
          "replace /ifMib/ifIndexByIntfId/2", "add /ifMib/ifIndexByIntfId/3",
          "replace /tunnelIntfStatusDir/intfStatus/2/tos", "add /tunnelIntfStatusDir/intfStatus/3",
          "replace /ikeStatus/ipsecTunnelInfo/2/profileName", "add /ikeStatus/appliedProfiles/q"));
}

TEST(DocumentDiff, ReplacesAMemberLeftOutByItsDefault) {
  EXPECT_EQ(
      StateDb::StateDocument::diff(statuses({{"5", {{"tos", 9}}}}),
                                   statuses({{"5", json::object()}})),
      R"([{"op": "replace", "path": "/tunnelIntfStatusDir/intfStatus/5/tos", "value": 0}])"_json);
}

TEST(DocumentDiff, ReplacesARecordThatIsOrBecomesNull) {
  EXPECT_THAT(diff(statuses({{"5", nullptr}, {"6", json::object()}, {"7", nullptr}}),
                   statuses({{"5", json::object()}, {"6", nullptr}, {"7", nullptr}})),
              ElementsAre("replace /tunnelIntfStatusDir/intfStatus/5",
                          "replace /tunnelIntfStatusDir/intfStatus/6"));
}

TEST(DocumentDiff, GoesIntoProfilesAndEscapesTheirNames) {
  EXPECT_THAT(
      diff(profiles(R"({"a/~": {"appliedIntfId": {"1": {}, "2": {}}}})"_json),
           profiles(R"({"a/~": {"appliedIntfId": {"2": {"connState": "up"}, "3": {}}}})"_json)),
      ElementsAre("remove /ikeStatus/appliedProfiles/a~1~0/appliedIntfId/1",
                  "replace /ikeStatus/appliedProfiles/a~1~0/appliedIntfId/2/connState",
                  "add /ikeStatus/appliedProfiles/a~1~0/appliedIntfId/3"));
}

TEST(DocumentDiff, RaisesForADocumentThatCannotBe) {
  EXPECT_THROW(diff(json::object(), statuses({{"x", nullptr}})), StateDb::DocumentError);
  EXPECT_THROW(diff(statuses({{"x", nullptr}}), json::object()), StateDb::DocumentError);
}

TEST(DocumentCheck, AcceptsADocumentWithContainersMissing) {
  for (auto const & document : {json::object(), R"({"ifMib": {}})"_json,
                                R"({"ikeStatus": {"appliedProfiles": {"a": {}, "b": null}}})"_json})
    EXPECT_NO_THROW(StateDb::StateDocument::check(document)) << document;
}

TEST(DocumentCheck, NamesThePlaceThatIsWrong) {
  auto const error = [](json const & document) -> std::string {
    try {
      StateDb::StateDocument::check(document);
      return "";
    } catch (StateDb::DocumentError const & wrong) {
      return wrong.what();
    }
  };
  EXPECT_EQ(
      error(json::array()),
      "\"\": must be an object with some of tunnelIntfStatusDir, ifMib, ikeStatus, not an array");
  EXPECT_EQ(error({{"ifmib", json::object()}}),
            "/ifmib: there is no such entity; there are tunnelIntfStatusDir, ifMib, ikeStatus");
  EXPECT_EQ(error({{"ifMib", 5}}), "/ifMib: must be an object, not 5");
  EXPECT_EQ(error({{"ifMib", {{"ifIndex", json::object()}}}}),
            "/ifMib/ifIndex: there is no such member");
  EXPECT_EQ(error(statuses(nullptr)), "/tunnelIntfStatusDir/intfStatus: must be an object with a "
                                      "record for each key, not null");
  EXPECT_EQ(error(statuses({{"5", {{"ipsec", 1}}}})),
            "/tunnelIntfStatusDir/intfStatus/5/ipsec: must be true or false, not 1");
  EXPECT_EQ(error(profiles({{"", json::object()}})),
            "/ikeStatus/appliedProfiles/: a profile needs a name");
}

class Publication : public testing::Test {
protected:
  void put(json const & content) { document.apply(StateDb::StateDocument::diff(none, content)); }
  std::vector<std::string> publish(json const & before, json const & after) {
    auto const patch = document.publication(before, after);
    document.apply(patch);
    return steps(patch);
  }

  StateDb::StateDb database;
  StateDb::StateDocument document{database};
  json const none = json::object();
};

TEST_F(Publication, OfTheFirstDocumentAddsAllOfIt) {
  EXPECT_THAT(publish(none, R"({"ifMib": {"ifIndexByIntfId": {"5": 1}},
                                "tunnelIntfStatusDir": {"intfStatus": {"5": {}}}})"_json),
              ElementsAre("add /ifMib/ifIndexByIntfId/5", "add /tunnelIntfStatusDir/intfStatus/5"));
}

TEST_F(Publication, LeavesTheRecordsOfOthersAlone) {
  put(statuses({{"9", json::object()}}));
  EXPECT_THAT(publish(none, statuses({{"5", json::object()}})),
              ElementsAre("add /tunnelIntfStatusDir/intfStatus/5"));
  EXPECT_THAT(publish(statuses({{"5", json::object()}}), none),
              ElementsAre("remove /tunnelIntfStatusDir/intfStatus/5"));
  EXPECT_EQ(document.read("/tunnelIntfStatusDir/intfStatus").size(), 1u);
}

TEST_F(Publication, RestoresWhatOthersRemovedOrChanged) {
  auto const mine = statuses({{"5", {{"tos", 5}}}, {"6", {{"tos", 6}}}});
  put(mine);
  document.apply(R"([{"op": "remove", "path": "/tunnelIntfStatusDir/intfStatus/5"},
                     {"op": "replace", "path": "/tunnelIntfStatusDir/intfStatus/6/tos", "value": 0}
                    ])"_json);
  EXPECT_THAT(publish(mine, mine), ElementsAre("add /tunnelIntfStatusDir/intfStatus/5",
                                               "replace /tunnelIntfStatusDir/intfStatus/6/tos"));
  EXPECT_THAT(publish(mine, mine), IsEmpty());
}

TEST_F(Publication, DoesNotRemoveWhatIsGoneAlready) {
  EXPECT_THAT(publish(statuses({{"5", json::object()}}), none), IsEmpty());
  EXPECT_THAT(publish(profiles(R"({"a": {"appliedIntfId": {"5": {}}}})"_json), none), IsEmpty());
}

TEST_F(Publication, SharesAProfileButItsOwnRecords) {
  put(profiles(R"({"a": {"appliedIntfId": {"1": {}, "2": {"connState": "up"}, "3": {}}}})"_json));
  EXPECT_THAT(publish(profiles(R"({"a": {"appliedIntfId": {"1": {}, "2": {}}}})"_json),
                      profiles(R"({"a": {"appliedIntfId": {"2": {"connState": "down"}}}})"_json)),
              ElementsAre("remove /ikeStatus/appliedProfiles/a/appliedIntfId/1",
                          "replace /ikeStatus/appliedProfiles/a/appliedIntfId/2/connState"));
}

TEST_F(Publication, PutsARecordWhereSomebodyPutNull) {
  put(statuses({{"5", nullptr}}));
  put(profiles({{"a", nullptr}}));
  auto after = statuses({{"5", {{"tos", 5}}}});
  after.update(profiles(R"({"a": {"appliedIntfId": {"5": {}}}})"_json));
  EXPECT_THAT(publish(none, after), ElementsAre("replace /tunnelIntfStatusDir/intfStatus/5",
                                                "replace /ikeStatus/appliedProfiles/a"));
  EXPECT_EQ(document.read("/tunnelIntfStatusDir/intfStatus/5/tos"), 5);
}

} // namespace
