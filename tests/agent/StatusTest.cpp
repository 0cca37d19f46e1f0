// The status reads objects by their attributes' names alone, so a few objects of no plug-in at all
// stand for those of the plug-in.
#include "agent/Status.h"
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

/// An object of type Tag whose attributes the test gives as functions.
template <class Tag>
class Scripted final : public Zel::PtrInterface {
public:
  explicit Scripted(std::map<std::string, Zel::Value> values = {}) : values_(std::move(values)) {}
  Zel::Type const & type() const override { return Tag::type(); }
  static Zel::Value read(Zel::PtrInterface const & object, std::string const & name) {
    auto const & values = static_cast<Scripted const &>(object).values_;
    auto const found = values.find(name);
    return found == values.end() ? Zel::Value{} : found->second;
  }

private:
  std::map<std::string, Zel::Value> const values_;
};

template <class Tag, char const * Name>
constexpr Zel::Attribute readable() {
  return {Name, "test",
          [](Zel::PtrInterface const & object) { return Scripted<Tag>::read(object, Name); }};
}

constexpr char tunnelIntfSnmpAgent[] = "tunnelIntfSnmpAgent";
constexpr char firstSm[] = "firstSm";
constexpr char secondSm[] = "secondSm";
constexpr char tunnelMib[] = "tunnelMib";
constexpr char ready[] = "ready";
constexpr char idle[] = "idle";
constexpr char reconciling[] = "mibThingOutputReconciling";
constexpr char bookmark[] = "mibThingOutputBookmark";
constexpr char rescanUnheard[] = "rescanUnheard";
constexpr char inputSm[] = "inputSm";
constexpr char scanState[] = "scanState";
constexpr char scanned[] = "scanned";
constexpr char tableA[] = "tableA";
constexpr char tableB[] = "tableB";
constexpr char notATable[] = "notATable";
constexpr char index[] = "index";
constexpr char text[] = "text";
constexpr char record[] = "record";
constexpr char hidden[] = "hidden";

/// Walks what the test gives as a collection.
template <class Tag, char const * Name>
Zel::Walk walkOf(Zel::PtrInterface const & object) {
  return [&object, next = std::size_t{0}]() mutable -> std::optional<Zel::Value> {
    auto const value = Scripted<Tag>::read(object, Name);
    auto const * entries = std::get_if<Zel::Value::Collection>(&value.is);
    if (entries == nullptr || next == entries->size())
      return std::nullopt;
    return (*entries)[next++].second;
  };
}

template <class Tag, char const * Name>
Zel::Attribute walkable() {
  auto attribute = readable<Tag, Name>();
  attribute.walk = walkOf<Tag, Name>;
  return attribute;
}

template <class Tag, char const *... Names>
Zel::Type const & typeOf(std::string_view name) {
  static Zel::Attribute const list[] = {readable<Tag, Names>()...};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{name, attributes};
  return type;
}

struct RootTag {
  static Zel::Type const & type() { return typeOf<RootTag, tunnelIntfSnmpAgent>("Root"); }
};
struct AgentTag {
  static Zel::Type const & type() {
    return typeOf<AgentTag, tunnelMib, firstSm, secondSm>("Agent");
  }
};
struct MachineTag {
  static Zel::Type const & type() {
    return typeOf<MachineTag, ready, idle, inputSm, reconciling, bookmark, rescanUnheard>(
        "Machine");
  }
};
struct InputTag {
  static Zel::Type const & type() { return typeOf<InputTag, scanState, scanned>("Input"); }
};
struct MibTag {
  static Zel::Type const & type() {
    static Zel::Attribute const list[] = {walkable<MibTag, notATable>(), walkable<MibTag, tableA>(),
                                          walkable<MibTag, tableB>()};
    static auto const attributes = Zel::pointersTo(list);
    static Zel::Type const type{"Mib", attributes};
    return type;
  }
};
struct RowTag {
  static Zel::Type const & type() {
    static constexpr Zel::Enumerator indexes[] = {{1, "first"}, {2, "second"}};
    static auto const numbered = [] {
      auto attribute = readable<RowTag, index>();
      attribute.enumerators = indexes;
      return attribute;
    };
    static Zel::Attribute const list[] = {
        numbered(), readable<RowTag, text>(), readable<RowTag, record>(), {hidden, "test"}};
    static auto const attributes = Zel::pointersTo(list);
    static Zel::Type const type{"Row", attributes};
    return type;
  }
};

