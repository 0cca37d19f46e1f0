// Catches trace messages while it lives, and switches on the levels that a test wants to see.
#pragma once

#include "platform/Lumo.h"
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

class TraceRecorder {
public:
  struct Line {
    std::string handler;
    int level;
    std::string file;
    std::string object;
    std::string function;
    std::string text;
  };

  /// Switches on the given levels, for example {{"TunnelIfTableSm", "6-9"}}.
  explicit TraceRecorder(std::initializer_list<std::pair<std::string, std::string>> levels);
  TraceRecorder(TraceRecorder const &) = delete;
  TraceRecorder & operator=(TraceRecorder const &) = delete;
  /// Gives the sink back and switches those handlers' levels off.
  ~TraceRecorder();

  std::vector<Line> const & lines() const { return lines_; }
  /// The texts at that level (-1: at any), in order.
  std::vector<std::string> texts(int level = -1) const;
  bool has(int level, std::string const & text) const;
  void clear() { lines_.clear(); }

private:
  std::vector<std::string> handlers_;
  std::vector<Line> lines_;
  Lumo::TraceSink before_;
};
