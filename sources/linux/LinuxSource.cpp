// Decodes the kernel's messages and publishes what they say.
//
// Traces under "LinuxSource": 0 faults and losses, 7 what is published, 8 full reads, 9 messages
// that change nothing.
#include "sources/linux/LinuxSource.h"
#include "platform/Lumo.h"
#include "sources/linux/LinuxOptions.h"
#include <fmt/format.h>
#include <fstream>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <new>
#include <utility>

namespace Sources {
namespace {

constexpr int fault = 0;
constexpr int output = 7;
constexpr int detail = 9;

Lumo::Counter malformedMessages("linux-messages-malformed");

// Known by its name before it has traced anything, so that it can be switched on.
auto const debugHandler = Lumo::Platform::getDebugHandler("LinuxSource", false);
Lumo::DebugHandler const & traceHandler() {
  return *debugHandler;
}

void traceMalformed(Linux::MalformedMessage const & malformed) {
  malformedMessages.inc();
  LUMO_TRACE(traceHandler(), fault, "message about link {} is malformed: {}", malformed.index,
             malformed.reason);
}

Linux::NetlinkSubject const & subject() {
  static Linux::NetlinkSubject const links{.protocol = NETLINK_ROUTE,
                                           .family = "a route",
                                           .things = "links",
                                           .groups = {RTNLGRP_LINK},
                                           .request = RTM_GETLINK,
                                           .requestZeros = sizeof(ifinfomsg)};
  return links;
}

std::uint8_t hopLimitSetting(char const * path) {
  constexpr int recommended = 64;
  std::ifstream file(path);
  int value = 0;
  auto const usable = file >> value && value > 0 && value <= UINT8_MAX;
  return static_cast<std::uint8_t>(usable ? value : recommended);
}

Linux::DefaultHopLimits defaultHopLimits() {
  return {hopLimitSetting("/proc/sys/net/ipv4/ip_default_ttl"),
          hopLimitSetting("/proc/sys/net/ipv6/conf/default/hop_limit")};
}

} // namespace

std::unique_ptr<Source> makeLinuxSource(std::string_view options,
                                        Surroundings const & surroundings) {
  return std::make_unique<LinuxSource>(options, surroundings);
}

LinuxSource::LinuxSource(std::string_view options, Surroundings const & surroundings,
                         int receiveBuffer, std::function<Os::Descriptor()> ask)
    : options_(options),
      noted_(surroundings.noted),
      health_([this, changed = surroundings.stateChanged] {
        if (changed)
          changed(*this);
      }),
      publication_(Linux::linuxOptionsFromText(options).kinds, surroundings.publishers,
                   surroundings.links),
      reader_({.subject = subject(),
               .loop = surroundings.loop,
               .trace = traceHandler(),
               .buffer = buffer_,
               .kernelBuffer = receiveBuffer,
               .period = fullReadPeriod,
               .ask = std::move(ask)},
              *this),
      policies_(
          surroundings, [this] { tellHealth(); },
          [this](Plexa::IntfId intfId) {
            if (states_)
              states_->lookAgain(intfId);
          }) {
  if (Linux::linuxOptionsFromText(options).hasStates)
    states_.emplace(surroundings, policies_, [this] { tellHealth(); });
}

std::string LinuxSource::name() const {
  return options_.empty() ? "linux" : "linux:" + options_;
}

void LinuxSource::start() {
  reader_.readNow();
  policies_.start();
  if (states_)
    states_->start();
}

void LinuxSource::reread() {
  reader_.read();
  policies_.reread();
  if (states_)
    states_->reread();
}

SourceStatus LinuxSource::status() const {
  auto const & links = publication_.publisher();
  auto const & policies = policies_.publisher();
  SourceStatus status{.state = health_.state(),
                      .isReading = reader_.isReading() || policies_.isReading() ||
                                   (states_ && states_->isReading()),
                      .lastError = health_.lastError(),
                      .records = links.counts(),
                      .fullReads = reader_.fullReads(),
                      .changes = links.changes() + policies.changes(),
                      .details = {{"policies", policies_.summary()}}};
  status.records.statusClaims = policies.counts().statusClaims;
  if (states_) {
    auto const records = states_->publisher().counts();
    status.records.tunnelInfos = records.tunnelInfos;
    status.records.profiles = records.profiles;
    status.records.connections = records.connections;
    status.changes += states_->publisher().changes();
    status.details.emplace_back("states", states_->summary());
  }
  if (auto skipped = publication_.skipped().summary(); !skipped.empty())
    status.details.emplace_back("not published", std::move(skipped));
  return status;
}

std::vector<Ike::ConnectionReport> LinuxSource::connections() const {
  return states_ ? states_->connections() : std::vector<Ike::ConnectionReport>();
}

void LinuxSource::dumpBegins() {
  defaults_ = defaultHopLimits();
  publication_.beginReading();
}

bool LinuxSource::found(Linux::Bytes bytes) {
  auto const message = Linux::decodeLink(bytes, defaults_);
  if (auto const * state = std::get_if<Linux::LinkState>(&message))
    publication_.found(*state);
  auto const * const malformed = std::get_if<Linux::MalformedMessage>(&message);
  if (malformed != nullptr) {
    traceMalformed(*malformed);
    publication_.foundUnreadable(malformed->index); // what is known of it is better than nothing
  }
  return malformed == nullptr;
}

void LinuxSource::dumpEnds(bool whole, Linux::KernelReader::Pace pace) {
  auto const done = [this, before = publication_.publisher().changes()] {
    if (auto const changes = publication_.publisher().changes() - before; changes != 0)
      LUMO_TRACE(traceHandler(), output, "published {} changes", changes);
    reader_.published();
  };
  publication_.endReading(whole, pace, done,
                          [this](std::exception const & reason) { reader_.failed(reason); });
}

bool LinuxSource::heard(Linux::Bytes bytes) {
  auto const message = Linux::decodeLink(bytes, defaults_);
  if (auto const * malformed = std::get_if<Linux::MalformedMessage>(&message)) {
    traceMalformed(*malformed);
    return false;
  }
  if (auto const * state = std::get_if<Linux::LinkState>(&message)) {
    if (publication_.linkIs(*state))
      LUMO_TRACE(traceHandler(), output, "link {}: published", state->index);
    else
      LUMO_TRACE(traceHandler(), detail, "link {}: nothing new", state->index);
  }
  return true;
}

void LinuxSource::isInSync() {
  linksError_.clear();
  tellHealth();
}

void LinuxSource::isDegraded(std::string_view error) {
  LUMO_TRACE(traceHandler(), fault, "{}", error);
  errorIs(linksError_, error);
  tellHealth();
}

std::chrono::milliseconds LinuxSource::retryAfter(std::exception const &) {
  return retryPeriod;
}

// The links come first: without them the rest means little.
void LinuxSource::tellHealth() {
  auto const * error = &linksError_;
  if (error->empty())
    error = &policies_.lastError();
  if (error->empty() && states_)
    error = &states_->lastError();
  if (!error->empty())
    health_.degradedIs(*error);
  else if (reader_.fullReads() != 0)
    health_.inSyncIs();
  noteRefusals();
}

// A line that cannot be told now is told after the next attempt.
void LinuxSource::noteRefusals() {
  try {
    note(policiesRefusal_, "IPsec policies", policies_.refusal());
    if (states_)
      note(statesRefusal_, "IPsec states", states_->refusal());
  } catch (std::bad_alloc const &) {
  }
}

void LinuxSource::note(std::string & known, std::string_view things, std::string const & refusal) {
  if (refusal == known)
    return;
  if (noted_ && !refusal.empty())
    noted_(*this, fmt::format("{}: {}", things, refusal));
  known = refusal;
}

} // namespace Sources
