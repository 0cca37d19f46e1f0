#include "sources/json/JsonSource.h"
#include "tests/sources/ContractTests.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>
#include <sys/stat.h>

namespace {
int collections = 0;
} // namespace

/// mimalloc's, which this program has not.
extern "C" void mi_collect(bool) noexcept {
  ++collections;
}

namespace {

using nlohmann::json;
using Sources::SourceStatus;
using testing::HasSubstr;
using testing::StartsWith;

class JsonWorld final : public SourceWorld {
public:
  std::unique_ptr<Sources::Source> makeSource(Os::Loop & loop,
                                              StateDb::StateDocument & document) override {
    write();
    return Sources::makeJsonSource(folder_.file("tunnels.json"), loop, document);
  }
  void tunnelIs(int number, int hopLimit) override {
    document_["ifMib"]["ifIndexByIntfId"][intfId(number)] = number;
    document_["tunnelIntfStatusDir"]["intfStatus"][intfId(number)] = {{"hopLimit", hopLimit}};
    write();
  }
  void tunnelDel(int number) override {
    document_["ifMib"]["ifIndexByIntfId"].erase(intfId(number));
    document_["tunnelIntfStatusDir"]["intfStatus"].erase(intfId(number));
    write();
  }
  std::string intfId(int number) const override { return std::to_string(number); }

private:
  void write() { folder_.write("tunnels.json", document_.dump()); }
  TemporaryFolder const folder_;
  json document_ = json::object();
};
std::unique_ptr<SourceWorld> makeJsonWorld() {
  return std::make_unique<JsonWorld>();
}
INSTANTIATE_TEST_SUITE_P(Json, SourceContract, testing::Values(SourceKind{"json", &makeJsonWorld}));

/// A document with one tunnel, whose ToS tells documents apart.
std::string tunnel(int tos) {
  return R"({"tunnelIntfStatusDir": {"intfStatus": {"5": {"tos": )" + std::to_string(tos) + "}}}}";
}

class JsonSource : public testing::Test {
protected:
  void start() {
    source = Sources::makeJsonSource(file, loop, document);
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
  void settle() { loop.runReady(std::chrono::milliseconds(500)); }
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
    EXPECT_EQ(source->status().records, 1u);
  }

  TemporaryFolder const folder;
  std::string const file = folder.file("branch.json");
  TestLoop loop;
  StateDb::StateDb database;
  StateDb::StateDocument document{database};
  std::unique_ptr<Sources::Source> source;
};

TEST_F(JsonSource, RaisesAtItsStartWhenThereIsNoFile) {
  EXPECT_EQ(startError(), file + ": cannot be read: No such file or directory");
}

TEST_F(JsonSource, RaisesAtItsStartWhenThereIsNoFolder) {
  source = Sources::makeJsonSource(folder.file("no/such.json"), loop, document);
  try {
    source->start();
    FAIL();
  } catch (std::runtime_error const & error) {
    EXPECT_EQ(error.what(), folder.file("no/such.json") + ": the folder " + folder.file("no") +
                                " cannot be watched: No such file or directory; see to it, then "
                                "reload");
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
  settle();
  expectGood(2);
}

TEST_F(JsonSource, HearsOfAFileThatIsReplacedByRenaming) {
  folder.write("branch.json", tunnel(1));
  start();
  for (int value : {2, 3}) {
    folder.write("branch.json.new", tunnel(value));
    std::filesystem::rename(folder.file("branch.json.new"), file);
    settle();
    expectGood(value);
  }
}

TEST_F(JsonSource, HearsOfALinkThatIsPutInItsPlace) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("other.json", tunnel(2));
  std::filesystem::remove(file);
  settle();
  std::filesystem::create_hard_link(folder.file("other.json"), file);
  settle();
  expectGood(2);
}

TEST_F(JsonSource, ReadsAgainWhenTheFileGetsOtherRights) {
  folder.write("branch.json", tunnel(1));
  start();
  ASSERT_EQ(::chmod(file.c_str(), 0400), 0);
  settle();
  EXPECT_EQ(source->status().fullReads, 2u);
}

TEST_F(JsonSource, KeepsTheTunnelsWhileTheFileIsGone) {
  folder.write("branch.json", tunnel(1));
  start();
  std::filesystem::remove(file);
  settle();
  expectStillThere(1);
  EXPECT_EQ(source->status().lastError, file + ": cannot be read: No such file or directory");
  folder.write("branch.json", tunnel(2));
  settle();
  expectGood(2);
}

TEST_F(JsonSource, KeepsTheTunnelsWhileTheFileIsBroken) {
  folder.write("branch.json", tunnel(1));
  start();
  for (auto const & broken : {std::string(), tunnel(2).substr(0, 30), tunnel(64)}) {
    folder.write("branch.json", broken);
    settle();
    expectStillThere(1);
    EXPECT_THAT(source->status().lastError, StartsWith(file + ":"));
  }
  folder.write("branch.json", tunnel(2));
  settle();
  expectGood(2);
}

// Readable, but not what a document may be.
TEST_F(JsonSource, KnowsItsTunnelsAfterAFileThatCannotBeUsed) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json", R"({"ifMib": 5})");
  settle();
  expectStillThere(1);
  folder.write("branch.json", "{}");
  settle();
  EXPECT_EQ(tos(), json());
}

