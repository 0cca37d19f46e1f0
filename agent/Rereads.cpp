// Looks at the sources again and again until all of them have read.
#include "agent/Rereads.h"
#include "agent/Report.h"
#include <algorithm>
#include <new>
#include <utility>

namespace Agent {

namespace {

Lumo::Counter rereads("agent-rereads");

/// How often it is looked whether the sources have read everything. Nobody waits for it but a
/// person.
constexpr std::chrono::milliseconds lookPeriod{10};

bool isReading(std::unique_ptr<Sources::Source> const & source) {
  return source->status().isReading;
}

} // namespace

Rereads::Rereads(Os::Loop & loop, Sources const & sources, ReadConfiguration readConfiguration,
                 Listener listener)
    : loop_(loop),
      sources_(sources),
      readConfiguration_(std::move(readConfiguration)),
      listener_(std::move(listener)) {}

// What is under way may have passed what the wish is about, so it is met by the one that follows.
std::shared_ptr<RereadOutcome const> Rereads::wish() {
  rereads.inc();
  auto & outcome = current_ ? next_ : current_;
  auto const isFirst = outcome == nullptr;
  if (isFirst)
    outcome = std::make_shared<RereadOutcome>();
  auto const answer = outcome;
  if (isFirst && answer == current_) {
    listener_(true);
    begin();
  }
  return answer;
}

void Rereads::begin() {
  try {
    failures_ = readConfiguration_();
    for (auto const & source : sources_)
      source->reread();
    patienceEnds_ = loop_.after(patience, [this] { end(); });
    look();
  } catch (std::bad_alloc const & shortage) {
    reportEnd(shortage);
    end();
  } catch (std::exception const & error) { // else nobody would ever end it
    failures_.emplace_back(error.what());
    end();
  }
}

void Rereads::look() {
  if (!std::ranges::any_of(sources_, isReading))
    return end();
  nextLook_ = loop_.after(lookPeriod, [this] { look(); });
}

void Rereads::end() {
  nextLook_.reset();
  patienceEnds_.reset();
  auto failures = std::exchange(failures_, {});
  try {
    std::ranges::move(sourceFailures(), std::back_inserter(failures));
  } catch (std::bad_alloc const &) {
    // Those who wait are answered all the same.
  }
  for (auto const & failure : failures)
    report(failure);
  *std::exchange(current_, std::exchange(next_, nullptr)) = std::move(failures);
  if (current_)
    begin();
  else
    listener_(false);
}

std::vector<std::string> Rereads::sourceFailures() const {
  std::vector<std::string> failures;
  for (auto const & source : sources_) {
    auto const status = source->status();
    if (status.isReading)
      failures.push_back(fmt::format("{}: is still reading after {} s; \"tunnelsnmpctl status\" "
                                     "shows when it has done so",
                                     source->name(), patience.count()));
    else if (!status.lastError.empty())
      failures.push_back(fmt::format("{}: {}", source->name(), status.lastError));
  }
  return failures;
}

} // namespace Agent
