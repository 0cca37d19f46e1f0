// Follows one file: read, decode, publish the difference.
//
// Traces under "JsonSource": 0 faults, 7 each publication, 8 each reading.
#include "sources/json/JsonSource.h"
#include "platform/Lumo.h"
#include "sources/json/FolderWatch.h"
#include "sources/json/JsonFile.h"
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <system_error>

namespace Sources {

// mimalloc's. Weak, because not every program that this library is part of has its malloc from
// there: the daemon does, but not one with a sanitizer. Null in the others.
extern "C" [[gnu::weak]] void mi_collect(bool force) noexcept;

using nlohmann::json;
using namespace nlohmann::literals;

namespace {

constexpr int fault = 0;
constexpr int output = 7;
constexpr int entry = 8;

Lumo::Counter rejectedReadings("json-readings-rejected");

Lumo::DebugHandler const & traceHandler() {
  static auto const handler = Lumo::Platform::getDebugHandler("JsonSource", false);
  return *handler;
}

/// Has malloc return free memory to the system at the end of a scope. The documents of a large file
/// take many times what its records take.
struct GiveBack {
  ~GiveBack() {
    if (mi_collect != nullptr)
      mi_collect(true);
  }
};

class JsonSource final : public Source {
public:
  JsonSource(std::string path, Os::Loop & loop, StateDb::StateDocument & document)
      : path_(std::move(path)),
        loop_(loop),
        document_(document) {}

  std::string name() const override { return "json:" + path_; }
  void start() override;
  void reread() override;
  SourceStatus status() const override { return status_; }

private:
  void watch();
  void readAndPublish();

  std::string const path_;
  Os::Loop & loop_;
  StateDb::StateDocument & document_;
  std::unique_ptr<FolderWatch> watch_;
  /// The file's last good content, as the text that it was: parsed, it is many times as large.
  std::string published_ = "{}";
  SourceStatus status_;
};

void JsonSource::start() {
  watch();
  readAndPublish();
}

void JsonSource::reread() {
  try {
    if (!watch_ || !watch_->isAlive())
      watch();
    readAndPublish();
  } catch (std::exception const & exception) {
    rejectedReadings.inc();
    status_.state = SourceStatus::State::degraded;
    status_.lastError = exception.what();
    LUMO_TRACE(traceHandler(), fault, "{}", status_.lastError);
  }
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

void JsonSource::readAndPublish() {
  LUMO_TRACE(traceHandler(), entry, "reading {}", path_);
  GiveBack const giveBack;
  auto text = readFile(path_);
  auto const fresh = decodeDocument(path_, text);
  ++status_.fullReads;
  if (auto const patch = document_.publication(json::parse(published_), fresh); !patch.empty()) {
    LUMO_TRACE(traceHandler(), output, "publishing {}", patch.dump());
    document_.apply(patch);
    ++status_.patches;
  }
  published_ = std::move(text);
  status_.records = fresh.value("/tunnelIntfStatusDir/intfStatus"_json_pointer, json()).size();
  status_.state = SourceStatus::State::inSync;
  status_.lastError.clear();
}

} // namespace

std::unique_ptr<Source> makeJsonSource(std::string path, Os::Loop & loop,
                                       StateDb::StateDocument & document) {
  return std::make_unique<JsonSource>(std::move(path), loop, document);
}

} // namespace Sources
