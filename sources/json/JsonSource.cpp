// Follows one file: read, decode, publish the differences.
//
// Traces under "JsonSource": 0 faults, 7 what is published, 8 each reading.
#include "sources/json/JsonSource.h"
#include "os/Coroutine.h"
#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "platform/Lumo.h"
#include "sources/json/FolderWatch.h"
#include "sources/json/JsonFile.h"
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <system_error>
#include <utility>

namespace Sources {

namespace {

constexpr int fault = 0;
constexpr int output = 7;
constexpr int entry = 8;

/// Less urgent than the machines, which have 3: what is known already is served before more is
/// read.
constexpr Kiln::TaskPriority readingPriority = 4;

Lumo::Counter rejectedReadings("json-readings-rejected");

Lumo::DebugHandler const & traceHandler() {
  static auto const handler = Lumo::Platform::getDebugHandler("JsonSource", false);
  return *handler;
}

class JsonSource final : public Source {
public:
  JsonSource(std::string path, Surroundings const & surroundings);
  JsonSource(JsonSource const &) = delete;
  JsonSource & operator=(JsonSource const &) = delete;
  ~JsonSource() override { run_->ownerDeletedIs(); }

  std::string name() const override { return "json:" + path_; }
  void start() override;
  void reread() override;
  SourceStatus status() const override;

private:
  using Pace = StateDb::FullRead::Pace;
  using Run = Flowa::Gen::InReactor<JsonSource>;

  void beginReading();
  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  /// True if and only if the file has been read to its end. Raises JsonFileError.
  bool readUntilYield();
  void publish(Pace pace);
  void readingIsOver();
  void reject(std::string_view error);
  void watch();

  std::string const path_;
  Os::Loop & loop_;
  StateDb::Publisher publisher_;
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Run> const run_;
  std::unique_ptr<FolderWatch> watch_;
  bool isReading_ = false; // until what was read is published
  bool readAgain_ = false; // when that is done
  std::optional<StateDb::FullRead> read_;
  std::unique_ptr<Os::Coroutine> reader_; // hands to read_, so it goes first
  SourceStatus status_;
};

JsonSource::JsonSource(std::string path, Surroundings const & surroundings)
    : path_(std::move(path)),
      loop_(surroundings.loop),
      publisher_(surroundings.publishers),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(),
                                     readingPriority, name())),
      run_(Zel::makePtr<Run>(*this, &JsonSource::run, task_.get())) {}

// At once: there is nothing else to do yet.
void JsonSource::start() {
  watch();
  LUMO_TRACE(traceHandler(), entry, "reading {}", path_);
  read_ = publisher_.beginFullRead();
  readDocument(path_, *read_, [] { return true; });
  publish(Pace::atOnce);
}

// A reading that is under way may have passed what is to be read: it ends, since it would never end
// if each wish began it anew, and then another one begins.
void JsonSource::reread() {
  if (isReading_) {
    readAgain_ = true;
    return;
  }
  try {
    beginReading();
  } catch (std::exception const & exception) {
    reject(exception.what());
  }
}

SourceStatus JsonSource::status() const {
  auto status = status_;
  status.isReading = isReading_;
  status.records = publisher_.counts();
  status.changes = publisher_.changes();
  return status;
}

void JsonSource::beginReading() {
  if (!watch_ || !watch_->isAlive())
    watch();
  LUMO_TRACE(traceHandler(), entry, "reading {}", path_);
  isReading_ = true;
  read_ = publisher_.beginFullRead();
  reader_ = std::make_unique<Os::Coroutine>(
      [this](Os::Coroutine::Pause const & pause) { readDocument(path_, *read_, pause); });
  task_->scheduleTask();
}

void JsonSource::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  try {
    if (!readUntilYield())
      return task_->scheduleTask();
  } catch (std::exception const & exception) {
    return reject(exception.what());
  }
  reader_.reset();
  publish(Pace::inRuns);
}

bool JsonSource::readUntilYield() {
  while (reader_->resume())
    if (task_->taskShouldYield())
      return false;
  return true;
}

void JsonSource::publish(Pace pace) {
  auto read = *std::exchange(read_, std::nullopt);
  std::move(read).commit(pace, [this, before = publisher_.changes()] {
    if (auto const changes = publisher_.changes() - before; changes != 0)
      LUMO_TRACE(traceHandler(), output, "published {} changes", changes);
    readingIsOver();
  });
}

void JsonSource::readingIsOver() {
  isReading_ = false;
  ++status_.fullReads;
  status_.state = SourceStatus::State::inSync;
  status_.lastError.clear();
  if (std::exchange(readAgain_, false))
    reread();
}

void JsonSource::reject(std::string_view error) {
  isReading_ = false;
  reader_.reset();
  read_.reset();
  rejectedReadings.inc();
  status_.state = SourceStatus::State::degraded;
  status_.lastError = error;
  LUMO_TRACE(traceHandler(), fault, "{}", status_.lastError);
  if (std::exchange(readAgain_, false))
    reread();
}

// Before the file is read, so that no change is missed in between.
void JsonSource::watch() {
  std::filesystem::path const path(path_);
  auto const folder = path.has_parent_path() ? path.parent_path().string() : ".";
  try {
    watch_ = std::make_unique<FolderWatch>(folder, path.filename().string(), loop_,
                                           [this] { reread(); });
  } catch (std::system_error const & error) {
    throw JsonFileError(
        fmt::format("{}: the folder {} cannot be watched: {}; see to it, then reload", path_,
                    folder, error.code().message()));
  }
}

} // namespace

std::unique_ptr<Source> makeJsonSource(std::string path, Surroundings const & surroundings) {
  return std::make_unique<JsonSource>(std::move(path), surroundings);
}

} // namespace Sources
