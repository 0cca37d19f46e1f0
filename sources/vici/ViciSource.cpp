// Connects, asks, listens, lists; and begins again whenever a connection is lost.
//
// Traces under "ViciSource": 0 faults and losses, 1 connections, 7 what is published, 8 listings, 9
// events.
#include "sources/vici/ViciSource.h"
#include "platform/Lumo.h"
#include "sources/vici/Listing.h"
#include <algorithm>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <new>
#include <utility>

namespace Sources {

namespace {

using Vici::Octets;
using Vici::Unreachable;

constexpr int fault = 0;
constexpr int started = 1;
constexpr int output = 7;
constexpr int entry = 8;
constexpr int detail = 9;

/// As JsonSource's: what is known already is served before more is read.
constexpr Kiln::TaskPriority priority = 4;

/// What a change is heard of by.
constexpr std::string_view hintEvents[] = {"ike-updown", "ike-rekey", "ike-update", "child-updown",
                                           "child-rekey"};

Lumo::Counter losses("vici-losses");
Lumo::Counter unknownEvents("vici-events-unknown");
Lumo::Counter unexpectedEvents("vici-events-unexpected");
Lumo::Counter conflicts("vici-conflicts");

// Known by its name before it has traced anything, so that it can be switched on.
auto const debugHandler = Lumo::Platform::getDebugHandler("ViciSource", false);
Lumo::DebugHandler const & traceHandler() {
  return *debugHandler;
}

void requireSuccess(Octets answer) {
  if (auto const error = Vici::decodeError(answer); !error.empty())
    throw Unreachable(fmt::format("it refuses to list: {}", error));
}

void requireKnown(bool isKnown) {
  if (!isKnown)
    throw Unreachable("it does not know how to list");
}

std::string timeText(std::chrono::system_clock::time_point time) {
  auto const age =
      std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now() - time);
  auto const seconds = std::chrono::floor<std::chrono::seconds>(time);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}Z, {} s ago", fmt::gmtime(seconds), age.count());
}

} // namespace

std::unique_ptr<Source> makeViciSource(std::string_view options,
                                       Surroundings const & surroundings) {
  return std::make_unique<ViciSource>(options, surroundings);
}

ViciSource::ViciSource(std::string_view options, Surroundings const & surroundings)
    : text_(options),
      options_(Vici::Options::fromText(options)),
      loop_(surroundings.loop),
      links_(surroundings.links),
      index_(surroundings.links),
      health_([this, changed = surroundings.stateChanged] {
        if (changed)
          changed(*this);
      }),
      publication_(surroundings.publishers, surroundings.boundLinks),
      task_(Zel::makePtr<Kiln::Task>(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), priority,
                                     "ViciSource-bindingTask")),
      run_(Zel::makePtr<Run>(*this, &ViciSource::run, task_.get())) {}

void ViciSource::start() {
  linksWatch_ = links_.watch([this](Plexa::IntfId) { linkHasChanged(); });
  look_ = loop_.every(listingPeriod, [this] { lookAfterItself(); });
  connect();
}

// A listing that is under way may have passed what is to be read.
void ViciSource::reread() {
  if (phase_ == Phase::away)
    connect();
  else if (phase_ == Phase::resting)
    listOrLose();
  else if (phase_ != Phase::greeting)
    again_ = Again::atOnce;
}

SourceStatus ViciSource::status() const {
  SourceStatus status{.state = health_.state(),
                      .isReading = isReading(),
                      .lastError = health_.lastError(),
                      .records = publication_.publisher().counts(),
                      .fullReads = fullReads_,
                      .changes = publication_.publisher().changes()};
  auto & details = status.details;
  if (!daemon_.empty())
    details.emplace_back("daemon", daemon_);
  if (!lastListing_)
    return status;
  auto const & bindings = publication_.bindings();
  details.emplace_back("last listing", timeText(*lastListing_));
  details.emplace_back("SAs",
                       fmt::format("{} bound, {} not", bindings.boundSas, bindings.unboundSas));
  if (bindings.conflicts != 0)
    details.emplace_back("contested interfaces", std::to_string(bindings.conflicts));
  return status;
}

std::vector<Ike::ConnectionReport> ViciSource::connections() const {
  return publication_.bindings().reports;
}

