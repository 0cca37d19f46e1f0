// The source that follows a file: changes of the file and of its folder, large files, broken ones.
#include "sources/json/JsonSource.h"
#include "tests/sources/TunnelWorld.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TraceRecorder.h"
#include <algorithm>
#include <gmock/gmock.h>

namespace {

using nlohmann::json;
using Sources::SourceStatus;
using testing::HasSubstr;
using testing::StartsWith;

/// A file that is written anew with each change.
class DocumentFile {
public:
  std::string name() const { return folder_.file("tunnels.json"); }
  /// Writes what `change` makes of the document.
  template <class Change>
  void change(Change change) {
    change(document_);
    folder_.write("tunnels.json", document_.dump());
  }

private:
  TemporaryFolder const folder_;
  json document_ = json::object();
};

class JsonTunnels final : public TunnelWorld {
public:
  std::unique_ptr<Sources::Source> makeSource(Sources::Surroundings const & surroundings) override {
    file_.change([](json &) {});
    return Sources::makeJsonSource(file_.name(), surroundings, allTheTime);
  }
  void thingIs(int number, int hopLimit) override {
    file_.change([&](json & document) {
      document["ifMib"]["ifIndexByIntfId"][intfId(number)] = number;
      document["tunnelIntfStatusDir"]["intfStatus"][intfId(number)] = {{"hopLimit", hopLimit}};
    });
  }
  void thingDel(int number) override {
    file_.change([&](json & document) {
      document["ifMib"]["ifIndexByIntfId"].erase(intfId(number));
      document["tunnelIntfStatusDir"]["intfStatus"].erase(intfId(number));
    });
  }

private:
  std::string intfId(int number) const override { return std::to_string(number); }
  DocumentFile file_;
};

/// Its things are connections, each with a tunnel of its own, in one profile.
class JsonConnections final : public SourceWorld {
public:
  std::unique_ptr<Sources::Source> makeSource(Sources::Surroundings const & surroundings) override {
    file_.change([](json & document) { document["ikeStatus"]["appliedProfiles"]["west"]; });
    return Sources::makeJsonSource(file_.name(), surroundings, allTheTime);
  }
  void thingIs(int number, int value) override {
    file_.change([&](json & document) {
      auto const id = std::to_string(number);
      auto & ike = document["ikeStatus"];
      ike["ipsecTunnelInfo"][id] = {{"profileName", "west"}};
      ike["appliedProfiles"]["west"]["appliedIntfId"][id] = {{"connState", 100 + value}};
    });
  }
  void thingDel(int number) override {
    file_.change([&](json & document) {
      auto const id = std::to_string(number);
      auto & ike = document["ikeStatus"];
      ike["ipsecTunnelInfo"].erase(id);
      ike["appliedProfiles"]["west"]["appliedIntfId"].erase(id);
    });
  }
  std::vector<std::string> records(int number) const override {
    auto const id = std::to_string(number);
    return {"/ikeStatus/ipsecTunnelInfo/" + id,
            "/ikeStatus/appliedProfiles/west/appliedIntfId/" + id};
  }
  std::string member(int number) const override { return records(number).back() + "/connState"; }
  json shown(int value) const override { return 100 + value; } // states without a name
  Zel::PtrInterface const * object(StateDb::StateDb const & database, int number) const override {
    auto const & west = *database.ikeStatus()->appliedProfiles().find("west");
    return west->appliedIntfId().find(Plexa::IntfId(static_cast<std::uint64_t>(number)))->get();
  }
  std::pair<std::string, json> foreign() const override {
    return {"/ikeStatus/ipsecTunnelInfo/987654321", {{"profileName", "east"}}};
  }

private:
  DocumentFile file_;
};

template <class World>
std::unique_ptr<SourceWorld> makeWorld() {
  return std::make_unique<World>();
}
INSTANTIATE_TEST_SUITE_P(Json, SourceContract,
                         testing::Values(SourceKind{"tunnels", &makeWorld<JsonTunnels>},
                                         SourceKind{"connections", &makeWorld<JsonConnections>}));

/// A document with one tunnel, whose ToS tells documents apart.
std::string tunnel(int tos) {
  return R"({"tunnelIntfStatusDir": {"intfStatus": {"5": {"tos": )" + std::to_string(tos) + "}}}}";
}

class JsonSource : public testing::Test, protected SourceHost {
protected:
  void start() {
    source = Sources::makeJsonSource(file, surroundings(), allTheTime);
    source->start();
  }
  std::string startError() {
    try {
      start();
      return "";
    } catch (std::runtime_error const & error) {
      return error.what();
    }
  }
  /// Lets the source hear what has happened to the file.
  void hear() { settle(std::chrono::milliseconds(500)); }
  void reread() {
    source->reread();
    settle();
  }
  json tos() const {
    auto const statuses = document.read("/tunnelIntfStatusDir/intfStatus");
    return statuses.contains("5") ? statuses["5"]["tos"] : json();
  }
  void expectGood(int value) const {
    EXPECT_EQ(tos(), value);
    EXPECT_EQ(source->status().state, SourceStatus::State::inSync);
    EXPECT_EQ(source->status().lastError, "");
  }
  void expectStillThere(int value) const {
    EXPECT_EQ(tos(), value);
    EXPECT_EQ(source->status().state, SourceStatus::State::degraded);
    EXPECT_EQ(source->status().records.statuses, 1u);
  }

