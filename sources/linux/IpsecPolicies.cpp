// An event changes the table of policies, which says whose flag may be another one now; those links
// are looked at anew. A full read ends with a look at every link.
//
// Traces under "IpsecPolicies": 0 faults, losses and what is not permitted, 7 what is claimed, 8
// full reads.
#include "sources/linux/IpsecPolicies.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <fmt/format.h>
#include <linux/netlink.h>
#include <linux/xfrm.h>
#include <utility>

namespace Sources::Linux {
namespace {

using Status = StateDb::Publisher::Status;

constexpr int fault = 0;
constexpr int output = 7;

auto const debugHandler = Lumo::Platform::getDebugHandler("IpsecPolicies", false);
Lumo::DebugHandler const & traceHandler() {
  return *debugHandler;
}

Lumo::Counter malformedPolicies("linux-policies-malformed");

/// Events of policies, and of those that end because their time is over.
NetlinkSubject policySubject(int protocol) {
  return {.protocol = protocol,
          .family = "an xfrm",
          .things = "IPsec policies",
          .groups = {XFRMNLGRP_POLICY, XFRMNLGRP_EXPIRE},
          .request = XFRM_MSG_GETPOLICY,
          .requestZeros = sizeof(xfrm_userpolicy_id)};
}

/// True if and only if each tunnel that the policy asks for is the one between the link's
/// endpoints, as the kernel demands of a vti link. What either does not say is no difference.
bool mayUse(Link const & link, Policy const & policy) {
  auto const agree = [](Plexa::IpGenAddr const & one, Plexa::IpGenAddr const & other) {
    return one.isAddrZero() || other.isAddrZero() || one == other;
  };
  return std::ranges::all_of(policy.templates, [&](PolicyTemplate const & one) {
    return agree(one.source, link.local) && agree(one.destination, link.remote);
  });
}

/// Takes the endpoints of the first tunnel that the policy asks for into the claim: of one that
/// compresses too, since ESP is in transport mode behind it.
StateDb::Claim<Status> withEndpoints(StateDb::Claim<Status> claim, Policy const & policy) {
  for (auto const & one : policy.templates) {
    if (one.mode != XfrmMode::tunnel || one.isOptional)
      continue;
    if (!one.source.isAddrZero())
      claim = claim.with<&Status::srcAddr>(one.source);
    if (!one.destination.isAddrZero())
      claim = claim.with<&Status::dstAddr>(one.destination);
    return claim;
  }
  return claim;
}

} // namespace

IpsecPolicies::Options::Options() : protocol(NETLINK_XFRM) {}

IpsecPolicies::IpsecPolicies(Surroundings const & surroundings, std::function<void()> changed,
                             std::function<void(Plexa::IntfId)> looked, Options options)
    : subject_(policySubject(options.protocol)),
      allLinks_(surroundings.links),
      health_(subject_, traceHandler(), "the ipsec flag follows the kind of the link",
              std::move(changed)),
      looked_(std::move(looked)),
      publisher_(surroundings.publishers),
      work_("Linux::IpsecPolicies-linksTask", *this),
      reader_({.subject = subject_,
               .loop = surroundings.loop,
               .trace = traceHandler(),
               .buffer = buffer_,
               .kernelBuffer = options.kernelBuffer,
               .period = fullReadPeriod,
               .ask = std::move(options.ask)},
              *this),
      linksWatch_(surroundings.links.watch([this](Plexa::IntfId intfId) { linkChanged(intfId); })) {
  allLinks_.forEach([this](Link const & link) { links_.linkIs(link); });
}

IpsecPolicies::~IpsecPolicies() = default;

void IpsecPolicies::start() {
  try {
    reader_.readNow();
  } catch (std::exception const & exception) {
    workFailed(exception);
  }
}

std::string IpsecPolicies::summary() const {
  return health_.refusal().empty() ? std::to_string(policies_.size()) : health_.refusal();
}

void IpsecPolicies::forEachPolicyOf(Plexa::IntfId intfId,
                                    std::function<bool(OfLink const &)> const & take) const {
  auto const * const entry = links_.find(intfId);
  auto const * const link = allLinks_.find(intfId);
  if (entry == nullptr || link == nullptr)
    return;
  for (auto const & flow : entry->flows) {
    auto const * const policy = policies_.effective(flow);
    if (policy != nullptr && policy->demandsIpsec() && !take({policy, &flow}))
      return;
  }
  auto const takeOwn = [&](Policy const & policy) {
    return !policy.demandsIpsec() || !mayUse(*link, policy) || take({&policy, nullptr});
  };
  if (policies_.forEachOfInterface(entry->ifId.value_or(0), takeOwn) && entry->mark)
    policies_.forEachOfMark(*entry->mark, takeOwn);
}

void IpsecPolicies::dumpBegins() {
  work_.readingIsVoid();
  policies_.beginReading();
}

bool IpsecPolicies::found(Bytes bytes) {
  auto const message = decodePolicy(bytes);
  if (auto const * malformed = std::get_if<MalformedMessage>(&message)) {
    noteMalformed(*malformed);
    policies_.stays(malformed->index); // what is known of it is better than nothing
    return false;
  }
  auto const * const is = std::get_if<PolicyIs>(&message);
  if (is != nullptr && is->policy.direction == Policy::Direction::out)
    policies_.found(is->policy);
  return true;
}

// Which links the differences concern is not asked: for wide policies that would be all links for
// each of them.
void IpsecPolicies::dumpEnds(bool whole, KernelReader::Pace pace) {
  health_.isAnswered();
  if (!areLinksKnown_)
    knowLinks();
  if (!whole)
    policies_.endReading();
  work_.readingEnds(whole, pace);
}

bool IpsecPolicies::heard(Bytes bytes) {
  auto const message = decodePolicy(bytes);
  if (auto const * malformed = std::get_if<MalformedMessage>(&message))
    noteMalformed(*malformed);
  auto const * const is = std::get_if<PolicyIs>(&message);
  if (is != nullptr && is->policy.direction == Policy::Direction::out) {
    concern(policies_.policyIs(is->policy));
    concern(is->policy);
  }
  if (auto const * gone = std::get_if<PolicyGone>(&message))
    concern(policies_.policyDel(gone->index));
  work_.begin();
  return !std::holds_alternative<MalformedMessage>(message) &&
         !std::holds_alternative<PoliciesFlushed>(message);
}

void IpsecPolicies::isInSync() {
  health_.isInSync();
}

void IpsecPolicies::isDegraded(std::string_view error) {
  health_.isDegraded(error);
}

std::chrono::milliseconds IpsecPolicies::retryAfter(std::exception const & reason) {
  return health_.retryAfter(reason, fullReadPeriod);
}

bool IpsecPolicies::forgetOne() {
  return policies_.takeUnseen().has_value();
}

void IpsecPolicies::look(Plexa::IntfId intfId) {
  followRoute(intfId);
  auto const before = publisher_.changes();
  auto const claim = claimOf(intfId);
  if (claim.fields() == 0)
    publisher_.statusClaimDel(intfId);
  else
    publisher_.statusClaimIs(intfId, claim);
  if (publisher_.changes() != before)
    LUMO_TRACE(traceHandler(), output, "link {}: {}", intfId,
               claim.fields() == 0 ? "no policy demands IPsec" : "a policy demands IPsec");
  looked_(intfId);
}

// The next reading looks at everything.
void IpsecPolicies::workFailed(std::exception const & reason) {
  work_.readingIsVoid();
  reader_.failed(reason);
}

// The watch must not raise: what there is no memory for now is seen by a reading.
void IpsecPolicies::linkChanged(Plexa::IntfId intfId) {
  try {
    auto const * const link = allLinks_.find(intfId);
    if (link != nullptr && link->isCarriedElsewhere)
      noteElsewhere(*link);
    else
      elsewhere_.erase(intfId);
    if (link != nullptr ? links_.linkIs(*link) : links_.linkDel(intfId))
      look(intfId);
  } catch (std::exception const & exception) {
    areLinksKnown_ = false;
    workFailed(exception);
  }
}

void IpsecPolicies::knowLinks() {
  links_ = LinkFlows();
  allLinks_.forEach([this](Link const & link) { links_.linkIs(link); });
  areLinksKnown_ = true;
}

void IpsecPolicies::followRoute(Plexa::IntfId intfId) {
  auto const * const entry = links_.find(intfId);
  auto const * const link = allLinks_.find(intfId);
  if (entry != nullptr && entry->isRouted && link != nullptr)
    links_.linkIs(*link);
}

void IpsecPolicies::concern(std::optional<Policy> const & policy) {
  if (policy && !links_.findConcerned(*policy, work_.concerned()))
    work_.allAreConcerned();
}

StateDb::Claim<Status> IpsecPolicies::claimOf(Plexa::IntfId intfId) const {
  StateDb::Claim<Status> claim;
  forEachPolicyOf(intfId, [&claim](OfLink const & one) {
    auto const isOfXfrm = one.policy->ifId != 0;
    if (one.flow != nullptr)
      claim = claim.with<&Status::ipsec>(true);
    else if (isOfXfrm)
      claim = withEndpoints(claim, *one.policy);
    return isOfXfrm && claim.fields() == 0;
  });
  return claim;
}

void IpsecPolicies::noteElsewhere(Link const & link) {
  if (elsewhere_.insert(link.intfId).second)
    LUMO_TRACE(traceHandler(), output,
               "link {}: its outer packets leave in another network namespace, whose policies "
               "cannot be seen",
               link.intfId);
}

void IpsecPolicies::noteMalformed(MalformedMessage const & malformed) const {
  malformedPolicies.inc();
  LUMO_TRACE(traceHandler(), fault, "message about policy {} is malformed: {}", malformed.index,
             malformed.reason);
}

} // namespace Sources::Linux
