// The inputs as one document: read in part and whole, and patched.
#include "statedb/StateDocument.h"
#include "platform/Lumo.h"
#include "tests/statedb/Recorder.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using namespace nlohmann::literals;
using testing::ElementsAre;
using testing::IsEmpty;

std::string const statuses = "/tunnelIntfStatusDir/intfStatus/";
std::string const indexes = "/ifMib/ifIndexByIntfId/";
std::string const infos = "/ikeStatus/ipsecTunnelInfo/";
std::string const profiles = "/ikeStatus/appliedProfiles/";

json const gre = {{"srcAddr", "192.0.2.1"},
                  {"dstAddr", "198.51.100.1"},
                  {"mode", "gre"},
                  {"hopLimit", 64},
                  {"tos", 46},
                  {"ipsec", true}};

json add(std::string const & path, json const & value) {
  return {{"op", "add"}, {"path", path}, {"value", value}};
}
json replace(std::string const & path, json const & value) {
  return {{"op", "replace"}, {"path", path}, {"value", value}};
}
json remove(std::string const & path) {
  return {{"op", "remove"}, {"path", path}};
}
json test(std::string const & path, json const & value) {
  return {{"op", "test"}, {"path", path}, {"value", value}};
}

class StateDocument : public testing::Test {
protected:
  void apply(std::initializer_list<json> operations) {
    auto patch = json::array();
    for (auto const & operation : operations)
      patch.push_back(operation);
    document.apply(patch);
  }
  json read(std::string const & pointer) const { return document.read(pointer); }
  Zel::Ptr<Interface::TunnelIntfStatus> status(std::uint64_t id) const {
    auto const * found = database.tunnelIntfStatusDir()->intfStatus().find(Plexa::IntfId(id));
    return found ? *found : nullptr;
  }
  Zel::Ptr<Ipsec::Ike::IpsecProfileConnectionMap> profile(std::string const & name) const {
    auto const * found = database.ikeStatus()->appliedProfiles().find(name);
    return found ? *found : nullptr;
  }

  StateDb::StateDb database;
  StateDb::StateDocument document{database};
  Recorder recorder{database};
};

TEST_F(StateDocument, ShowsEveryContainerOfAnEmptyDatabase) {
  EXPECT_EQ(read(""), R"({"tunnelIntfStatusDir": {"intfStatus": {}},
                          "ifMib": {"ifIndexByIntfId": {}},
                          "ikeStatus": {"ipsecTunnelInfo": {}, "appliedProfiles": {}}})"_json);
}

TEST_F(StateDocument, ShowsWhatThePublishersPutIntoTheRecords) {
  auto const one = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(5));
  one->srcAddrIs(*Plexa::IpGenAddr::fromString("2001:db8::1"));
  one->modeIs(Plexa::TunnelIntfMode::vti);
  one->tosIs(63);
  database.tunnelIntfStatusDir()->intfStatusIs(Plexa::IntfId(5), one);
  database.tunnelIntfStatusDir()->intfStatusIs(Plexa::IntfId(6), nullptr);
  database.ifMib()->ifIndexByIntfIdIs(Plexa::IntfId(18446744073709551615u), 4000000000u);
  EXPECT_EQ(read("/tunnelIntfStatusDir"), R"({"intfStatus": {
      "5": {"srcAddr": "2001:db8::1", "dstAddr": "", "mode": "vti", "hopLimit": 0, "tos": 63,
            "ipsec": false},
      "6": null}})"_json);
  EXPECT_EQ(read(indexes + "18446744073709551615"), 4000000000u);
}

TEST_F(StateDocument, ReadsAnyPart) {
  apply({add(statuses + "5", gre), add(indexes + "5", 17), add(infos + "5", {{"profileName", "a"}}),
         add(profiles + "a", R"({"appliedIntfId": {"5": {"connState": "up"}}})"_json)});
  EXPECT_EQ(read("/tunnelIntfStatusDir/intfStatus"), json({{"5", gre}}));
  EXPECT_EQ(read(statuses + "5"), gre);
  EXPECT_EQ(read(statuses + "5/tos"), 46);
  EXPECT_EQ(read("/ifMib"), R"({"ifIndexByIntfId": {"5": 17}})"_json);
  EXPECT_EQ(read(indexes + "5"), 17);
  EXPECT_EQ(read(infos + "5/profileName"), "a");
  EXPECT_EQ(read(profiles + "a/appliedIntfId"), R"({"5": {"connState": "up"}})"_json);
  EXPECT_EQ(read(profiles + "a/appliedIntfId/5/connState"), "up");
}