  TemporaryFolder const folder;
  std::string const file = folder.file("branch.json");
  std::unique_ptr<Sources::Source> source;
};

TEST_F(JsonSource, RaisesAtItsStartWhenThereIsNoFile) {
  EXPECT_EQ(startError(), file + ": cannot be read: No such file or directory");
}

TEST_F(JsonSource, RaisesAtItsStartWhenThereIsNoFolder) {
  source = Sources::makeJsonSource(folder.file("no/such.json"), surroundings(), allTheTime);
  try {
    source->start();
    FAIL();
  } catch (std::runtime_error const & error) {
    EXPECT_EQ(error.what(), folder.file("no/such.json") + ": the folder " + folder.file("no") +
                                " cannot be watched: No such file or directory");
  }
}

TEST_F(JsonSource, RaisesAtItsStartWithTheLineThatIsWrong) {
  folder.write("branch.json", "{\n\"ifMib\": 5}");
  EXPECT_EQ(startError(), file + ":2: /ifMib: must be an object, not 5");
  EXPECT_EQ(tos(), json());
}

TEST_F(JsonSource, HearsOfAFileThatIsWrittenInPlace) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json", tunnel(2));
  hear();
  expectGood(2);
}

TEST_F(JsonSource, HearsOfAFileThatIsReplacedByRenaming) {
  folder.write("branch.json", tunnel(1));
  start();
  for (int value : {2, 3}) {
    folder.write("branch.json.new", tunnel(value));
    std::filesystem::rename(folder.file("branch.json.new"), file);
    hear();
    expectGood(value);
  }
}

TEST_F(JsonSource, HearsOfALinkThatIsPutInItsPlace) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("other.json", tunnel(2));
  std::filesystem::remove(file);
  hear();
  std::filesystem::create_hard_link(folder.file("other.json"), file);
  hear();
  expectGood(2);
}

TEST_F(JsonSource, KeepsTheTunnelsWhileTheFileIsGone) {
  folder.write("branch.json", tunnel(1));
  start();
  std::filesystem::remove(file);
  hear();
  expectStillThere(1);
  EXPECT_EQ(source->status().lastError, file + ": cannot be read: No such file or directory");
  folder.write("branch.json", tunnel(2));
  hear();
  expectGood(2);
}

TEST_F(JsonSource, KeepsTheTunnelsWhileTheFileIsBroken) {
  folder.write("branch.json", tunnel(1));
  start();
  for (auto const & broken : {std::string(), tunnel(2).substr(0, 30), tunnel(64)}) {
    folder.write("branch.json", broken);
    hear();
    expectStillThere(1);
    EXPECT_THAT(source->status().lastError, StartsWith(file + ":"));
  }
  folder.write("branch.json", tunnel(2));
  hear();
  expectGood(2);
}

// Readable, but not what a document may be.
TEST_F(JsonSource, KnowsItsTunnelsAfterAFileThatCannotBeUsed) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json", R"({"ifMib": 5})");
  hear();
  expectStillThere(1);
  folder.write("branch.json", "{}");
  hear();
  EXPECT_EQ(tos(), json());
}

