// Remembers of each link where its states would lie, so that a state's coming or going leads to the
// links that it concerns.
//
// Traces under "KernelStates": 0 faults, losses and what is not permitted, 7 what is published, 8
// full reads. Nothing that a message of the kernel's holds is traced.
#include "sources/linux/KernelStates.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <fmt/format.h>
#include <linux/netlink.h>
#include <linux/xfrm.h>
#include <netinet/in.h>

namespace Sources::Linux {
namespace {

using ConnState = ::Ipsec::Ike::ConnState;

constexpr int fault = 0;
constexpr int output = 7;

auto const debugHandler = Lumo::Platform::getDebugHandler("KernelStates", false);
Lumo::DebugHandler const & traceHandler() {
  return *debugHandler;
}

Lumo::Counter malformedStates("linux-states-malformed");

std::string const & profileName() {
  static std::string const name(KernelStates::profile);
  return name;
}

/// Not the group of acquisitions: whoever listens there says that he negotiates keys, and packets
/// that lack them would wait for him.
NetlinkSubject const & subject() {
  static NetlinkSubject const states{.protocol = NETLINK_XFRM,
                                     .family = "an xfrm",
                                     .things = "IPsec states",
                                     .groups = {XFRMNLGRP_SA, XFRMNLGRP_EXPIRE},
                                     .request = XFRM_MSG_GETSA,
                                     .requestZeros = 0};
  return states;
}

/// True if and only if packets are not sent without a state for the template.
bool isNeeded(PolicyTemplate const & one) {
  return !one.isOptional && (one.demandsIpsec() || one.protocol == IPPROTO_COMP);
}

/// The address, if the prefix is that of one host; else the empty one.
Plexa::IpGenAddr hostOf(Plexa::IpGenAddr const & address, std::uint8_t length) {
  constexpr std::size_t bitsOfAnOctet = 8;
  return length == address.octets().size() * bitsOfAnOctet ? address : Plexa::IpGenAddr();
}

/// Those of the packets that the policy is for, as far as it or the link says.
States::Ends endsOf(IpsecPolicies::OfLink const & one) {
  if (one.flow != nullptr)
    return {one.flow->local, one.flow->remote};
  auto const & selector = one.policy->selector;
  return {hostOf(selector.source, selector.sourceLength),
          hostOf(selector.destination, selector.destinationLength)};
}

ConnState connState(States::Progress progress) {
  switch (progress) {
  case States::Progress::usable:
    return ConnState::up;
  case States::Progress::acquiring:
    return ConnState::connecting;
  default:
    return ConnState::down;
  }
}

} // namespace

KernelStates::KernelStates(Surroundings const & surroundings, IpsecPolicies const & policies,
                           std::function<void()> changed, std::function<Os::Descriptor()> ask)
    : links_(surroundings.links),
      boundLinks_(surroundings.boundLinks),
      policies_(policies),
      health_(subject(), traceHandler(), "no connection is told by the kernel's states",
              std::move(changed)),
      publisher_(surroundings.publishers),
      work_("Linux::KernelStates-linksTask", *this),
      reader_({.subject = subject(),
               .loop = surroundings.loop,
               .trace = traceHandler(),
               .buffer = buffer_,
               .kernelBuffer = kernelBuffer,
               .period = fullReadPeriod,
               .ask = std::move(ask)},
              *this),
      boundWatch_(
          surroundings.boundLinks.watch([this](Plexa::IntfId intfId) { lookAgain(intfId); })) {}

KernelStates::~KernelStates() = default;

void KernelStates::start() {
  try {
    reader_.readNow();
  } catch (std::exception const & exception) {
    reader_.failed(exception);
  }
}

void KernelStates::lookAgain(Plexa::IntfId intfId) {
  try {
    look(intfId);
  } catch (std::exception const & exception) {
    workFailed(exception);
  }
}

std::string KernelStates::summary() const {
  return health_.refusal().empty() ? std::to_string(states_.size()) : health_.refusal();
}

std::vector<Ike::ConnectionReport> KernelStates::connections() const {
  std::vector<Ike::ConnectionReport> reports;
  for (auto const & [intfId, entry] : entries_) {
    auto const * const link = links_.find(intfId);
    reports.push_back({.connection = profileName(),
                       .child = "",
                       .state = entry.state,
                       .interface = link == nullptr ? "" : link->name,
                       .reason = "kernel policy"});
  }
  return reports;
}

void KernelStates::dumpBegins() {
  work_.readingIsVoid();
  hasMalformed_ = false;
  states_.beginReading();
}

bool KernelStates::found(Bytes bytes) {
  auto const message = decodeState(bytes);
  if (auto const * malformed = std::get_if<MalformedMessage>(&message)) {
    noteMalformed(*malformed);
    hasMalformed_ = true;
  }
  if (auto const * state = std::get_if<StateIs>(&message);
      state != nullptr && states_.found(*state))
    concern(state->id);
  return !std::holds_alternative<MalformedMessage>(message);
}

// Which states were malformed nobody knows, so none that was not found goes then.
void KernelStates::dumpEnds(bool whole, KernelReader::Pace pace) {
  health_.isAnswered();
  isKnown_ = true;
  auto const isComplete = whole && !hasMalformed_;
  if (!isComplete)
    states_.endReading();
  work_.readingEnds(isComplete, pace);
}

bool KernelStates::heard(Bytes bytes) {
  auto const message = decodeState(bytes);
  if (auto const * malformed = std::get_if<MalformedMessage>(&message))
    noteMalformed(*malformed);
  if (auto const * is = std::get_if<StateIs>(&message); is != nullptr && states_.stateIs(*is))
    concern(is->id);
  if (auto const * gone = std::get_if<StateGone>(&message);
      gone != nullptr && states_.stateDel(gone->id))
    concern(gone->id);
  work_.begin();
  return !std::holds_alternative<MalformedMessage>(message) &&
         !std::holds_alternative<StatesFlushed>(message);
}

void KernelStates::isInSync() {
  health_.isInSync();
}

void KernelStates::isDegraded(std::string_view error) {
  health_.isDegraded(error);
}

std::chrono::milliseconds KernelStates::retryAfter(std::exception const & reason) {
  return health_.retryAfter(reason, fullReadPeriod);
}

bool KernelStates::forgetOne() {
  auto const gone = states_.takeUnseen();
  if (gone)
    concern(*gone);
  return gone.has_value();
}

void KernelStates::look(Plexa::IntfId intfId) {
  if (!isKnown_)
    return;
  auto entry = boundLinks_.has(intfId) ? std::nullopt : entryOf(intfId);
  if (entry)
    publish(intfId, std::move(*entry));
  else
    withdraw(intfId);
}

// The next reading looks at everything.
void KernelStates::workFailed(std::exception const & reason) {
  work_.readingIsVoid();
  reader_.failed(reason);
}

void KernelStates::concern(StateId const & id) {
  auto const place = States::placeOf(id);
  for (auto next = byPlace_.lower_bound({place, Plexa::IntfId()});
       next != byPlace_.end() && next->first == place; ++next)
    work_.concerned().insert(next->second);
}

std::optional<KernelStates::Entry> KernelStates::entryOf(Plexa::IntfId intfId) const {
  Entry entry;
  std::optional<States::Progress> best;
  policies_.forEachPolicyOf(intfId, [&](IpsecPolicies::OfLink const & one) {
    best = std::max(best, std::optional(progress(one, entry.places)));
    return best != States::Progress::usable;
  });
  if (!best)
    return std::nullopt;
  entry.state = connState(*best);
  return entry;
}

// The least of all the templates: packets need all of them. As in the kernel a template is for
// packets as the one before leaves them: behind a tunnel of compression ESP is in transport mode.
States::Progress KernelStates::progress(IpsecPolicies::OfLink const & one,
                                        std::vector<States::Place> & places) const {
  auto least = States::Progress::usable;
  auto ends = endsOf(one);
  for (auto const & asked : one.policy->templates) {
    if (!isNeeded(asked))
      continue;
    ends = States::endsBehind(asked, ends);
    auto const wanted = States::wanted(*one.policy, asked, ends);
    if (!wanted)
      return States::Progress::none;
    places.push_back(wanted->place);
    least = std::min(least, states_.progress(*wanted));
  }
  return least;
}

void KernelStates::publish(Plexa::IntfId intfId, Entry entry) {
  auto const state = entry.state;
  auto & known = entries_[intfId];
  for (auto const & place : known.places)
    byPlace_.erase({place, intfId});
  for (auto const & place : entry.places)
    byPlace_.insert({place, intfId});
  known = std::move(entry);
  auto const before = publisher_.changes();
  publisher_.connectionIs(profileName(), intfId,
                          StateDb::Publisher::Connection{.connState = state});
  publisher_.tunnelInfoIs(intfId, StateDb::Publisher::TunnelInfo{.profileName = profileName()});
  if (publisher_.changes() != before)
    LUMO_TRACE(traceHandler(), output, "link {}: its connection is {}", intfId,
               valueToStrep(state));
}

void KernelStates::withdraw(Plexa::IntfId intfId) {
  auto const found = entries_.find(intfId);
  if (found == entries_.end())
    return;
  for (auto const & place : found->second.places)
    byPlace_.erase({place, intfId});
  entries_.erase(found);
  publisher_.tunnelInfoDel(intfId);
  publisher_.connectionDel(profileName(), intfId);
  if (entries_.empty())
    publisher_.profileDel(profileName());
  LUMO_TRACE(traceHandler(), output, "link {}: no connection is told any more", intfId);
}

void KernelStates::noteMalformed(MalformedMessage const & malformed) const {
  malformedStates.inc();
  LUMO_TRACE(traceHandler(), fault, "message about a state is malformed: {}", malformed.reason);
}

} // namespace Sources::Linux
