// Switches the handles on, and back at the end.
#include "tests/support/TraceRecorder.h"
#include <algorithm>

TraceRecorder::TraceRecorder(std::initializer_list<std::pair<std::string, std::string>> levels) {
  for (auto const & [handler, list] : levels) {
    handlers_.push_back(handler);
    Lumo::traceLevelsIs(handler, Lumo::parseLevels(list));
  }
  before_ = Lumo::traceSinkIs([this](Lumo::TraceMessage const & message) {
    lines_.push_back({message.handler.name(), message.level, std::string(message.file()),
                      std::string(message.object), std::string(message.function),
                      std::string(message.text)});
  });
}

TraceRecorder::~TraceRecorder() {
  for (auto const & handler : handlers_)
    Lumo::traceLevelsIs(handler, 0);
  Lumo::traceSinkIs(before_);
}

std::vector<std::string> TraceRecorder::texts(int level) const {
  std::vector<std::string> texts;
  for (auto const & line : lines_)
    if (level == -1 || line.level == level)
      texts.push_back(line.text);
  return texts;
}

bool TraceRecorder::has(int level, std::string const & text) const {
  return std::ranges::any_of(
      lines_, [&](auto const & line) { return line.level == level && line.text == text; });
}