TEST_F(JsonSource, RemovesTheTunnelsOfAFileThatSaysThatThereAreNone) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json", "{}");
  hear();
  EXPECT_EQ(tos(), json());
  EXPECT_EQ(source->status().records.statuses, 0u);
}

TEST_F(JsonSource, ReadsOnceForABurstOfChanges) {
  folder.write("branch.json", tunnel(1));
  start();
  auto const reads = source->status().fullReads;
  for (int value = 0; value != 50; ++value)
    folder.write("branch.json", tunnel(value));
  hear();
  expectGood(49);
  EXPECT_EQ(source->status().fullReads, reads + 1);
}

TEST_F(JsonSource, DoesNotReadForOtherFilesOfTheFolder) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json2", tunnel(2));
  folder.write("branch", tunnel(2));
  hear();
  EXPECT_EQ(source->status().fullReads, 1u);
  expectGood(1);
}

TEST_F(JsonSource, ReadsAgainWhenEventsWereLost) {
  folder.write("branch.json", tunnel(1));
  start();
  // The queue is filled with the events of another file; then there is no room for ours.
  std::size_t limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_GT(limit, 0u);
  if (limit > 100000)
    GTEST_SKIP() << "this system queues " << limit << " events";
  folder.write("other", "");
  for (std::size_t i = 0; i <= limit; ++i) // equal events that follow each other would be merged
    ASSERT_EQ(::chmod(folder.file(i % 2 == 0 ? "other" : "").c_str(), 0700), 0);
  folder.write("branch.json", tunnel(2));
  hear();
  expectGood(2);
}

TEST_F(JsonSource, FindsItsFolderAgainWhenItIsReplaced) {
  std::filesystem::create_directory(folder.file("etc"));
  folder.write("etc/branch.json", tunnel(1));
  source = Sources::makeJsonSource(folder.file("etc/branch.json"), surroundings(), allTheTime);
  source->start();
  std::filesystem::remove_all(folder.file("etc"));
  hear();
  expectStillThere(1);
  EXPECT_THAT(source->status().lastError, HasSubstr("cannot be watched: No such file"));
  std::filesystem::create_directory(folder.file("etc"));
  folder.write("etc/branch.json", tunnel(2));
  reread();
  expectGood(2);
  folder.write("etc/branch.json", tunnel(3));
  hear();
  expectGood(3);
}

TEST_F(JsonSource, FollowsAFolderThatIsSwappedForAnother) {
  for (auto const * name : {"etc", "new"})
    std::filesystem::create_directory(folder.file(name));
  folder.write("etc/branch.json", tunnel(1));
  folder.write("new/branch.json", tunnel(2));
  source = Sources::makeJsonSource(folder.file("etc/branch.json"), surroundings(), allTheTime);
  source->start();
  std::filesystem::rename(folder.file("etc"), folder.file("old"));
  std::filesystem::rename(folder.file("new"), folder.file("etc"));
  hear();
  expectGood(2);
  folder.write("etc/branch.json", tunnel(3));
  hear();
  expectGood(3);
}

TEST_F(JsonSource, TracesWhatItReadsPublishesAndRejects) {
  TraceRecorder traces({{"JsonSource", "all"}});
  auto const rejected = Lumo::counter("json-readings-rejected");
  folder.write("branch.json", R"({"ifMib": {"ifIndexByIntfId": {"5": 17}}})");
  start();
  folder.write("branch.json", "");
  hear();
  EXPECT_THAT(traces.texts(8), testing::ElementsAre("reading " + file, "reading " + file));
  EXPECT_THAT(traces.texts(7), testing::ElementsAre("published 1 changes"));
  EXPECT_THAT(traces.texts(0), testing::ElementsAre(source->status().lastError));
  EXPECT_EQ(Lumo::counter("json-readings-rejected"), rejected + 1);
}

TEST_F(JsonSource, RereadsOnDemandWithoutRaising) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json", "{");
  reread();
  expectStillThere(1);
  folder.write("branch.json", tunnel(2));
  reread();
  expectGood(2);
}

