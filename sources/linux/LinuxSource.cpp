// Subscribes, reads everything, applies events; and begins again whenever something may be missing.
//
// Traces under "LinuxSource": 0 faults and losses, 7 each publication, 8 full reads, 9 messages
// that change nothing.
#include "sources/linux/LinuxSource.h"
#include "platform/Lumo.h"
#include <fmt/format.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

namespace Sources {
namespace {

using nlohmann::json;

constexpr int fault = 0;
constexpr int output = 7;
constexpr int entry = 8;
constexpr int detail = 9;

/// How often a dump is taken again at once when links come and go meanwhile.
constexpr int dumpAttempts = 5;
/// Receptions in a row before others on the thread have their turn.
constexpr int receptionsPerTurn = 64;

Lumo::Counter overflows("linux-overflows");
Lumo::Counter interruptedDumps("linux-dumps-interrupted");
Lumo::Counter malformedMessages("linux-messages-malformed");
Lumo::Counter resyncs("linux-resyncs");

Lumo::DebugHandler const & traceHandler() {
  static auto const handler = Lumo::Platform::getDebugHandler("LinuxSource", false);
  return *handler;
}

void traceMalformed(Linux::MalformedMessage const & malformed) {
  malformedMessages.inc();
  LUMO_TRACE(traceHandler(), fault, "message about link {} is malformed: {}", malformed.index,
             malformed.reason);
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

/// The part of the document that shows these links.
json documentOf(std::map<std::uint32_t, Linux::TunnelLink> const & links) {
  auto statuses = json::object();
  auto indexes = json::object();
  for (auto const & [index, link] : links) {
    auto const id = std::to_string(index);
    indexes[id] = index;
    statuses[id] = {{"srcAddr", link.local.stringValue()},
                    {"dstAddr", link.remote.stringValue()},
                    {"mode", valueToStrep(link.mode)},
                    {"hopLimit", link.hopLimit},
                    {"tos", link.tos},
                    {"ipsec", link.ipsec}};
  }
  return {{"tunnelIntfStatusDir", {{"intfStatus", std::move(statuses)}}},
          {"ifMib", {{"ifIndexByIntfId", std::move(indexes)}}}};
}

} // namespace

std::unique_ptr<Source> makeLinuxSource(std::string_view options, Os::Loop & loop,
                                        StateDb::StateDocument & document) {
  return std::make_unique<LinuxSource>(options, loop, document);
}

LinuxSource::LinuxSource(std::string_view options, Os::Loop & loop,
                         StateDb::StateDocument & document, int receiveBuffer)
    : options_(options),
      kinds_(Linux::TunnelKindSet::fromOptions(options)),
      loop_(loop),
      document_(document),
      receiveBuffer_(receiveBuffer) {}

std::string LinuxSource::name() const {
  return options_.empty() ? "linux" : "linux:" + options_;
}

void LinuxSource::start() {
  readEverything();
}

void LinuxSource::reread() {
  readEverythingOrDegrade();
}

SourceStatus LinuxSource::status() const {
  auto status = status_;
  status.records = published_.size();
  return status;
}

void LinuxSource::readEverything() {
  LUMO_TRACE(traceHandler(), entry, "reading all links");
  nextFullRead_ = loop_.after(fullReadPeriod, [this] { readEverythingOrDegrade(); });
  defaults_ = defaultHopLimits();
  subscribe();
  forgetEvents();
  reconcile(dump());
  ++status_.fullReads;
}

void LinuxSource::readEverythingOrDegrade() {
  try {
    readEverything();
  } catch (std::runtime_error const & error) {
    degrade(error.what());
  }
}

void LinuxSource::recover(std::string_view reason) {
  LUMO_TRACE(traceHandler(), fault, "{}, reading all links again", reason);
  resyncs.inc();
  readEverythingOrDegrade();
}

void LinuxSource::subscribe() {
  if (events_)
    return;
  events_.emplace(receiveBuffer_);
  eventsReadable_ = loop_.readable(events_->descriptor(), [this] { receiveEvents(); });
}

// What has come until now is older than the dump that follows. All of it must go: while any is left
// after an overflow, the kernel drops further events without saying so again. This ends, since the
// kernel needs longer to make an event than we to drop it.
void LinuxSource::forgetEvents() {
  for (;;) {
    auto const received = events_->receive([](std::span<std::byte const>) {});
    if (received == Linux::LinkEvents::Received::nothing)
      return;
    if (received == Linux::LinkEvents::Received::overflow)
      overflows.inc();
  }
}

LinuxSource::Dump LinuxSource::dump() const {
  auto latest = dumpOnce();
  for (int attempt = 1; !latest.whole && attempt != dumpAttempts; ++attempt)
    latest = dumpOnce();
  return latest;
}

LinuxSource::Dump LinuxSource::dumpOnce() const {
  Dump result;
  result.whole = Linux::dumpLinks([&](std::span<std::byte const> bytes) {
    auto const message = Linux::decodeLink(bytes, defaults_);
    if (auto const * malformed = std::get_if<Linux::MalformedMessage>(&message))
      addMalformed(result, *malformed);
    else if (auto const * state = std::get_if<Linux::LinkState>(&message); state && wants(*state))
      result.links.insert_or_assign(state->index, *state->tunnel);
  });
  if (!result.whole)
    interruptedDumps.inc();
  return result;
}

void LinuxSource::addMalformed(Dump & result, Linux::MalformedMessage const & malformed) const {
  traceMalformed(malformed);
  ++result.malformed;
  if (auto const known = published_.find(malformed.index); known != published_.end())
    result.links.insert(*known); // what is known of it is better than nothing
}

bool LinuxSource::wants(Linux::LinkState const & state) const {
  return state.tunnel && kinds_.has(state.tunnel->kind);
}

void LinuxSource::reconcile(Dump dump) {
  if (!dump.whole) // a link that was not seen may be there all the same
    dump.links.insert(published_.begin(), published_.end());
  publish(published_, dump.links);
  published_ = std::move(dump.links);
  status_.state = SourceStatus::State::inSync;
  status_.lastError.clear();
  if (dump.malformed != 0)
    degrade(fmt::format("source linux: {} links cannot be understood: trace LinuxSource:0 says why",
                        dump.malformed));
  if (dump.whole)
    return;
  degrade("source linux: links come and go too fast to read them all: trying again");
  nextFullRead_ = loop_.after(retryPeriod, [this] { readEverythingOrDegrade(); });
}

void LinuxSource::receiveEvents() {
  try {
    receiveEventsOrRaise();
  } catch (std::runtime_error const & error) {
    eventsReadable_.reset(); // the next full read subscribes again
    events_.reset();
    degrade(error.what());
  }
}

void LinuxSource::receiveEventsOrRaise() {
  using Received = Linux::LinkEvents::Received;
  std::vector<Linux::LinkMessage> messages;
  for (int i = 0; i != receptionsPerTurn; ++i) {
    messages.clear();
    auto const received = events_->receive([&](std::span<std::byte const> bytes) {
      messages.push_back(Linux::decodeLink(bytes, defaults_));
    });
    if (received == Received::nothing)
      return;
    if (received == Received::overflow) {
      overflows.inc();
      return recover("the kernel has dropped events");
    }
    for (auto const & message : messages)
      if (!take(message))
        return recover("an event cannot be understood");
  }
}

bool LinuxSource::take(Linux::LinkMessage const & message) {
  if (auto const * state = std::get_if<Linux::LinkState>(&message)) {
    take(*state);
    return true;
  }
  auto const * const malformed = std::get_if<Linux::MalformedMessage>(&message);
  if (malformed == nullptr)
    return true;
  traceMalformed(*malformed);
  return false;
}

void LinuxSource::take(Linux::LinkState const & state) {
  Links before;
  Links after;
  if (auto const known = published_.find(state.index); known != published_.end())
    before.insert(*known);
  if (wants(state))
    after.emplace(state.index, *state.tunnel);
  if (before == after) {
    LUMO_TRACE(traceHandler(), detail, "link {}: nothing new", state.index);
    return;
  }
  publish(before, after);
  published_.erase(state.index);
  published_.merge(after);
}

void LinuxSource::publish(Links const & before, Links const & after) {
  auto kept = before; // without those that became something else under their old index
  std::erase_if(kept, [&](auto const & entry) {
    auto const now = after.find(entry.first);
    return now == after.end() || now->second.kind != entry.second.kind;
  });
  if (kept.size() != before.size())
    apply(before, kept);
  apply(kept, after);
}

void LinuxSource::apply(Links const & before, Links const & after) {
  auto const patch = document_.publication(documentOf(before), documentOf(after));
  if (patch.empty())
    return;
  LUMO_TRACE(traceHandler(), output, "publishing {}", patch.dump());
  document_.apply(patch);
  ++status_.patches;
}

void LinuxSource::degrade(std::string_view error) {
  LUMO_TRACE(traceHandler(), fault, "{}", error);
  status_.state = SourceStatus::State::degraded;
  status_.lastError = error;
}

} // namespace Sources
