// Patches that are refused: with which words, and that nothing has happened.
#include "statedb/StateDocument.h"
#include "tests/statedb/Recorder.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

struct Refusal {
  std::string patch;
  std::string error;
};
void PrintTo(Refusal const & refusal, std::ostream * out) {
  *out << refusal.patch;
}

class RefusedPatch : public testing::TestWithParam<Refusal> {};

TEST_P(RefusedPatch, ChangesNothingAndNamesOperationAndPlace) {
  StateDb::StateDb database;
  StateDb::StateDocument document(database);
  document.apply(R"([
    {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/5", "value": {"tos": 1}},
    {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/6", "value": null},
    {"op": "add", "path": "/ifMib/ifIndexByIntfId/5", "value": 17},
    {"op": "add", "path": "/ikeStatus/ipsecTunnelInfo/5", "value": {"profileName": "a"}},
    {"op": "add", "path": "/ikeStatus/appliedProfiles/a",
     "value": {"appliedIntfId": {"5": {"connState": "up"}}}},
    {"op": "add", "path": "/ikeStatus/appliedProfiles/null", "value": null}
  ])"_json);
  auto const before = document.read("");
  auto const object = *database.tunnelIntfStatusDir()->intfStatus().find(Plexa::IntfId(5));
  Recorder recorder(database);
  recorder.listenTo(*object);

  // Two operations that would do, the unusable one between them.
  auto patch = R"([{"op": "replace", "path": "/ifMib/ifIndexByIntfId/5", "value": 18},
                   {"op": "replace", "path": "/tunnelIntfStatusDir/intfStatus/5/tos", "value": 2}]
                  )"_json;
  patch.insert(patch.begin() + 1, json::parse(GetParam().patch));
  try {
    document.apply(patch);
    FAIL() << "was accepted: " << document.read("");
  } catch (StateDb::DocumentError const & error) {
    EXPECT_EQ(error.what(), GetParam().error);
    EXPECT_EQ(error.operation(), 1u);
  }
  EXPECT_EQ(document.read(""), before);
  EXPECT_EQ(*database.tunnelIntfStatusDir()->intfStatus().find(Plexa::IntfId(5)), object);
  EXPECT_THAT(recorder.heard, testing::IsEmpty());
}

// How an error shows a pointer.
std::string shown(std::string const & pointer) {
  return pointer.empty() ? "\"\"" : pointer;
}
Refusal put(std::string const & path, std::string const & value, std::string const & reason,
            std::string const & below = "") {
  return {R"({"op": "add", "path": ")" + path + R"(", "value": )" + value + "}",
          "operation 1 (" + shown(path + below) + "): " + reason};
}
Refusal op(std::string const & op, std::string const & path, std::string const & reason) {
  return {R"({"op": ")" + op + R"(", "path": ")" + path + R"(", "value": 1})",
          "operation 1 (" + shown(path) + "): " + reason};
}

std::string const status = "/tunnelIntfStatusDir/intfStatus/5";
std::string const index_ = "/ifMib/ifIndexByIntfId/5";
std::string const profile = "/ikeStatus/appliedProfiles/a";
std::string const fixedPart = "is a fixed part of the document; patch the records below it";
std::string const nothing = "there is nothing at this place";
std::string const noId = "is no interface id: decimal, 0 to 18446744073709551615, without sign or "
                         "leading zeros";
std::string const modes = "must be a number from 0 to 255 or one of unknown, gre, direct, vti, "
                          "xfrm, erspan, vxlan, geneve, wireguard, sitSpecial, not ";
std::string const states = "must be a number from 0 to 255 or one of none, down, connecting, "
                           "ikeUp, up, unknown, rekeying, closing, not ";
std::string const dscp = "must be the six bits of the DSCP, 0 to 63 (an eight-bit ToS divided by "
                         "4), not ";
std::string const address = "must be an IPv4 or IPv6 address, or \"\" for none, not ";