/// A document of many pieces, with tunnels 1 to `tunnels` of that ToS.
std::string large(int tunnels, int tos) {
  auto statuses = json::object();
  for (int id = 1; id <= tunnels; ++id)
    statuses[std::to_string(id)] = {{"srcAddr", "192.0.2.1"}, {"tos", tos}};
  return json{{"tunnelIntfStatusDir", {{"intfStatus", std::move(statuses)}}}}.dump(2);
}
constexpr int manyTunnels = 2000;

class LargeJsonFile : public JsonSource {
protected:
  LargeJsonFile() {
    folder.write("branch.json", large(manyTunnels, 1));
    start();
    scheduler->yieldIs(Yield::always);
  }
  /// Runs of the source's own task, which reads; another one publishes.
  std::uint64_t readingRuns() const {
    auto const tasks = scheduler->tasks();
    auto const own = std::ranges::find(tasks, source->name(), &Kiln::Task::name);
    return own == tasks.end() ? 0 : (*own)->runs();
  }
};

TEST_F(LargeJsonFile, IsReadInRunsAndPublishedWhenAllOfItIsUnderstood) {
  auto const text = large(manyTunnels, 2);
  folder.write("branch.json", text);
  loop.runReady(std::chrono::milliseconds(500));
  constexpr std::size_t piece = 2 * 1024;
  for (std::size_t runs = 1; runs <= text.size() / piece; ++runs) {
    ASSERT_TRUE(scheduler->runOne());
    ASSERT_TRUE(source->status().isReading);
    ASSERT_EQ(readingRuns(), runs);
    ASSERT_EQ(tos(), 1) << runs;
  }
  while (source->status().changes == manyTunnels)
    ASSERT_TRUE(scheduler->runOne());
  EXPECT_LT(source->status().changes, 2u * manyTunnels) << "it is published in runs as well";
  EXPECT_TRUE(source->status().isReading);
  settle();
  expectGood(2);
  EXPECT_EQ(source->status().changes, 2u * manyTunnels);
}

TEST_F(LargeJsonFile, LetsTheMachinesWorkFirst) {
  constexpr Kiln::TaskPriority machines = 3;
  auto const machine = Zel::makePtr<Kiln::Task>(scheduler, machines, "machine");
  source->reread();
  machine->scheduleTask();
  ASSERT_TRUE(scheduler->runOne());
  EXPECT_EQ(machine->runs(), 1u);
}

TEST_F(LargeJsonFile, ChangesNothingWhenItIsBrokenAtItsEnd) {
  auto text = large(manyTunnels, 2);
  text.pop_back();
  folder.write("branch.json", text);
  hear();
  EXPECT_EQ(tos(), 1);
  EXPECT_EQ(source->status().changes, std::uint64_t{manyTunnels});
  EXPECT_EQ(source->status().state, SourceStatus::State::degraded);
}

TEST_F(LargeJsonFile, IsReadOnceMoreWhenItChangesMeanwhile) {
  folder.write("branch.json", large(manyTunnels, 2));
  loop.runReady(std::chrono::milliseconds(500));
  ASSERT_TRUE(scheduler->runOne());
  folder.write("branch.json.new", large(manyTunnels, 3)); // the reader keeps the old file
  std::filesystem::rename(folder.file("branch.json.new"), file);
  loop.runReady(std::chrono::milliseconds(500));
  settle();
  expectGood(3);
  EXPECT_EQ(source->status().fullReads, 3u);
}

TEST_F(LargeJsonFile, IsReadOnceMoreWhenItIsBrokenAndChangesMeanwhile) {
  folder.write("branch.json", large(manyTunnels, 2) + "}");
  loop.runReady(std::chrono::milliseconds(500));
  ASSERT_TRUE(scheduler->runOne());
  folder.write("branch.json.new", large(manyTunnels, 3));
  std::filesystem::rename(folder.file("branch.json.new"), file);
  loop.runReady(std::chrono::milliseconds(500));
  settle();
  expectGood(3);
}

TEST_F(LargeJsonFile, MayLoseItsSourceWhileItIsRead) {
  folder.write("branch.json", large(manyTunnels, 2));
  source->reread();
  for (int runs = 0; runs != 3; ++runs)
    ASSERT_TRUE(scheduler->runOne());
  source.reset();
  settle();
  EXPECT_EQ(tos(), 1);
}

} // namespace