// The second connection comes when the first one has been answered on: a daemon that is stopped has
// one connection waiting for it, not two.
void ViciSource::connect() {
  phase_ = Phase::greeting;
  next_.reset();
  try {
    greet();
  } catch (std::exception const & reason) {
    lost(reason);
  }
}

void ViciSource::greet() {
  LUMO_TRACE(traceHandler(), detail, "connecting to {}", options_.socket);
  requests_.emplace(
      options_.socket, loop_,
      callbacks([this](std::string_view event, Octets message) { takeListed(event, message); }));
  requests_->call("version", [this](Octets answer) { daemon_ = Vici::decodeVersion(answer); });
  requests_->registerEvent("list-sa", requireKnown);
  requests_->registerEvent("list-conn", [this](bool isKnown) {
    requireKnown(isKnown);
    openEvents();
  });
}

// The first listing begins when everything is registered, so that nothing is missed in between.
void ViciSource::openEvents() {
  events_.emplace(options_.socket, loop_,
                  callbacks([this](std::string_view event, Octets) { eventIs(event); }));
  for (auto const event : hintEvents)
    events_->registerEvent(event, [this, isLast = event == std::end(hintEvents)[-1]](bool isKnown) {
      if (!isKnown)
        unknownEvents.inc();
      if (!isLast)
        return;
      LUMO_TRACE(traceHandler(), started, "connected to {}", daemon_);
      list();
    });
}

Vici::Conversation::Callbacks
ViciSource::callbacks(std::function<void(std::string_view, Octets)> event) {
  return {.event = std::move(event),
          .lost = [this](std::exception const & reason) { lost(reason); }};
}

void ViciSource::listOrLose() {
  try {
    list();
  } catch (std::exception const & reason) {
    lost(reason);
  }
}

void ViciSource::list() {
  LUMO_TRACE(traceHandler(), entry, "listing connections and SAs");
  phase_ = Phase::listing;
  again_ = Again::asUsual;
  isHinted_ = false;
  next_.reset();
  binding_.emplace(index_, options_.bindings);
  requests_->call("list-conns", requireSuccess);
  requests_->call("list-sas", [this](Octets answer) {
    requireSuccess(answer);
    listingIsOver();
  });
}

void ViciSource::takeListed(std::string_view event, Octets message) {
  if (phase_ != Phase::listing)
    return unexpectedEvents.inc();
  if (event == "list-sa")
    for (auto const & sa : Vici::decodeSas(message))
      binding_->saIs(sa);
  else if (event == "list-conn")
    for (auto const & connection : Vici::decodeConnections(message))
      binding_->connectionIs(connection);
  else
    unexpectedEvents.inc();
}

void ViciSource::listingIsOver() {
  becomesUnknown_.reset();
  pause_ = shortestPause;
  task_->scheduleTask();
  phase_ = Phase::binding;
}

// The connections may have been lost meanwhile.
void ViciSource::run(Zel::Attribute const &, Flowa::Gen::NoKey const &) {
  if (phase_ != Phase::binding)
    return;
  try {
    bind();
  } catch (std::exception const & reason) {
    lost(reason);
  }
}

void ViciSource::bind() {
  while (binding_->prepareNext())
    if (task_->taskShouldYield())
      return task_->scheduleTask();
  auto bindings = std::move(*binding_).result();
  binding_.reset();
  publish(std::move(bindings));
}

void ViciSource::publish(Ike::Bindings bindings) {
  if (bindings.conflicts != 0)
    noteConflicts(bindings);
  auto const done = [this, before = publication_.publisher().changes()] {
    if (auto const changes = publication_.publisher().changes() - before; changes != 0)
      LUMO_TRACE(traceHandler(), output, "published {} changes", changes);
    publishingIsOver();
  };
  publication_.bindingsAre(std::move(bindings), done,
                           [this](std::exception const & reason) { publishingFailed(reason); });
  phase_ = Phase::publishing;
  lastListing_ = std::chrono::system_clock::now();
  isUnknown_ = false;
}

// What was so before has been traced before.
void ViciSource::noteConflicts(Ike::Bindings const & bindings) const {
  conflicts.inc();
  auto const & known = publication_.bindings().interfaces;
  for (auto const & [intfId, bound] : bindings.interfaces) {
    auto const before = known.find(intfId);
    auto const isNews = before == known.end() || !before->second.isContested ||
                        before->second.profile != bound.profile;
    if (bound.isContested && isNews)
      LUMO_TRACE(traceHandler(), output, "link {}: several connections claim it, {} has it", intfId,
                 bound.profile);
  }
}

