// What the daemon gives its sources, with time, descriptors and tasks that a test drives.
#pragma once

#include "sources/Source.h"
#include "statedb/Publishers.h"
#include "statedb/StateDb.h"
#include "statedb/StateDocument.h"
#include "tests/support/TestLoop.h"
#include "tests/support/TestScheduler.h"
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/// For a source whose start is to read everything, however slow the machine is.
inline constexpr std::chrono::hours allTheTime{1};

/// Its scheduler is the process's default while it lives.
class SourceHost {
public:
  explicit SourceHost(Yield yield = Yield::random) {
    scheduler->yieldIs(yield);
    Kiln::TaskSchedulerRoot::schedulerIs(scheduler);
  }
  SourceHost(SourceHost const &) = delete;
  SourceHost & operator=(SourceHost const &) = delete;
  ~SourceHost() { Kiln::TaskSchedulerRoot::schedulerIs(nullptr); }

  Sources::Surroundings surroundings() {
    return {loop,
            publishers,
            links,
            boundLinks,
            [this](Sources::Source const & source) { told.push_back(source.status().state); },
            [this](Sources::Source const &, std::string_view text) { notes.emplace_back(text); }};
  }

  /// Lets everything happen that has begun. Waits up to `patience` of real time for the first
  /// descriptor.
  void settle(std::chrono::milliseconds patience = std::chrono::milliseconds(0)) {
    loop.runReady(patience);
    while (scheduler->runUntilQuiet() != 0 || loop.runReady()) {
    }
  }
  /// What is in the document at the pointer; null also when there is nothing.
  nlohmann::json at(std::string const & pointer) const {
    auto const all = document.read("");
    nlohmann::json::json_pointer const place(pointer);
    return all.contains(place) ? all[place] : nlohmann::json();
  }
  /// Applies a patch of one operation.
  void patch(char const * op, std::string const & path, nlohmann::json const & value = {}) {
    document.apply(nlohmann::json::array({{{"op", op}, {"path", path}, {"value", value}}}));
  }

  Zel::Ptr<TestScheduler> const scheduler = Zel::makePtr<TestScheduler>(Yield::random, testSeed());
  TestLoop loop;
  StateDb::StateDb database;
  StateDb::StateDocument document{database};
  StateDb::Publishers publishers{database};
  Sources::Links links;
  Sources::Ike::BoundLinks boundLinks;
  /// The states that the sources have come to.
  std::vector<Sources::SourceStatus::State> told;
  /// What the sources have said besides.
  std::vector<std::string> notes;
};