TEST_F(StateDocument, RaisesForAPointerToNothing) {
  apply({add(statuses + "6", nullptr)});
  for (auto const & pointer :
       {statuses + "5", statuses + "5/tos", statuses + "6/tos", indexes + "5", profiles + "a",
        profiles + "a/appliedIntfId", profiles + "a/appliedIntfId/5"}) {
    try {
      read(pointer);
      ADD_FAILURE() << pointer;
    } catch (StateDb::DocumentError const & error) {
      EXPECT_EQ(error.what(), pointer + ": there is nothing at this place");
      EXPECT_EQ(error.operation(), StateDb::DocumentError::npos);
      EXPECT_EQ(error.pointer(), pointer);
    }
  }
}

TEST_F(StateDocument, RaisesForAPointerThatCannotBe) {
  for (auto const & pointer :
       {std::string("x"), std::string("/"), std::string("/ifMib/"), std::string("/ifMib~2"),
        std::string("/ifMib~"), indexes, indexes + "05", indexes + "+5", indexes + "-1",
        indexes + "18446744073709551616", indexes + "5/x", statuses + "5/", statuses + "5/colour",
        statuses + "5/tos/x", profiles, profiles + "a/connState"})
    EXPECT_THROW(read(pointer), StateDb::DocumentError) << pointer;
}

TEST_F(StateDocument, PutsANewRecordWithDefaultsForWhatIsLeftOut) {
  apply({add(statuses + "5", {{"mode", "gre"}})});
  EXPECT_EQ(status(5)->intfId(), Plexa::IntfId(5));
  EXPECT_EQ(read(statuses + "5"),
            R"({"srcAddr": "", "dstAddr": "", "mode": "gre", "hopLimit": 0, "tos": 0,
                "ipsec": false})"_json);
  EXPECT_THAT(recorder.heard, ElementsAre("intfStatus 5"));
}

TEST_F(StateDocument, TakesModesAndStatesAsNamesOrNumbers) {
  apply({add(statuses + "1", {{"mode", 1}}), add(statuses + "2", {{"mode", "sitSpecial"}}),
         add(statuses + "3", {{"mode", 255}}),
         add(profiles + "a", R"({"appliedIntfId": {"1": {"connState": 4},
                                                   "2": {"connState": 8}}})"_json)});
  EXPECT_EQ(read(statuses + "1/mode"), "gre");
  EXPECT_EQ(read(statuses + "2/mode"), "sitSpecial");
  EXPECT_EQ(read(statuses + "3/mode"), 255);
  EXPECT_EQ(read(profiles + "a/appliedIntfId/1/connState"), "up");
  EXPECT_EQ(read(profiles + "a/appliedIntfId/2/connState"), 8);
}

TEST_F(StateDocument, ShowsAddressesInTheirShortestForm) {
  apply({add(statuses + "1", {{"srcAddr", "2001:0DB8:0:0::1"}})});
  EXPECT_EQ(read(statuses + "1/srcAddr"), "2001:db8::1");
}

TEST_F(StateDocument, TakesTheEndsOfEveryRange) {
  apply({add(statuses + "0", {{"hopLimit", 255}, {"tos", 63}, {"mode", 0}}),
         add(statuses + "18446744073709551615", {{"hopLimit", 0}, {"tos", 0}}),
         add(indexes + "0", 1), add(indexes + "1", 2147483647)});
  EXPECT_EQ(status(0)->hopLimit(), 255);
  EXPECT_EQ(status(0)->tos(), 63);
  EXPECT_EQ(read(indexes + "1"), 2147483647);
  EXPECT_TRUE(status(18446744073709551615u));
}

TEST_F(StateDocument, PutsANewObjectWhenARecordIsReplacedOrAddedAgain) {
  apply({add(statuses + "5", gre)});
  auto const first = status(5);
  apply({replace(statuses + "5", gre)});
  auto const second = status(5);
  EXPECT_NE(second, first);
  apply({add(statuses + "5", gre)});
  EXPECT_NE(status(5), second);
  EXPECT_THAT(recorder.heard, ElementsAre("intfStatus 5", "intfStatus 5", "intfStatus 5"));
}