// The connections may have been lost meanwhile.
void ViciSource::publishingIsOver() {
  ++fullReads_;
  if (phase_ != Phase::publishing)
    return;
  health_.inSyncIs();
  restOrLose();
}

void ViciSource::publishingFailed(std::exception const & reason) {
  degrade(reasonOf(reason));
  if (phase_ == Phase::publishing)
    restOrLose();
}

void ViciSource::restOrLose() {
  try {
    rest();
  } catch (std::exception const & reason) {
    lost(reason);
  }
}

void ViciSource::rest() {
  if (again_ == Again::atOnce)
    return list();
  phase_ = Phase::resting;
  isHinted_ = again_ == Again::soon;
  listIn(isHinted_ ? gathering : listingPeriod);
}

void ViciSource::listIn(std::chrono::milliseconds time) {
  next_ = loop_.after(time, [this] { listOrLose(); });
}

void ViciSource::eventIs(std::string_view event) {
  LUMO_TRACE(traceHandler(), detail, "event {}", event);
  if (std::ranges::find(hintEvents, event) == std::end(hintEvents))
    return unexpectedEvents.inc();
  hint();
}

void ViciSource::linkHasChanged() {
  try {
    hint();
  } catch (std::bad_alloc const &) {
    // The next listing does without.
  }
}

// One that comes while there is no listing yet is before the first.
void ViciSource::hint() {
  if (phase_ == Phase::listing || phase_ == Phase::binding || phase_ == Phase::publishing)
    again_ = std::max(again_, Again::soon);
  if (phase_ != Phase::resting || isHinted_)
    return;
  listIn(gathering);
  isHinted_ = true;
}

// Whatever was lost, both connections begin anew.
void ViciSource::lost(std::exception const & reason) {
  losses.inc();
  requests_.reset();
  events_.reset();
  binding_.reset();
  next_.reset();
  phase_ = Phase::away;
  auto const isSilent = dynamic_cast<Vici::Silent const *>(&reason) != nullptr;
  expectNext(isSilent ? unknownAfter - Vici::Conversation::patience : unknownAfter);
  try {
    awayFor(reason);
  } catch (std::bad_alloc const & shortage) {
    health_.degradedIs(reasonOf(shortage));
  }
}

void ViciSource::awayFor(std::exception const & reason) {
  auto const isWrong = dynamic_cast<Vici::Malformed const *>(&reason) != nullptr;
  degrade(fmt::format("source vici: {}: {}{}", options_.socket, isWrong ? "it sends " : "",
                      reasonOf(reason)));
}

void ViciSource::lookAfterItself() {
  if (phase_ == Phase::away)
    expectNext(unknownAfter);
}

void ViciSource::expectNext(std::chrono::milliseconds unknownIn) {
  try {
    if (!next_) {
      next_ = loop_.after(pause_, [this] { connect(); });
      pause_ = std::min<std::chrono::milliseconds>(2 * pause_, longestPause);
    }
    if (lastListing_ && !isUnknown_ && !becomesUnknown_)
      becomesUnknown_ = loop_.after(unknownIn, [this] { becomeUnknown(); });
  } catch (std::exception const &) {
    // The next look finds what is missing.
  }
}

// As far as there is memory for it: else at the next look.
void ViciSource::becomeUnknown() {
  becomesUnknown_.reset();
  try {
    auto bindings = publication_.bindings();
    for (auto & [intfId, bound] : bindings.interfaces)
      bound.state = ::Ipsec::Ike::ConnState::unknown;
    for (auto & report : bindings.reports)
      report.state = ::Ipsec::Ike::ConnState::unknown;
    publication_.bindingsAre(std::move(bindings), {},
                             [this](std::exception const &) { isUnknown_ = false; });
    isUnknown_ = true;
  } catch (std::bad_alloc const &) {
    isUnknown_ = false;
  }
}

void ViciSource::degrade(std::string_view error) {
  LUMO_TRACE(traceHandler(), fault, "{}", error);
  health_.degradedIs(error);
}

bool ViciSource::isReading() const {
  return phase_ != Phase::stopped && phase_ != Phase::away && phase_ != Phase::resting;
}

} // namespace Sources