INSTANTIATE_TEST_SUITE_P(
    Values, RefusedPatch,
    testing::Values(
        put(index_, "0", "must be an ifIndex, 1 to 2147483647, not 0"),
        put(index_, "2147483648", "must be an ifIndex, 1 to 2147483647, not 2147483648"),
        put(index_, "-1", "must be an ifIndex, 1 to 2147483647, not -1"),
        put(index_, "5.0", "must be an ifIndex, 1 to 2147483647, not 5.0"),
        put(index_, "true", "must be an ifIndex, 1 to 2147483647, not true"),
        put(index_, "null", "must be an ifIndex, 1 to 2147483647, not null"),
        put(index_, "\"5\"", "must be an ifIndex, 1 to 2147483647, not \"5\""),
        put(index_, "[[[1]]]", "must be an ifIndex, 1 to 2147483647, not an array"),
        put(status, "5", "must be an object with the record's members, or null, not 5"),
        put(status, R"({"tos": 64})", dscp + "64", "/tos"),
        put(status, R"({"colour": 1})", "there is no such member", "/colour"),
        put(status, R"({"a/b~c": 1})", "there is no such member", "/a~1b~0c"),
        put(status + "/tos", "64", dscp + "64"), put(status + "/tos", "-1", dscp + "-1"),
        put(status + "/hopLimit", "256", "must be a hop limit, 0 to 255, not 256"),
        put(status + "/hopLimit", "null", "must be a hop limit, 0 to 255, not null"),
        put(status + "/ipsec", "1", "must be true or false, not 1"),
        put(status + "/mode", "256", modes + "256"),
        put(status + "/mode", "\"Gre\"", modes + "\"Gre\""),
        put(status + "/srcAddr", "\"10.0.0\"", address + "\"10.0.0\""),
        put(status + "/srcAddr", "\"10.0.0.1\\u0000\"", address + "\"10.0.0.1\\u0000\""),
        put(status + "/dstAddr", "null", address + "null"),
        put(status + "/dstAddr", "\"" + std::string(80, 'x') + "\"",
            address + "\"" + std::string(59, 'x') + "..."),
        put("/ikeStatus/ipsecTunnelInfo/5/profileName", "5", "must be a text, not 5"),
        put(profile, R"({"appliedIntfId": 5})",
            "must be an object with a record for each key, not 5", "/appliedIntfId"),
        put(profile, R"({"appliedIntfId": {"05": null}})", noId, "/appliedIntfId/05"),
        put(profile, R"({"appliedIntfId": {"5": {"connState": "UP"}}})", states + "\"UP\"",
            "/appliedIntfId/5/connState")));

INSTANTIATE_TEST_SUITE_P(
    Places, RefusedPatch,
    testing::Values(
        put("", "{}", fixedPart), put("/ifMib", "{}", fixedPart),
        put("/ifMib/ifIndexByIntfId", "{}", fixedPart),
        put(profile + "/appliedIntfId", "{}", fixedPart),
        op("remove", "/ikeStatus/appliedProfiles", fixedPart), op("replace", "", fixedPart),
        op("remove", profile + "/appliedIntfId", fixedPart),
        put("ifMib", "1", "a JSON pointer is empty or begins with \"/\""),
        put("/ifmib", "1",
            "there is no such entity; there are tunnelIntfStatusDir, ifMib, ikeStatus"),
        put("/ifMib/ifIndex/5", "1", "there is no such member"),
        put("/ifMib/ifIndexByIntfId/", "1", noId), put("/ifMib/ifIndexByIntfId/-", "1", noId),
        put("/ifMib/ifIndexByIntfId/07", "1", noId), put("/ifMib/ifIndexByIntfId/+7", "1", noId),
        put("/ifMib/ifIndexByIntfId/7 ", "1", noId),
        put("/ifMib/ifIndexByIntfId/18446744073709551616", "1", noId),
        put(index_ + "/x", "1", "nothing can be below a member or an ifIndex"),
        put(status + "/tos/0", "1", "nothing can be below a member or an ifIndex"),
        put(status + "/colour", "1", "there is no such member"),
        put("/ikeStatus/appliedProfiles/", "{}", "a profile needs a name"),
        put("/ikeStatus/appliedProfiles/a~b", "{}",
            "\"~\" must stand as ~0 and \"/\" as ~1 within a name"),
        put("/ikeStatus/appliedProfiles/a~", "{}",
            "\"~\" must stand as ~0 and \"/\" as ~1 within a name"),
        put("/ikeStatus/appliedProfiles/b/appliedIntfId/5", "{}",
            "there is no record that it could be put into; add that first"),
        put("/ikeStatus/appliedProfiles/null/appliedIntfId/5", "{}",
            "there is no record that it could be put into; add that first"),
        put("/tunnelIntfStatusDir/intfStatus/7/tos", "1",
            "there is no record that has this member; add the record first"),
        put("/tunnelIntfStatusDir/intfStatus/6/tos", "1",
            "there is no record that has this member; add the record first"),
        op("remove", status + "/tos",
           "a member cannot be removed; replace it, or remove its record"),
        op("remove", "/tunnelIntfStatusDir/intfStatus/7", nothing),
        op("replace", "/ifMib/ifIndexByIntfId/6", nothing),
        op("replace", "/tunnelIntfStatusDir/intfStatus/7/tos",
           "there is no record that has this member; add the record first"),
        op("remove", profile + "/appliedIntfId/6", nothing)));