template <class Tag>
Zel::Value object(std::map<std::string, Zel::Value> values = {}) {
  return {Zel::Ptr<Zel::PtrInterface const>(Zel::makePtr<Scripted<Tag>>(std::move(values)))};
}
Zel::Value flag(bool value) {
  return {value};
}
Zel::Value number(std::uint64_t value) {
  return {value};
}
Zel::Value row(std::uint64_t value, std::string words) {
  return object<RowTag>(
      {{index, number(value)}, {text, {std::move(words)}}, {record, object<RowTag>()}});
}
Zel::Value machine(bool isReady) {
  return object<MachineTag>({{ready, flag(isReady)}, {idle, flag(false)}});
}

Json machinesOf(std::map<std::string, Zel::Value> agent) {
  Scripted<RootTag> root({{tunnelIntfSnmpAgent, object<AgentTag>(std::move(agent))}});
  return Agent::machinesStatus(root);
}

TEST(Status, FindsTheMachinesAndTheirInputs) {
  auto const input = object<InputTag>({{scanState, number(2)}, {scanned, number(40)}});
  auto const machines = machinesOf({{tunnelMib, object<MibTag>()},
                                    {firstSm, object<MachineTag>({{ready, flag(true)},
                                                                  {idle, flag(false)},
                                                                  {reconciling, flag(true)},
                                                                  {inputSm, input}})}});
  EXPECT_EQ(Json::parse(R"([{"name": "firstSm", "ready": true, "idle": false, "reconciling": true,
                             "inputs": [{"name": "inputSm", "scanState": 2, "scanned": 40}]}])"),
            machines);
}

TEST(Status, TellsHowFarAReconciliationIsAndWhatWentUnheard) {
  auto const told = [](bool isReconciling) {
    auto const machines =
        machinesOf({{firstSm, object<MachineTag>({{ready, flag(true)},
                                                  {reconciling, flag(isReconciling)},
                                                  {bookmark, {"row 7"}},
                                                  {rescanUnheard, number(3)}})}});
    return machines.at(0);
  };
  EXPECT_EQ(told(true).at("reconciledTo"), "row 7");
  EXPECT_EQ(told(true).at("rescanUnheard"), 3);
  EXPECT_FALSE(told(false).contains("reconciledTo"));
}

TEST(Status, IsReadyOnlyWhenEveryMachineIs) {
  EXPECT_TRUE(Agent::allReady(machinesOf({{firstSm, machine(true)}, {secondSm, machine(true)}})));
  EXPECT_FALSE(Agent::allReady(machinesOf({{firstSm, machine(true)}, {secondSm, machine(false)}})));
}

TEST(Status, IsNotReadyWithoutMachines) {
  EXPECT_FALSE(Agent::allReady(machinesOf({})));
  Scripted<RootTag> const rootWithoutAgent;
  EXPECT_TRUE(Agent::machinesStatus(rootWithoutAgent).empty());
}

std::string written(Agent::TablesWriter & writer, std::size_t * pieces = nullptr) {
  std::string out;
  std::size_t count = 1;
  while (writer.next(out))
    ++count;
  if (pieces != nullptr)
    *pieces = count;
  return out;
}

Zel::Ptr<Zel::PtrInterface const> mibOf(std::map<std::string, Zel::Value> values) {
  return Zel::makePtr<Scripted<MibTag>>(std::move(values));
}