TEST_F(JsonSource, HasFreeMemoryGivenBackAfterEachReading) {
  folder.write("branch.json", tunnel(1));
  collections = 0;
  start();
  EXPECT_EQ(collections, 1);
  folder.write("branch.json", "no JSON");
  source->reread();
  EXPECT_EQ(collections, 2);
}

TEST_F(JsonSource, RemovesTheTunnelsOfAFileThatSaysThatThereAreNone) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json", "{}");
  settle();
  EXPECT_EQ(tos(), json());
  EXPECT_EQ(source->status().records, 0u);
}

TEST_F(JsonSource, ReadsOnceForABurstOfChanges) {
  folder.write("branch.json", tunnel(1));
  start();
  auto const reads = source->status().fullReads;
  for (int value = 0; value != 50; ++value)
    folder.write("branch.json", tunnel(value));
  settle();
  expectGood(49);
  EXPECT_EQ(source->status().fullReads, reads + 1);
}

TEST_F(JsonSource, DoesNotReadForOtherFilesOfTheFolder) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json2", tunnel(2));
  folder.write("branch", tunnel(2));
  settle();
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
  settle();
  expectGood(2);
}

TEST_F(JsonSource, FindsItsFolderAgainWhenItIsReplaced) {
  std::filesystem::create_directory(folder.file("etc"));
  folder.write("etc/branch.json", tunnel(1));
  source = Sources::makeJsonSource(folder.file("etc/branch.json"), loop, document);
  source->start();
  std::filesystem::remove_all(folder.file("etc"));
  settle();
  expectStillThere(1);
  EXPECT_THAT(source->status().lastError, HasSubstr("cannot be watched: No such file"));
  std::filesystem::create_directory(folder.file("etc"));
  folder.write("etc/branch.json", tunnel(2));
  source->reread();
  expectGood(2);
  folder.write("etc/branch.json", tunnel(3));
  settle();
  expectGood(3);
}

TEST_F(JsonSource, FollowsAFolderThatIsSwappedForAnother) {
  for (auto const * name : {"etc", "new"})
    std::filesystem::create_directory(folder.file(name));
  folder.write("etc/branch.json", tunnel(1));
  folder.write("new/branch.json", tunnel(2));
  source = Sources::makeJsonSource(folder.file("etc/branch.json"), loop, document);
  source->start();
  std::filesystem::rename(folder.file("etc"), folder.file("old"));
  std::filesystem::rename(folder.file("new"), folder.file("etc"));
  settle();
  expectGood(2);
  folder.write("etc/branch.json", tunnel(3));
  settle();
  expectGood(3);
}

TEST_F(JsonSource, TracesWhatItReadsPublishesAndRejects) {
  TraceRecorder traces({{"JsonSource", "all"}});
  auto const rejected = Lumo::counter("json-readings-rejected");
  folder.write("branch.json", R"({"ifMib": {"ifIndexByIntfId": {"5": 17}}})");
  start();
  folder.write("branch.json", "");
  settle();
  EXPECT_THAT(traces.texts(8), testing::ElementsAre("reading " + file, "reading " + file));
  EXPECT_THAT(traces.texts(7),
              testing::ElementsAre(
                  R"(publishing [{"op":"add","path":"/ifMib/ifIndexByIntfId/5","value":17}])"));
  EXPECT_THAT(traces.texts(0), testing::ElementsAre(source->status().lastError));
  EXPECT_EQ(Lumo::counter("json-readings-rejected"), rejected + 1);
}

TEST_F(JsonSource, RereadsOnDemandWithoutRaising) {
  folder.write("branch.json", tunnel(1));
  start();
  folder.write("branch.json", "{");
  source->reread();
  expectStillThere(1);
  folder.write("branch.json", tunnel(2));
  source->reread();
  expectGood(2);
}

} // namespace