TEST_F(StateDocument, ChangesAMemberOfTheObjectThatIsThere) {
  apply({add(statuses + "5", gre)});
  auto const object = status(5);
  recorder.listenTo(*object);
  recorder.heard.clear();
  apply({replace(statuses + "5/tos", 10), add(statuses + "5/mode", "direct"),
         replace(statuses + "5/ipsec", false), replace(statuses + "5/hopLimit", 64),
         replace(statuses + "5/dstAddr", "203.0.113.9")});
  EXPECT_EQ(status(5), object);
  EXPECT_EQ(object->tos(), 10);
  EXPECT_EQ(object->dstAddr().stringValue(), "203.0.113.9");
  // In the order of the patch; hopLimit had that value already.
  EXPECT_THAT(recorder.heard, ElementsAre("tos", "mode", "ipsec", "dstAddr"));
}

TEST_F(StateDocument, PutsNullRecords) {
  apply({add(statuses + "5", nullptr), add(infos + "5", nullptr), add(profiles + "a", nullptr),
         add(profiles + "b", R"({"appliedIntfId": {"5": null}})"_json)});
  EXPECT_EQ(read(statuses + "5"), nullptr);
  EXPECT_EQ(read(infos + "5"), nullptr);
  EXPECT_EQ(read("/ikeStatus/appliedProfiles"),
            R"({"a": null, "b": {"appliedIntfId": {"5": null}}})"_json);
  ASSERT_NE(database.tunnelIntfStatusDir()->intfStatus().find(Plexa::IntfId(5)), nullptr);
  EXPECT_FALSE(status(5));
  apply({replace(statuses + "5", gre), remove(infos + "5")});
  EXPECT_EQ(read(statuses + "5"), gre);
  EXPECT_TRUE(database.ikeStatus()->ipsecTunnelInfo().empty());
}

TEST_F(StateDocument, RemovesRecordsOfEveryCollection) {
  apply({add(statuses + "5", gre), add(indexes + "5", 17), add(infos + "5", {{"profileName", "a"}}),
         add(profiles + "a", R"({"appliedIntfId": {"5": {}, "6": {}}})"_json)});
  recorder.heard.clear();
  apply({remove(statuses + "5"), remove(indexes + "5"), remove(infos + "5"),
         remove(profiles + "a/appliedIntfId/5")});
  EXPECT_EQ(read(profiles + "a"), R"({"appliedIntfId": {"6": {"connState": "none"}}})"_json);
  apply({remove(profiles + "a")});
  EXPECT_THAT(recorder.heard, ElementsAre("intfStatus 5", "ifIndexByIntfId 5", "ipsecTunnelInfo 5",
                                          "appliedProfiles a"));
  EXPECT_EQ(read(""), StateDb::StateDocument(*std::make_unique<StateDb::StateDb>()).read(""));
}

TEST_F(StateDocument, ReplacesAnIfIndexInPlace) {
  apply({add(indexes + "5", 17)});
  apply({replace(indexes + "5", 18), replace(indexes + "5", 18)});
  EXPECT_EQ(*database.ifMib()->ifIndexByIntfId().find(Plexa::IntfId(5)), 18u);
  EXPECT_THAT(recorder.heard, ElementsAre("ifIndexByIntfId 5", "ifIndexByIntfId 5"));
}

TEST_F(StateDocument, BuildsAProfileCompletelyBeforeItIsInserted) {
  json seen;
  recorder.then = [&](auto const &) { seen = read(profiles + "a"); };
  auto const content = R"({"appliedIntfId": {"5": {"connState": "up"}, "6": null}})"_json;
  apply({add(profiles + "a", content)});
  EXPECT_THAT(recorder.heard, ElementsAre("appliedProfiles a"));
  EXPECT_EQ(seen, content);
}

TEST_F(StateDocument, ChangesRecordsWithinAProfileThatIsThere) {
  apply({add(profiles + "a", json::object())});
  auto const map = profile("a");
  recorder.listenTo(*map);
  recorder.heard.clear();
  apply({add(profiles + "a/appliedIntfId/5", {{"connState", "down"}}),
         replace(profiles + "a/appliedIntfId/5/connState", "up")});
  EXPECT_EQ(profile("a"), map);
  EXPECT_THAT(recorder.heard, ElementsAre("appliedIntfId 5"));
  EXPECT_EQ(read(profiles + "a/appliedIntfId/5/connState"), "up");
}

