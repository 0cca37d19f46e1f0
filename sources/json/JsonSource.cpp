// Follows one file: read, decode, publish the differences.
//
// Traces under "JsonSource": 0 faults, 7 what is published, 8 each reading.
#include "sources/json/JsonSource.h"
#include "os/Coroutine.h"
#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "platform/Lumo.h"
#include "sources/Health.h"
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

// Known by its name before it has traced anything, so that it can be switched on.
auto const debugHandler = Lumo::Platform::getDebugHandler("JsonSource", false);
Lumo::DebugHandler const & traceHandler() {
  return *debugHandler;
}

class JsonSource final : public Source {
public:
  JsonSource(std::string path, Surroundings const & surroundings,
             std::chrono::milliseconds patience);
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
  using Clock = std::chrono::steady_clock;

  void fileMayHaveChanged();
  bool isAsItWasRead() const;
  void beginReading();
  void read(Os::Coroutine::Pause const & pause);
  bool isTimeToPause() const;
  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  void publish(Pace pace);
  void readingIsOver();
  void reject(std::exception const & reason);
  void giveUp(std::string_view error);
  void tryWhenStuck();
  void readAgainIfWished();
  void watch();

  std::string const path_;
  Os::Loop & loop_;
  std::chrono::milliseconds const patience_;
  Health health_;
  StateDb::Publisher publisher_;
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Run> const run_;
  std::unique_ptr<FolderWatch> watch_;
  Os::Loop::Handle retry_;
  Os::Loop::Handle const lastResort_; // made at the start: for when there is no memory for retry_
  bool isStuck_ = false;
  bool isReading_ = false;                     // until what was read is published
  bool readAgain_ = false;                     // when that is done
  std::optional<Clock::time_point> startEnds_; // while the start waits
  std::optional<FileVersion> version_;         // what was read last, if it can be told from others
  std::optional<StateDb::FullRead> read_;
  std::unique_ptr<Os::Coroutine> reader_; // hands to read_, so it goes first
  std::uint64_t fullReads_ = 0;
};

JsonSource::JsonSource(std::string path, Surroundings const & surroundings,
                       std::chrono::milliseconds patience)
    : path_(std::move(path)),
      loop_(surroundings.loop),
      patience_(patience),
      health_([this, changed = surroundings.stateChanged] {
        if (changed)
          changed(*this);
      }),
      publisher_(surroundings.publishers),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(),
                                     readingPriority, name())),
      run_(Zel::makePtr<Run>(*this, &JsonSource::run, task_.get())),
      lastResort_(loop_.every(jsonRetryPeriod, [this] { tryWhenStuck(); })) {}

// As far as it can be read while somebody waits: then the machines find all of it.
void JsonSource::start() {
  beginReading();
  startEnds_ = Clock::now() + patience_;
  auto const isPaused = reader_->resume();
  startEnds_.reset();
  if (isPaused)
    return task_->scheduleTask();
  reader_.reset();
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
    task_->scheduleTask();
  } catch (std::exception const & exception) {
    reject(exception);
  }
}

SourceStatus JsonSource::status() const {
  return {.state = health_.state(),
          .isReading = isReading_,
          .lastError = health_.lastError(),
          .records = publisher_.counts(),
          .fullReads = fullReads_,
          .changes = publisher_.changes()};
}

void JsonSource::fileMayHaveChanged() {
  if (isReading_ || !isAsItWasRead())
    reread();
}

bool JsonSource::isAsItWasRead() const {
  return health_.state() == SourceStatus::State::inSync && watch_->isAlive() && version_ &&
         version_ == readableVersion(path_);
}

void JsonSource::beginReading() {
  retry_.reset();
  if (!watch_ || !watch_->isAlive())
    watch();
  LUMO_TRACE(traceHandler(), entry, "reading {}", path_);
  version_.reset();
  read_ = publisher_.beginFullRead();
  reader_ =
      std::make_unique<Os::Coroutine>([this](Os::Coroutine::Pause const & pause) { read(pause); });
  isReading_ = true;
}

void JsonSource::read(Os::Coroutine::Pause const & pause) {
  version_ = readDocument(path_, *read_, [&] { return !isTimeToPause() || pause(); });
}

bool JsonSource::isTimeToPause() const {
  return startEnds_ ? Clock::now() >= *startEnds_ : task_->taskShouldYield();
}

void JsonSource::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  if (!reader_)
    return; // the reading was given up
  try {
    if (reader_->resume())
      return task_->scheduleTask();
    reader_.reset();
    publish(Pace::inRuns);
  } catch (std::exception const & exception) {
    reject(exception);
  }
}

void JsonSource::publish(Pace pace) {
  auto read = *std::exchange(read_, std::nullopt);
  auto const done = [this, before = publisher_.changes()] {
    if (auto const changes = publisher_.changes() - before; changes != 0)
      LUMO_TRACE(traceHandler(), output, "published {} changes", changes);
    readingIsOver();
  };
  std::move(read).commit(pace, done, [this](std::exception const & reason) { reject(reason); });
}

void JsonSource::readingIsOver() {
  isReading_ = false;
  ++fullReads_;
  health_.inSyncIs();
  readAgainIfWished();
}

// A fault of the text stays until somebody mends it, which is heard of. Of others nobody need hear
// when they are over.
void JsonSource::reject(std::exception const & reason) {
  reader_.reset(); // before anything asks for memory
  read_.reset();
  version_.reset();
  auto const * const wrong = dynamic_cast<JsonFileError const *>(&reason);
  auto const isOfTheText =
      wrong != nullptr && dynamic_cast<JsonFileUnreadable const *>(wrong) == nullptr;
  try {
    giveUp(wrong != nullptr ? wrong->what()
                            : fmt::format("{}: cannot be read: {}", path_, reasonOf(reason)));
    if (!isOfTheText)
      retry_ = loop_.after(jsonRetryPeriod, [this] { reread(); });
  } catch (std::exception const & shortage) {
    giveUp(reasonOf(shortage));
    isStuck_ = !isOfTheText;
  }
  readAgainIfWished();
}

void JsonSource::tryWhenStuck() {
  if (std::exchange(isStuck_, false) && !isReading_ && !retry_)
    reread();
}

void JsonSource::giveUp(std::string_view error) {
  isReading_ = false;
  rejectedReadings.inc();
  health_.degradedIs(error);
  LUMO_TRACE(traceHandler(), fault, "{}", error);
}

void JsonSource::readAgainIfWished() {
  if (std::exchange(readAgain_, false))
    reread();
}

// Before the file is read, so that no change is missed in between.
void JsonSource::watch() {
  std::filesystem::path const path(path_);
  auto const folder = path.has_parent_path() ? path.parent_path().string() : ".";
  try {
    watch_ = std::make_unique<FolderWatch>(folder, path.filename().string(), loop_,
                                           [this] { fileMayHaveChanged(); });
  } catch (std::system_error const & error) {
    throw JsonFileUnreadable(fmt::format("{}: the folder {} cannot be watched: {}", path_, folder,
                                         error.code().message()));
  }
}

} // namespace

std::unique_ptr<Source> makeJsonSource(std::string path, Surroundings const & surroundings,
                                       std::chrono::milliseconds patience) {
  return std::make_unique<JsonSource>(std::move(path), surroundings, patience);
}

} // namespace Sources
