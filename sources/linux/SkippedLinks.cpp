// Counts links by kind as they come and go.
#include "sources/linux/SkippedLinks.h"
#include <fmt/format.h>

namespace Sources::Linux {

void SkippedLinks::linkIs(std::uint32_t index, std::optional<TunnelKind> kind) {
  if (auto const found = links_.find(index); found != links_.end())
    erase(found);
  if (kind)
    ++countOf(links_.emplace(index, Entry{*kind, reading_}).first->second);
}

void SkippedLinks::endReading(bool whole) {
  for (auto link = links_.begin(); whole && link != links_.end();)
    link = link->second.reading == reading_ ? std::next(link) : erase(link);
}

std::string SkippedLinks::summary() const {
  std::string counts;
  std::string wanted;
  for (std::size_t i = 0; i != counts_.size(); ++i) {
    if (counts_[i] == 0)
      continue;
    auto const kind = kindName(static_cast<TunnelKind>(i));
    counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", counts_[i], kind);
    wanted += fmt::format("{}+{}", wanted.empty() ? "" : ",", kind);
  }
  return counts.empty() ? ""
                        : fmt::format("{}; --source linux:kinds={} publishes them", counts, wanted);
}

SkippedLinks::Links::iterator SkippedLinks::erase(Links::iterator position) {
  --countOf(position->second);
  return links_.erase(position);
}

} // namespace Sources::Linux