TEST_F(StateDocument, ReachesProfilesOfAnyNameByEscapes) {
  apply({add(profiles + "site~1a~0b~01", json::object()), add(profiles + " ", json::object()),
         add(profiles + "site~1a~0b~01/appliedIntfId/5", {{"connState", "up"}})});
  ASSERT_TRUE(profile("site/a~b~1"));
  EXPECT_TRUE(profile(" "));
  EXPECT_EQ(read("/ikeStatus/appliedProfiles"),
            R"({"site/a~b~1": {"appliedIntfId": {"5": {"connState": "up"}}},
                " ": {"appliedIntfId": {}}})"_json);
  apply({remove(profiles + "site~1a~0b~01")});
  EXPECT_FALSE(profile("site/a~b~1"));
}

TEST_F(StateDocument, TellsEachChangeBeforeItMakesTheNext) {
  std::vector<std::string> states;
  recorder.then = [&](auto const &) { states.push_back(read("/ifMib/ifIndexByIntfId").dump()); };
  apply({add(indexes + "1", 7), add(indexes + "2", 8), remove(indexes + "1"),
         replace(indexes + "2", 9)});
  EXPECT_THAT(states, ElementsAre(R"({"1":7})", R"({"1":7,"2":8})", R"({"2":8})", R"({"2":9})"));
}

TEST_F(StateDocument, PutsARecordAsTheOperationSaysThoughALaterOneChangesIt) {
  std::vector<json> seen;
  recorder.then = [&](std::string const & heard) {
    seen.push_back(read(statuses + "5/tos"));
    if (heard == "intfStatus 5")
      recorder.listenTo(*status(5));
  };
  apply({add(statuses + "5", gre), replace(statuses + "5/tos", 1), test(statuses + "5/tos", 1),
         replace(statuses + "5/tos", 2)});
  EXPECT_THAT(recorder.heard, ElementsAre("intfStatus 5", "tos", "tos"));
  EXPECT_THAT(seen, ElementsAre(46, 1, 2));
}

TEST_F(StateDocument, ChecksEachOperationOnTopOfThoseBefore) {
  apply({add(statuses + "5", gre), test(statuses + "5", gre), replace(statuses + "5/tos", 1),
         replace(statuses + "5/tos", 2), test(statuses + "5/tos", 2),
         test("/tunnelIntfStatusDir/intfStatus/5/mode", "gre"), remove(statuses + "5"),
         test("", read("")), add(statuses + "5", {{"tos", 3}})});
  EXPECT_EQ(status(5)->tos(), 3);
}

TEST_F(StateDocument, ShowsTheTestOfAContainerWhatThePatchHasPlanned) {
  apply({add(indexes + "1", 7), add(indexes + "2", 8),
         add(profiles + "a", R"({"appliedIntfId": {"1": {}}})"_json)});
  apply({replace(indexes + "1", 9), remove(indexes + "2"), add(indexes + "3", 3),
         test("/ifMib", R"({"ifIndexByIntfId": {"1": 9, "3": 3}})"_json),
         add(profiles + "a/appliedIntfId/2", {{"connState", "up"}}),
         remove(profiles + "a/appliedIntfId/1"),
         test("/ikeStatus/appliedProfiles",
              R"({"a": {"appliedIntfId": {"2": {"connState": "up"}}}})"_json),
         replace(profiles + "a", json::object()),
         test(profiles + "a", R"({"appliedIntfId": {}})"_json),
         add(profiles + "a/appliedIntfId/3", json::object()),
         test(profiles + "a/appliedIntfId", R"({"3": {"connState": "none"}})"_json),
         remove(profiles + "a"), test("/ikeStatus/appliedProfiles", json::object())});
  EXPECT_EQ(read("/ikeStatus/appliedProfiles"), json::object());
}