TEST(TablesWriter, WritesTheScalarColumnsOfEveryTable) {
  using Rows = Zel::Value::Collection;
  auto const mib = mibOf({{notATable, {Rows{{"1", number(1)}}}},
                          {tableA, {Rows{{"1", row(1, "one \"1\"")}, {"2", row(2, "two\n")}}}},
                          {tableB, {Rows{}}}});
  Agent::TablesWriter writer(mib);
  EXPECT_EQ(Json::parse(R"({"tableA": [{"index": 1, "text": "one \"1\""},
                                       {"index": 2, "text": "two\n"}],
                            "tableB": []})"),
            Json::parse(written(writer)));
}

TEST(TablesWriter, WritesTablesWithoutRowsAsEmpty) {
  Agent::TablesWriter writer(mibOf({}));
  EXPECT_EQ(R"({"notATable":[],"tableA":[],"tableB":[]})", written(writer));
}

TEST(TablesWriter, WritesAnEmptyObjectForAMibWithoutTables) {
  Agent::TablesWriter writer(Zel::makePtr<Scripted<RowTag>>());
  EXPECT_EQ("{}", written(writer));
}

TEST(TableColumns, SayWhatTheNumbersOfEachTableWithRowsMean) {
  auto const mib = mibOf({{tableA, {Zel::Value::Collection{{"1", row(1, "")}}}}});
  EXPECT_EQ(Json::parse(R"({"tableA": [{"name": "index", "type": "test",
                                         "enumerators": {"1": "first", "2": "second"}},
                                        {"name": "text", "type": "test"}]})"),
            Agent::tableColumns(*mib));
}

TEST(TablesWriter, CutsALongTableIntoPiecesWithoutLosingARow) {
  constexpr std::uint64_t rows = 1001;
  Zel::Value::Collection collection;
  for (std::uint64_t i = 0; i != rows; ++i)
    collection.emplace_back(std::to_string(i), row(i, ""));
  Agent::TablesWriter writer(mibOf({{tableA, {collection}}}));
  std::size_t pieces = 0;
  auto const tables = Json::parse(written(writer, &pieces));
  EXPECT_GE(pieces, 5u);
  ASSERT_EQ(rows, tables["tableA"].size());
  for (std::uint64_t i = 0; i != rows; ++i)
    EXPECT_EQ(i, tables["tableA"][i]["index"]);
}

TEST(TasksStatus, ShowsEachTaskAndTheSums) {
  auto const scheduler = Zel::makePtr<Kiln::TaskScheduler>();
  auto const first = Zel::makePtr<Kiln::Task>(scheduler, 3, "first");
  auto const second = Zel::makePtr<Kiln::Task>(scheduler, 1, "second");
  first->taskWorkPendingIs(5);
  second->taskWorkPendingIs(6);
  second->taskWorkCountInc(7);
  second->scheduleTask();
  EXPECT_EQ(Json::parse(R"([{"name": "first", "priority": 3, "scheduled": false, "runs": 0,
                             "workCount": 0, "workPending": 5},
                            {"name": "second", "priority": 1, "scheduled": true, "runs": 0,
                             "workCount": 7, "workPending": 6}])"),
            Agent::tasksStatus(*scheduler));
  EXPECT_EQ(Json::parse(R"({"count": 2, "scheduled": 1, "runs": 0, "workPending": 11})"),
            Agent::tasksSummary(*scheduler));
  while (scheduler->runOne()) {
  }
}

/// A source that says what the test wants.
class ScriptedSource final : public Sources::Source {
public:
  std::string name() const override { return "scripted"; }
  void start() override {}
  void reread() override {}
  Sources::SourceStatus status() const override { return says; }
  Sources::SourceStatus says;
};

TEST(SourceStatus, CountsRecordsByCollection) {
  ScriptedSource source;
  source.says.state = Sources::SourceStatus::State::degraded;
  source.says.isReading = true;
  source.says.lastError = "why";
  source.says.records.tunnelInfos = 2;
  source.says.records.connections = 1;
  source.says.fullReads = 3;
  source.says.changes = 4;
  EXPECT_EQ(Json::parse(R"({"name": "scripted", "state": "degraded", "reading": true,
                            "lastError": "why",
                            "records": {"ipsecTunnelInfo": 2, "appliedIntfId": 1},
                            "fullReads": 3, "changes": 4})"),
            Agent::sourceStatus(source));
}

