// Random patches against the JSON library's own idea of a patch.
#include "statedb/Schema.h"
#include "statedb/StateDocument.h"
#include "tests/statedb/Recorder.h"
#include <algorithm>
#include <array>
#include <cctype>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

namespace {

using nlohmann::json;
using Pointer = json::json_pointer;

// Few ids, names and values, so that operations meet each other.
std::string anyId() {
  return *rc::gen::element<std::string>("0", "1", "18446744073709551615");
}
std::string anyProfile() {
  return *rc::gen::element<std::string>("a", "a~1b", "~0");
}
json anyStatus() {
  if (*rc::gen::weightedElement<bool>({{1, true}, {5, false}}))
    return nullptr;
  return {{"srcAddr", *rc::gen::element<std::string>("", "192.0.2.1", "2001:db8::1")},
          {"dstAddr", *rc::gen::element<std::string>("", "192.0.2.2")},
          {"mode", *rc::gen::element<std::string>("gre", "direct")},
          {"hopLimit", *rc::gen::inRange(0, 256)},
          {"tos", *rc::gen::inRange(0, 66)}, // the last two are too many
          {"ipsec", *rc::gen::arbitrary<bool>()}};
}
json anyInfo() {
  auto const name = *rc::gen::element<std::string>("", "a", "b");
  return name.empty() ? json() : json({{"profileName", name}});
}
json anyState() {
  auto const state = *rc::gen::element(0, 4, 200);
  return state == 0   ? json()
         : state == 4 ? json({{"connState", "up"}})
                      : json({{"connState", state}});
}
json anyMap() {
  if (*rc::gen::weightedElement<bool>({{1, true}, {5, false}}))
    return nullptr;
  auto records = json::object();
  for (auto count = *rc::gen::inRange(0, 3); count != 0; --count)
    records[anyId()] = anyState();
  return {{"appliedIntfId", records}};
}

struct Target {
  std::string path;
  json value; ///< fits there, mostly
};
Target anyTarget() {
  auto const status = "/tunnelIntfStatusDir/intfStatus/" + anyId();
  auto const profile = "/ikeStatus/appliedProfiles/" + anyProfile();
  auto const applied = profile + "/appliedIntfId/" + anyId();
  switch (*rc::gen::weightedElement<int>(
      {{3, 0}, {2, 1}, {2, 2}, {2, 3}, {2, 4}, {3, 5}, {2, 6}, {2, 7}, {2, 8}, {1, 9}})) {
  case 0:
    return {status, anyStatus()};
  case 1:
    return {status + "/tos", *rc::gen::inRange(0, 66)};
  case 2:
    return {status + "/mode",
            *rc::gen::weightedElement<std::string>({{9, "gre"}, {9, "vti"}, {1, "no such mode"}})};
  case 3:
    return {"/ifMib/ifIndexByIntfId/" + anyId(), *rc::gen::inRange(0, 4)};
  case 4:
    return {"/ikeStatus/ipsecTunnelInfo/" + anyId(), anyInfo()};
  case 5:
    return {profile, anyMap()};
  case 6:
    return {applied, anyState()};
  case 7:
    return {applied + "/connState", *rc::gen::element<std::string>("up", "down")};
  case 8:
    return {"/ikeStatus/ipsecTunnelInfo/" + anyId() + "/profileName", "c"};
  default:
    return {*rc::gen::element<std::string>("", "/ifMib", "/ikeStatus/appliedProfiles",
                                           "/tunnelIntfStatusDir/intfStatus",
                                           "/ifMib/ifIndexByIntfId/x"),
            json::object()};
  }
}

bool isFixed(std::string const & path) {
  auto const depth = std::count(path.begin(), path.end(), '/');
  return depth < 3 || (depth == 4 && path.ends_with("/appliedIntfId"));
}

bool isMember(std::string const & path) {
  return std::ranges::any_of(std::array{"/tos", "/mode", "/profileName", "/connState"},
                             [&](auto * member) { return path.ends_with(member); });
}

/// Mostly puts, since whatever else needs something to be there.
json anyOperation(json const & now) {
  auto target = anyTarget();
  auto const op = *rc::gen::weightedElement<std::string>(
      {{6, "add"}, {3, "replace"}, {2, "remove"}, {2, "move"}, {2, "copy"}, {1, "test"}});
  json operation{{"op", op}, {"path", target.path}, {"value", target.value}};
  if (op == "move" || op == "copy")
    operation["from"] = (*rc::gen::suchThat(rc::gen::exec([] { return anyTarget().path; }),
                                            [](auto const & path) { return !isFixed(path); }));
  // A test that holds, unless something before it changes the place.
  if (op == "test" && now.contains(Pointer(target.path)))
    operation["value"] = now.at(Pointer(target.path));
  return operation;
}

bool has(json const & record, std::initializer_list<char const *> members) {
  return record.is_null() ||
         (record.is_object() && record.size() == members.size() &&
          std::ranges::all_of(members, [&](auto * member) { return record.contains(member); }));
}

// True if and only if every record has each of its members.
bool isComplete(json const & document) {
  auto const & ike = document.at("ikeStatus");
  auto const all = [](json const & records, auto const & holds) {
    return std::ranges::all_of(records, holds);
  };
  return all(document.at("tunnelIntfStatusDir").at("intfStatus"),
             [](json const & record) {
               return has(record, {"srcAddr", "dstAddr", "mode", "hopLimit", "tos", "ipsec"});
             }) &&
         all(ike.at("ipsecTunnelInfo"),
             [](json const & record) { return has(record, {"profileName"}); }) &&
         all(ike.at("appliedProfiles"), [&](json const & profile) {
           return has(profile, {"appliedIntfId"}) &&
                  (profile.is_null() || all(profile.at("appliedIntfId"), [](json const & record) {
                     return has(record, {"connState"});
                   }));
         });
}

bool isUsable(json const & document) {
  try {
    StateDb::StateDb database;
    StateDb::fill(database, document);
    return isComplete(document);
  } catch (StateDb::Unusable const &) {
    return false;
  }
}

// A mode or a state that came as the number of a name.
void name(json & record, char const * member, std::string (*nameOf)(unsigned)) {
  if (record.is_object() && record[member].is_number())
    if (auto const text = nameOf(record[member].get<unsigned>()); !std::isdigit(text[0]))
      record[member] = text;
}
json named(json document) {
  for (auto & status : document["tunnelIntfStatusDir"]["intfStatus"])
    name(status, "mode",
         [](unsigned number) { return valueToStrep(static_cast<Plexa::TunnelIntfMode>(number)); });
  for (auto & profile : document["ikeStatus"]["appliedProfiles"])
    if (profile.is_object())
      for (auto & state : profile["appliedIntfId"])
        name(state, "connState", [](unsigned number) {
          return valueToStrep(static_cast<Ipsec::Ike::ConnState>(number));
        });
  return document;
}

/// The document after one operation. Raises json::exception when the operation is not usable.
json expectedStep(json const & document, json const & operation) {
  auto const path = operation["path"].get<std::string>();
  auto const changes = operation["op"] != "test";
  auto const takes = operation["op"] == "remove" ? path
                     : operation["op"] == "move" ? operation["from"].get<std::string>()
                                                 : "";
  // Three things that are possible in JSON, but not here. The library would make an object of a
  // null that gets a member.
  if ((changes && (isFixed(path) || document.at(Pointer(path).parent_pointer()).is_null())) ||
      isMember(takes))
    throw json::other_error::create(501, "not here", &operation);
  return named(document.patch(json::array({operation})));
}

/// The document after the patch; nothing when some operation is not usable.
std::optional<json> expected(json document, json const & patch) {
  for (auto const & operation : patch) {
    try {
      document = expectedStep(document, operation);
    } catch (json::exception const &) {
      return std::nullopt;
    }
    if (!isUsable(document))
      return std::nullopt;
  }
  return document;
}

/// Operations of which most are usable one after the other.
json anyPatch(json document) {
  auto patch = json::array();
  for (auto count = *rc::gen::inRange(1, 6); count != 0; --count) {
    auto operation = anyOperation(document);
    auto after = expected(document, json::array({operation}));
    for (int attempt = 0; !after && attempt != 4; ++attempt) {
      operation = anyOperation(document);
      after = expected(document, json::array({operation}));
    }
    document = after.value_or(document);
    patch.push_back(operation);
  }
  return patch;
}

std::vector<void const *> identities(StateDb::StateDb const & database) {
  std::vector<void const *> objects;
  for (auto const & [key, status] : database.tunnelIntfStatusDir()->intfStatus())
    objects.push_back(status.get());
  for (auto const & [key, info] : database.ikeStatus()->ipsecTunnelInfo())
    objects.push_back(info.get());
  for (auto const & [key, map] : database.ikeStatus()->appliedProfiles()) {
    objects.push_back(map.get());
    if (map)
      for (auto const & [inner, state] : map->appliedIntfId())
        objects.push_back(state.get());
  }
  return objects;
}

/// A document made of a few random patches.
json anyDocument() {
  StateDb::StateDb database;
  StateDb::StateDocument document(database);
  for (auto count = *rc::gen::inRange(0, 20); count != 0; --count) {
    auto const target = anyTarget();
    try {
      document.apply(
          json::array({{{"op", "add"}, {"path", target.path}, {"value", target.value}}}));
    } catch (StateDb::DocumentError const &) {
    }
  }
  return document.read("");
}

RC_GTEST_PROP(PatchProperty, GivesWhatTheJsonLibraryGivesOrNothingAtAll, ()) {
  StateDb::StateDb database;
  StateDb::StateDocument document(database);
  StateDb::fill(database, anyDocument());
  Recorder recorder(database);
  std::size_t accepted = 0;
  std::size_t refused = 0;
  for (int patches = 6; patches != 0; --patches) {
    auto const before = document.read("");
    auto const patch = anyPatch(before);
    auto const objects = identities(database);
    auto const after = expected(before, patch);
    recorder.heard.clear();
    RC_LOG() << before << '\n' << patch << '\n';
    try {
      document.apply(patch);
      RC_ASSERT(after.has_value());
      ++accepted;
    } catch (StateDb::DocumentError const & error) {
      ++refused;
      RC_LOG() << error.what() << '\n';
      RC_ASSERT(!after.has_value());
      RC_ASSERT(recorder.heard.empty());
      RC_ASSERT((identities(database) == objects));
    }
    RC_ASSERT((document.read("") == after.value_or(before)));
  }
  RC_CLASSIFY(accepted > 2, "more than two patches accepted");
  RC_CLASSIFY(refused > 2, "more than two patches refused");
}

} // namespace
