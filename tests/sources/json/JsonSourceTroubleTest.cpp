// The source that follows a file, when the world around it is not as it should be: a slow start, a
// file of another kind, too little memory; and when nothing has changed at all.
#include "sources/json/JsonSource.h"
#include "tests/sources/SourceHost.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/TemporaryFolder.h"
#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using nlohmann::json;
using Sources::SourceStatus;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using State = SourceStatus::State;

constexpr int tunnels = 20;

/// A document of some tunnels, all of that ToS.
std::string office(int tos) {
  auto statuses = json::object();
  for (int id = 1; id <= tunnels; ++id)
    statuses[std::to_string(id)] = {{"srcAddr", "192.0.2.1"}, {"tos", tos}};
  return json{{"tunnelIntfStatusDir", {{"intfStatus", std::move(statuses)}}},
              {"ikeStatus", {{"appliedProfiles", {{"a long name of a profile", {}}}}}}}
      .dump(1);
}

class JsonSourceInTrouble : public testing::Test, protected SourceHost {
protected:
  void start(std::chrono::milliseconds patience = allTheTime) {
    source = Sources::makeJsonSource(file, surroundings(), patience);
    source->start();
  }
  void hear() { settle(std::chrono::milliseconds(500)); }
  void write(int tos) const { folder.write("branch.json", office(tos)); }
  /// The file was modified long ago.
  void makeOld() const {
    timespec const times[] = {{0, UTIME_OMIT}, {1'000'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  }
  /// The ToS of every tunnel that is published, in the order of their ids.
  std::vector<int> published() const {
    auto const statuses = at("/tunnelIntfStatusDir/intfStatus");
    std::vector<int> all;
    for (int id = 1; id <= tunnels; ++id)
      if (auto const status = statuses.find(std::to_string(id)); status != statuses.end())
        all.push_back(status->at("tos"));
    return all;
  }
  void expectAll(int tos) const { EXPECT_EQ(published(), std::vector<int>(tunnels, tos)); }

  TemporaryFolder const folder;
  std::string const file = folder.file("branch.json");
  std::unique_ptr<Sources::Source> source;
};

TEST_F(JsonSourceInTrouble, GoesOnInRunsWhenItsStartTakesTooLong) {
  write(1);
  start(std::chrono::milliseconds(0));
  EXPECT_TRUE(source->status().isReading);
  EXPECT_EQ(source->status().state, State::stopped);
  EXPECT_THAT(published(), IsEmpty());
  settle();
  EXPECT_FALSE(source->status().isReading);
  EXPECT_EQ(source->status().state, State::inSync);
  expectAll(1);
  EXPECT_THAT(told, IsEmpty()) << "this is a start that went well";
}

TEST_F(JsonSourceInTrouble, TellsOfAFaultThatItsStartHadNoTimeToFind) {
  folder.write("branch.json", "{\n]");
  start(std::chrono::milliseconds(0));
  settle();
  EXPECT_EQ(source->status().state, State::degraded);
  EXPECT_THAT(source->status().lastError, HasSubstr(":2: syntax error"));
  EXPECT_THAT(told, ElementsAre(State::degraded));
  write(1);
  hear();
  expectAll(1);
  EXPECT_THAT(told, ElementsAre(State::degraded, State::inSync));
}

TEST_F(JsonSourceInTrouble, TellsOncePerChangeOfItsState) {
  write(1);
  start();
  for (auto const * broken : {"{", "", "[]"}) {
    folder.write("branch.json", broken);
    hear();
  }
  EXPECT_THAT(told, ElementsAre(State::degraded));
  for (int tos : {2, 3}) {
    write(tos);
    hear();
  }
  EXPECT_THAT(told, ElementsAre(State::degraded, State::inSync));
}

TEST_F(JsonSourceInTrouble, KeepsTheTunnelsWhileAPipeStandsInThePlaceOfTheFile) {
  write(1);
  start();
  std::filesystem::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  hear();
  EXPECT_EQ(source->status().lastError,
            file + ": is a named pipe; the tunnels must be in a regular file");
  expectAll(1);
  std::filesystem::remove(file);
  write(2);
  hear();
  expectAll(2);
}

TEST_F(JsonSourceInTrouble, TriesAgainByItselfWhatCouldNotBeRead) {
  auto const etc = folder.file("etc");
  std::filesystem::create_directory(etc);
  folder.write("etc/branch.json", office(1));
  source = Sources::makeJsonSource(etc + "/branch.json", surroundings(), allTheTime);
  source->start();
  std::filesystem::rename(etc, folder.file("old"));
  hear();
  EXPECT_EQ(source->status().state, State::degraded);
  std::filesystem::create_directory(etc); // which nobody hears
  folder.write("etc/branch.json", office(2));
  hear();
  expectAll(1);
  loop.advance(Sources::jsonRetryPeriod);
  hear();
  expectAll(2);
  EXPECT_EQ(source->status().state, State::inSync);
}

TEST_F(JsonSourceInTrouble, DoesNotTryAgainWhatIsWrittenWrongly) {
  write(1);
  start();
  folder.write("branch.json", "{");
  hear();
  auto const rejected = Lumo::counter("json-readings-rejected");
  loop.advance(5 * Sources::jsonRetryPeriod);
  hear();
  EXPECT_EQ(Lumo::counter("json-readings-rejected"), rejected);
}

// An unchanged file costs nothing.

TEST_F(JsonSourceInTrouble, DoesNotReadWhenOnlyTheRightsChange) {
  write(1);
  makeOld();
  start();
  ASSERT_EQ(::chmod(file.c_str(), 0400), 0);
  hear();
  std::filesystem::create_hard_link(file, folder.file("other"));
  hear();
  EXPECT_FALSE(source->status().isReading);
  EXPECT_EQ(source->status().fullReads, 1u);
}

TEST_F(JsonSourceInTrouble, ReadsAnUnchangedFileWhenItIsTold) {
  write(1);
  makeOld();
  start();
  source->reread();
  settle();
  EXPECT_EQ(source->status().fullReads, 2u);
}

TEST_F(JsonSourceInTrouble, ReadsWhatIsWrittenAnewWithTheSameSize) {
  write(1);
  makeOld();
  start();
  write(2);
  hear();
  expectAll(2);
}

TEST_F(JsonSourceInTrouble, ReadsWhatIsWrittenInTheSameTickOfTheClock) {
  write(1);
  start(); // it was modified just now
  timespec times[2] = {};
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  times[0] = times[1] = status.st_mtim;
  write(2);
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  hear();
  expectAll(2);
}

/// Makes this process an ordinary user while it lives, if it is none.
class OrdinaryUser {
public:
  OrdinaryUser() { EXPECT_EQ(::seteuid(isRoot_ ? 65534 : ::geteuid()), 0); }
  ~OrdinaryUser() { EXPECT_EQ(::seteuid(isRoot_ ? 0 : ::geteuid()), 0); }

private:
  bool const isRoot_ = ::geteuid() == 0;
};

TEST_F(JsonSourceInTrouble, NoticesRightsThatMakeTheFileUnreadable) {
  write(1);
  makeOld();
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  start();
  ASSERT_EQ(::chmod(file.c_str(), 0000), 0);
  {
    OrdinaryUser const user;
    hear();
  }
  EXPECT_EQ(source->status().lastError, file + ": cannot be read: Permission denied");
  expectAll(1);
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  {
    OrdinaryUser const user;
    hear();
  }
  EXPECT_EQ(source->status().state, State::inSync);
}

// Memory

class JsonSourceWithoutMemory : public JsonSourceInTrouble {
protected:
  /// A source with tunnels of ToS 1, and a file with tunnels of ToS 2 that has not been read.
  void prepare() {
    write(1);
    start();
    write(2);
    told.reserve(16);
  }
  /// The reading, in which an allocation fails after so many others. True if and only if there were
  /// as many.
  bool readFails(long before, FailingMemory::Fails fails) {
    FailingMemory const failing(before, fails);
    source->reread();
    while (scheduler->runOne()) {
    }
    return FailingMemory::hasFailed();
  }
  void beginAnew() {
    write(1);
    source->reread();
    hear();
    expectAll(1);
    write(2);
    told.clear();
  }
  void expectLastGoodState() const {
    auto const now = published();
    ASSERT_EQ(now.size(), static_cast<std::size_t>(tunnels));
    EXPECT_TRUE(std::ranges::is_sorted(now, std::greater<>())) << "in the order of the commit";
    EXPECT_FALSE(source->status().isReading);
    EXPECT_EQ(source->status().state, State::degraded);
    EXPECT_NE(source->status().lastError, "");
    EXPECT_THAT(source->status().lastError, testing::Not(HasSubstr("std::")));
  }
};

TEST_F(JsonSourceWithoutMemory, GivesAReadingUpAndTriesAgainByItself) {
  prepare();
  long failures = 0;
  for (long before = 0; readFails(before, FailingMemory::Fails::once); ++before, ++failures) {
    SCOPED_TRACE(fmt::format("allocation {}", before));
    expectLastGoodState();
    EXPECT_THAT(told, ElementsAre(State::degraded));
    loop.advance(Sources::jsonRetryPeriod);
    scheduler->runUntilQuiet(); // nothing is heard of the file
    expectAll(2);
    EXPECT_THAT(told, ElementsAre(State::degraded, State::inSync));
    if (HasFailure())
      return;
    beginAnew();
  }
  EXPECT_GT(failures, 50) << "that many allocations at least are made";
  expectAll(2);
  EXPECT_EQ(source->status().state, State::inSync);
}

TEST_F(JsonSourceWithoutMemory, GivesAReadingUpWhileThereIsNoneAndTriesAgainWhenThereIs) {
  prepare();
  for (long before = 0; readFails(before, FailingMemory::Fails::always); ++before) {
    SCOPED_TRACE(fmt::format("from allocation {} on", before));
    expectLastGoodState();
    loop.advance(Sources::jsonRetryPeriod); // there was no memory for a timer either
    scheduler->runUntilQuiet();
    expectAll(2);
    if (HasFailure())
      return;
    beginAnew();
  }
  expectAll(2);
}

} // namespace