TEST(SourceStatus, HasTheSourcesOwnWordsInTheirOrder) {
  ScriptedSource source;
  EXPECT_FALSE(Agent::sourceStatus(source).contains("details"));
  source.says.details = {{"daemon", "strongSwan 5.9.8"}, {"SAs", "4 bound,\n1 not\x1b[31m"}};
  EXPECT_EQ(R"({"daemon":"strongSwan 5.9.8","SAs":"4 bound, 1 not\\x1B[31m"})",
            Agent::sourceStatus(source)["details"].dump());
}

TEST(ConnectionsWriter, WritesAnEmptyListForNoSourceAndForSourcesWithoutConnections) {
  for (auto const & sources :
       {std::vector<Agent::SourceConnections>{}, {{"a", {}}}, {{"a", {}}, {"b", {}}}}) {
    Agent::ConnectionsWriter writer(sources);
    std::string out;
    EXPECT_FALSE(writer.next(out));
    EXPECT_EQ("[]", out);
  }
}

TEST(ConnectionsWriter, CutsManyReportsIntoPiecesWithoutLosingAny) {
  std::vector<Agent::SourceConnections> sources{{"none", {}}, {"a", {}}, {"none", {}}, {"b", {}}};
  for (int i = 0; i != 1001; ++i)
    sources[i < 400 ? 1 : 3].reports.push_back({.connection = std::to_string(i)});
  Agent::ConnectionsWriter writer(sources);
  std::string out;
  std::size_t pieces = 1;
  for (; writer.next(out); ++pieces) {
  }
  EXPECT_GE(pieces, 5u);
  auto const rows = Json::parse(out);
  ASSERT_EQ(1001u, rows.size());
  for (int i = 0; i != 1001; ++i) {
    EXPECT_EQ(std::to_string(i), rows[i]["connection"].get<std::string>());
    EXPECT_EQ(i < 400 ? "a" : "b", rows[i]["source"]);
  }
}

TEST(ConnectionsWriter, LetsNoTextOfThePeerReachATerminalAsItIs) {
  Agent::ConnectionsWriter writer({{"a", {{.connection = "x\x1b[2J", .reason = "y\nz"}}}});
  std::string out;
  writer.next(out);
  auto const row = Json::parse(out).at(0);
  EXPECT_EQ("x\\x1B[2J", row["connection"]);
  EXPECT_EQ("y z", row["reason"]);
}

TEST(MasterStatus, TellsOfTheSessionAndItsRegistrations) {
  using namespace Agent::AgentX;
  SessionStatus session;
  session.address = "unix:/run/master";
  session.state = SessionStatus::State::registering;
  session.since = std::chrono::system_clock::from_time_t(1700000000);
  session.session = 7;
  session.sessions = 3;
  session.lastError = "why";
  session.regions = {
      {{"", {1, 3, 6}}, RegionStatus::State::registered},
      {{"red", {1, 3, 7}}, RegionStatus::State::refused, Error::duplicateRegistration}};
  EXPECT_EQ(Json::parse(R"({"address": "unix:/run/master", "state": "registering",
                            "since": "2023-11-14T22:13:20Z", "session": 7, "sessions": 3,
                            "lastError": "why",
                            "registrations": [
                              {"oid": "1.3.6", "context": "", "state": "registered",
                               "reason": ""},
                              {"oid": "1.3.7", "context": "red", "state": "refused",
                               "reason": "duplicateRegistration"}]})"),
            Agent::masterStatus(session));
}

TEST(MasterStatus, HasNoSessionWhileThereIsNone) {
  Agent::AgentX::SessionStatus session;
  session.state = Agent::AgentX::SessionStatus::State::waiting;
  auto const status = Agent::masterStatus(session);
  EXPECT_EQ("waiting to try again", status["state"]);
  EXPECT_FALSE(status.contains("session"));
}

} // namespace