INSTANTIATE_TEST_SUITE_P(
    Operations, RefusedPatch,
    testing::Values(
        Refusal{"5", "operation 1 (\"\"): an operation must be an object, not 5"},
        Refusal{R"({"path": "/ifMib"})",
                "operation 1 (\"\"): an operation needs a text as its \"op\""},
        Refusal{R"({"op": 5, "path": "/ifMib"})",
                "operation 1 (\"\"): an operation needs a text as its \"op\""},
        Refusal{R"({"op": "remove"})",
                "operation 1 (\"\"): an operation needs a text as its \"path\""},
        Refusal{R"({"op": "move", "path": "/ifMib/ifIndexByIntfId/5"})",
                "operation 1 (\"\"): an operation needs a text as its \"from\""},
        Refusal{R"({"op": "add", "path": "/ifMib/ifIndexByIntfId/5"})",
                "operation 1 (/ifMib/ifIndexByIntfId/5): the operation needs a \"value\""},
        Refusal{R"({"op": "test", "path": "/ifMib"})",
                "operation 1 (/ifMib): the operation needs a \"value\""},
        Refusal{R"({"op": "put", "path": "/ifMib/ifIndexByIntfId/5", "value": 1})",
                "operation 1 (/ifMib/ifIndexByIntfId/5): \"op\" must be add, remove, replace, "
                "move, copy or test, not \"put\""},
        op("test", index_, "the test failed: it is 18, not 1"),
        op("test", status, "the test failed: it is an object, not 1"),
        op("test", "/tunnelIntfStatusDir/intfStatus/7", nothing),
        Refusal{R"({"op": "test", "path": "/ifMib", "value": {}})",
                "operation 1 (/ifMib): the test failed: it has other contents"},
        Refusal{R"({"op": "copy", "from": "/ifMib/ifIndexByIntfId/6",
                    "path": "/ifMib/ifIndexByIntfId/7"})",
                "operation 1 (/ifMib/ifIndexByIntfId/6): there is nothing at this place"},
        Refusal{R"({"op": "copy", "from": "/ifMib", "path": "/tunnelIntfStatusDir/intfStatus/5"})",
                "operation 1 (/tunnelIntfStatusDir/intfStatus/5/ifIndexByIntfId): there is no such "
                "member"},
        Refusal{R"({"op": "move", "from": "/ikeStatus/appliedProfiles/a",
                    "path": "/ikeStatus/appliedProfiles/a/appliedIntfId/5"})",
                "operation 1 (/ikeStatus/appliedProfiles/a/appliedIntfId/5): a record cannot be "
                "moved into itself"},
        Refusal{R"({"op": "move", "from": "/tunnelIntfStatusDir/intfStatus/5/tos",
                    "path": "/tunnelIntfStatusDir/intfStatus/5/hopLimit"})",
                "operation 1 (/tunnelIntfStatusDir/intfStatus/5/tos): a member cannot be removed; "
                "replace it, or remove its record"}));

TEST(RefusedPatches, AreThoseThatAreNoArray) {
  StateDb::StateDb database;
  StateDb::StateDocument document(database);
  for (auto const * text : {"{}", "null", R"("[]")"}) {
    try {
      document.apply(json::parse(text));
      FAIL() << text;
    } catch (StateDb::DocumentError const & error) {
      EXPECT_EQ(error.operation(), StateDb::DocumentError::npos);
      EXPECT_THAT(error.what(),
                  testing::StartsWith("\"\": a patch must be an array of operations, not "));
    }
  }
}

TEST(RefusedPatches, SeeWhatEarlierOperationsTook) {
  StateDb::StateDb database;
  StateDb::StateDocument document(database);
  document.apply(R"([{"op": "add", "path": "/ikeStatus/appliedProfiles/a",
                      "value": {"appliedIntfId": {"5": {}}}}])"_json);
  auto const refused = [&](json const & patch) {
    EXPECT_THROW(document.apply(patch), StateDb::DocumentError) << patch;
  };
  auto const remove = R"({"op": "remove", "path": "/ikeStatus/appliedProfiles/a"})"_json;
  auto const removeInside =
      R"({"op": "remove", "path": "/ikeStatus/appliedProfiles/a/appliedIntfId/5"})"_json;
  auto const empty = R"({"op": "add", "path": "/ikeStatus/appliedProfiles/a", "value": {}})"_json;
  auto const null = R"({"op": "add", "path": "/ikeStatus/appliedProfiles/a", "value": null})"_json;
  refused({remove, remove});
  refused({remove, removeInside});
  refused({empty, removeInside});
  refused({null, removeInside});
  refused({removeInside, removeInside});
  refused({remove, empty, removeInside});
  EXPECT_NO_THROW(document.apply({removeInside, remove, empty, remove}));
}

} // namespace