TEST_F(StateDocument, MovesAndCopiesRecordsAndCopiesMembers) {
  apply({add(statuses + "5", gre), add(indexes + "5", 17),
         add(profiles + "a", R"({"appliedIntfId": {"5": {"connState": "up"}}})"_json)});
  auto const object = status(5);
  apply({{{"op", "move"}, {"from", indexes + "5"}, {"path", indexes + "6"}},
         {{"op", "copy"}, {"from", statuses + "5"}, {"path", statuses + "6"}},
         {{"op", "copy"}, {"from", statuses + "6/srcAddr"}, {"path", statuses + "6/dstAddr"}},
         {{"op", "copy"}, {"from", profiles + "a"}, {"path", profiles + "b"}},
         {{"op", "move"},
          {"from", profiles + "a/appliedIntfId/5"},
          {"path", profiles + "b/appliedIntfId/6"}}});
  EXPECT_EQ(read("/ifMib/ifIndexByIntfId"), R"({"6": 17})"_json);
  EXPECT_EQ(status(5), object);
  EXPECT_NE(status(6), object);
  EXPECT_EQ(status(6)->intfId(), Plexa::IntfId(6));
  EXPECT_EQ(read(statuses + "6/dstAddr"), "192.0.2.1");
  EXPECT_EQ(read("/ikeStatus/appliedProfiles"), R"({"a": {"appliedIntfId": {}},
      "b": {"appliedIntfId": {"5": {"connState": "up"}, "6": {"connState": "up"}}}})"_json);
}

TEST_F(StateDocument, DoesNothingForAnEmptyPatch) {
  document.apply(json::array());
  EXPECT_THAT(recorder.heard, IsEmpty());
}

TEST_F(StateDocument, GoesOnWhenANotifieeRaisesAndReportsIt) {
  std::vector<std::string> reports;
  StateDb::StateDocument reporting(
      database, [&](std::string_view pointer, std::exception const & exception) {
        reports.push_back(std::string(pointer) + ": " + exception.what());
      });
  recorder.then = [](std::string const & heard) {
    if (heard == "ifIndexByIntfId 1")
      throw std::runtime_error("no room");
  };
  auto const before = Lumo::counter("statedb-notifiee-exceptions");
  reporting.apply({add(indexes + "1", 7), add(indexes + "2", 8)});
  EXPECT_EQ(read("/ifMib/ifIndexByIntfId"), R"({"1": 7, "2": 8})"_json);
  EXPECT_THAT(reports, ElementsAre(indexes + "1: no room"));
  EXPECT_EQ(Lumo::counter("statedb-notifiee-exceptions"), before + 1);
}

TEST_F(StateDocument, CountsANotifieesExceptionAlsoWhenNobodyWantsTheReport) {
  recorder.then = [](auto const &) { throw std::runtime_error("no room"); };
  auto const before = Lumo::counter("statedb-notifiee-exceptions");
  apply({add(indexes + "1", 7), add(indexes + "2", 8)});
  EXPECT_EQ(Lumo::counter("statedb-notifiee-exceptions"), before + 2);
}

TEST_F(StateDocument, LeavesOutAChangeWhoseRecordANotifieeHasRemoved) {
  std::vector<std::string> reports;
  StateDb::StateDocument reporting(
      database, [&](std::string_view pointer, std::exception const & exception) {
        reports.push_back(std::string(pointer) + ": " + exception.what());
      });
  recorder.then = [&](std::string const & heard) {
    if (heard == "ifIndexByIntfId 1")
      database.tunnelIntfStatusDir()->intfStatusDel(Plexa::IntfId(5));
  };
  reporting.apply({add(statuses + "5", gre), add(indexes + "1", 7), replace(statuses + "5/tos", 1),
                   add(indexes + "2", 8)});
  EXPECT_THAT(reports,
              ElementsAre(statuses + "5/tos: was removed while the patch was carried out"));
  EXPECT_EQ(read("/ifMib/ifIndexByIntfId"), R"({"1": 7, "2": 8})"_json);
}

TEST_F(StateDocument, CanBePatchedFromInsideANotification) {
  recorder.then = [&](std::string const & heard) {
    if (heard == "intfStatus 5")
      apply({add(indexes + "5", 17)});
  };
  apply({add(statuses + "5", gre), add(statuses + "6", gre)});
  EXPECT_THAT(recorder.heard, ElementsAre("intfStatus 5", "ifIndexByIntfId 5", "intfStatus 6"));
}

} // namespace
