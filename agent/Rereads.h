// Reading everything again, as HUP and "tunnelsnmpctl reread" want it: the configuration at once,
// the sources in their own time. Each wish is answered, also when a source never comes to rest.
#pragma once

#include "agent/Commands.h"
#include "os/Loop.h"
#include "sources/Source.h"
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// One reading is under way at a time. All wishes that come meanwhile are one further reading.
class Rereads {
public:
  /// How long a reading may take before its wishes are told which source is still at it. That
  /// source goes on.
  static constexpr std::chrono::seconds patience{30};
  using Sources = std::vector<std::unique_ptr<::Sources::Source>>;
  /// Reads the configuration; returns a line for each failure.
  using ReadConfiguration = std::function<std::vector<std::string>()>;
  /// Hears when readings begin (true), and when the last one that was wished is over (false).
  using Listener = std::function<void(bool isUnderWay)>;

  /// `loop` and `sources` outlive it.
  Rereads(Os::Loop & loop, Sources const & sources, ReadConfiguration readConfiguration,
          Listener listener);
  Rereads(Rereads const &) = delete;
  Rereads & operator=(Rereads const &) = delete;

  /// Wishes that everything be read. The failures are reported, and put into what is returned, when
  /// all is read or `patience` is over; which may be before this returns.
  std::shared_ptr<RereadOutcome const> wish();
  /// True if and only if a reading is under way.
  bool isUnderWay() const { return current_ != nullptr; }

private:
  void begin();
  void look();
  void end();
  std::vector<std::string> sourceFailures() const;

  Os::Loop & loop_;
  Sources const & sources_;
  ReadConfiguration const readConfiguration_;
  Listener const listener_;
  std::shared_ptr<RereadOutcome> current_; // of the reading under way
  std::shared_ptr<RereadOutcome> next_;    // of the one that follows it; null: nobody wishes one
  std::vector<std::string> failures_;      // of the one under way, until now
  Os::Loop::Handle nextLook_;              // whether it is over
  Os::Loop::Handle patienceEnds_;
};

} // namespace Agent
