// Three passes. As SAs come, each child claims its links for its connection. Then each connection
// claims what it is configured for and no child of it has claimed. At last each link goes to one of
// the connections that claim it, and the reports say so. LinkIndex finds links, SelectedLinks those
// that selectors are for, ConnectionState says how far it all has come. From one call to the next,
// links are known by their ids.
#include "sources/ike/Binding.h"
#include "platform/Lumo.h"
#include "sources/ike/ConnectionState.h"
#include "sources/ike/LinkIndex.h"
#include "sources/ike/SelectedLinks.h"
#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Sources::Ike {

using ::Ipsec::Ike::ConnState;
using Plexa::IntfId;

namespace {

/// What one connection says of one link.
struct Claim {
  Rule rule;
  ConnState state;
  bool hasSa;
  bool isOfChild; ///< a CHILD_SA is bound to it
};

/// A report before it is known whether the link goes to the connection.
struct Line {
  std::string child;
  std::optional<IntfId> intfId;
  std::string reason;
  auto operator<=>(Line const &) const = default;
};

/// Of one connection.
struct Known {
  std::vector<Connection> configured;
  std::vector<ExplicitBinding> explicitly;
  std::unordered_map<Endpoints, ConnState, EndpointsHash> ikeSas;
  ConnState best = ConnState::down; ///< of its IKE_SAs
  /// Between which addresses a child has SAs; under the empty name, any child.
  std::map<std::string, std::unordered_set<Endpoints, EndpointsHash>> children;
  std::map<IntfId, Claim> claims;
  std::map<Line, ConnState> lines;
  std::map<std::vector<IntfId>, std::size_t> sas; ///< how many CHILD_SAs claim those links
};
using Connections = std::map<std::string, Known>;

/// The connection that has a link, of all that claim it.
struct Owner {
  std::string const * connection;
  Claim claim;
  bool isContested;
};

/// The rule that found links, and them.
struct Found {
  Rule rule;
  LinkIndex::Found links;
};

void addClaim(Known & known, IntfId intfId, Claim const & claim);
void addLine(Known & known, Line line, ConnState state);
bool isOwnerBefore(Owner const & one, Owner const & other);

} // namespace

struct Binding::State {
  explicit State(LinkIndex const & of) : links(of.links()), index(of) {}

  Links const & links;
  LinkIndex const & index;
  Connections connections;
  std::map<IntfId, Owner> owners;
  Bindings bindings;
  enum class Pass : std::uint8_t { claims, owners, reports, forget, done } pass = Pass::claims;
  std::optional<Connections::iterator> next = {};

  /// Does its part of the pass. Returns the next one.
  Connections::iterator prepare(Connections::iterator at);
  void childIs(Known & known, Endpoints const & own, ChildSa const & child, ConnState state);
  Found find(Known const & known, Endpoints const & own, ChildSa const & child) const;
  LinkIndex::Found explicitLinks(Known const & known, std::string const & child) const;
  std::string whyUnbound(Endpoints const & own, ChildSa const & child) const;

  void claimRest(Known & known);
  void claimConfigured(Known & known, Connection const & connection, ChildConfig const * child);
  std::map<Link const *, ConnState> configuredLinks(Known const & known,
                                                    Connection const & connection,
                                                    ChildConfig const * child) const;
  LinkIndex::Found configuredBetween(ChildConfig const * child, Endpoints const & own) const;
  std::string whyNotConfigured(Connection const & connection, ChildConfig const * child) const;
  void claimUnconfigured(Known & known);
  void reportExplicit(Known & known) const;

  void decideOwners(std::string const & connection, Known const & known);
  Owner const * ownerOf(IntfId intfId) const;
  void report(std::string const & connection, Known const & known);
  ConnectionReport reportOf(std::string const & connection, Line const & line) const;
  std::string nameOf(IntfId intfId) const;
};

std::string_view ruleText(Rule rule) {
  static constexpr std::array<std::string_view, 5> texts{"explicit", "if_id", "mark", "selectors",
                                                         "configured"};
  return texts.at(static_cast<std::size_t>(rule));
}

ExplicitBinding explicitBindingFromText(std::string_view text) {
  auto const at = text.rfind('@');
  auto const whose = text.substr(0, at);
  auto const slash = whose.find('/');
  auto const hasChild = slash != std::string_view::npos;
  if (at == std::string_view::npos || at + 1 == text.size() || whose.substr(0, slash).empty() ||
      (hasChild && slash + 1 == whose.size()))
    throw std::invalid_argument(
        fmt::format("\"bind={}\": write bind=CONNECTION[/CHILD]@INTERFACE", text));
  return {std::string(whose.substr(0, slash)), std::string(hasChild ? whose.substr(slash + 1) : ""),
          std::string(text.substr(at + 1))};
}

Binding::Binding(LinkIndex const & index, std::vector<ExplicitBinding> bindings)
    : state_(std::make_unique<State>(index)) {
  for (auto & one : bindings) {
    auto & known = state_->connections[one.connection];
    known.explicitly.push_back(std::move(one));
  }
}

Binding::~Binding() = default;

void Binding::connectionIs(Connection const & connection) {
  LUMO_ASSERT(!state_->next, "a connection is handed over when the result is made");
  state_->connections[connection.name].configured.push_back(connection);
}

void Binding::saIs(IkeSa const & sa) {
  LUMO_ASSERT(!state_->next, "an SA is handed over when the result is made");
  auto & known = state_->connections[sa.connection];
  Endpoints const own{sa.local, sa.remote};
  auto const state = connectionState(sa.state);
  auto const [ike, isNew] = known.ikeSas.try_emplace(own, state);
  ike->second = betterOf(ike->second, state);
  known.best = betterOf(known.best, state);
  for (auto const & child : sa.children)
    if (isThere(child.state))
      state_->childIs(known, own, child, connectionState(sa.state, child.state));
}

bool Binding::prepareNext() {
  constexpr int connectionsAStep = 64;
  auto & [links, index, connections, owners, bindings, pass, next] = *state_;
  if (pass == State::Pass::done)
    return false;
  if (!next)
    next = connections.begin();
  for (int i = 0; i != connectionsAStep && *next != connections.end(); ++i)
    *next = state_->prepare(*next);
  if (*next != connections.end())
    return true;
  next = connections.begin();
  pass = static_cast<State::Pass>(static_cast<int>(pass) + 1);
  return pass != State::Pass::done;
}

// What is forgotten here is not forgotten in one step by whoever ends the binding.
Connections::iterator Binding::State::prepare(Connections::iterator at) {
  auto & [name, known] = *at;
  if (pass == Pass::claims)
    claimRest(known);
  else if (pass == Pass::owners)
    decideOwners(name, known);
  else if (pass == Pass::reports)
    report(name, known);
  else
    return connections.erase(at);
  return std::next(at);
}

Bindings Binding::result() && {
  while (prepareNext()) {
  }
  return std::move(state_->bindings);
}

void Binding::State::childIs(Known & known, Endpoints const & own, ChildSa const & child,
                             ConnState state) {
  known.children[child.name].insert(own);
  known.children[""].insert(own);
  auto const found = find(known, own, child);
  std::vector<IntfId> intfIds;
  for (auto const * link : found.links) {
    addClaim(known, link->intfId, {found.rule, state, true, true});
    addLine(known, {child.name, link->intfId, std::string(ruleText(found.rule))}, state);
    intfIds.push_back(link->intfId);
  }
  if (intfIds.empty())
    addLine(known, {child.name, std::nullopt, whyUnbound(own, child)}, state);
  std::ranges::sort(intfIds);
  ++known.sas[intfIds];
}

namespace {

std::uint32_t ifIdOf(ChildSa const & child) {
  auto const out = child.ifIdOut.value_or(0);
  return out != 0 ? out : child.ifIdIn.value_or(0);
}

std::uint32_t markOf(ChildSa const & child) {
  return child.markOut.value_or(0);
}

Selection selectionOf(ChildSa const & child, Endpoints const & own) {
  return {child.mode, child.local, child.remote, own};
}

Selection selectionOf(ChildConfig const & child, std::optional<Endpoints> const & own = {}) {
  return {child.mode, child.local, child.remote, own};
}

/// A link that leaves its local endpoint to the routes sends from where the IKE_SA does.
LinkIndex::Found vtiLinks(LinkIndex const & index, std::uint32_t key, Endpoints const & own) {
  auto found = index.withKey(key, own);
  auto const open = index.withKey(key, {Plexa::IpGenAddr(), own.remote});
  found.insert(found.end(), open.begin(), open.end());
  return found;
}

} // namespace

Found Binding::State::find(Known const & known, Endpoints const & own,
                           ChildSa const & child) const {
  if (auto found = explicitLinks(known, child.name); !found.empty())
    return {Rule::explicitly, std::move(found)};
  auto const ifId = ifIdOf(child);
  auto const mark = markOf(child);
  if (auto found = ifId == 0 ? LinkIndex::Found() : index.withIfId(ifId); !found.empty())
    return {Rule::ifId, std::move(found)};
  if (mark != 0)
    return {Rule::mark, vtiLinks(index, mark, own)};
  if (ifId != 0)
    return {Rule::ifId, {}};
  return {Rule::selectors, selectedLinks(index, selectionOf(child, own))};
}

// Those of the child itself come first.
LinkIndex::Found Binding::State::explicitLinks(Known const & known,
                                               std::string const & child) const {
  LinkIndex::Found ofChild;
  LinkIndex::Found ofAll;
  for (auto const & one : known.explicitly) {
    if (!one.child.empty() && one.child != child)
      continue;
    auto & found = one.child.empty() ? ofAll : ofChild;
    auto const * link = links.findByName(one.interface);
    if (link != nullptr && std::ranges::find(found, link) == found.end())
      found.push_back(link);
  }
  return ofChild.empty() ? ofAll : ofChild;
}

std::string Binding::State::whyUnbound(Endpoints const & own, ChildSa const & child) const {
  if (markOf(child) != 0)
    return fmt::format("no vti link has key {} between {} and {}", markOf(child),
                       own.local.stringValue(), own.remote.stringValue());
  if (ifIdOf(child) != 0)
    return fmt::format("no link has if_id {}", ifIdOf(child));
  if (auto why = whyNoneSelected(index, selectionOf(child, own)); !why.empty())
    return why;
  if (child.local.empty() || child.remote.empty())
    return "it has no traffic selectors";
  return child.mode == Mode::transport ? "its selectors leave out the addresses of its IKE_SA"
                                       : "tunnel mode between networks protects no single tunnel";
}

void Binding::State::claimRest(Known & known) {
  for (auto const & connection : known.configured) {
    if (connection.children.empty())
      claimConfigured(known, connection, nullptr);
    for (auto const & child : connection.children)
      claimConfigured(known, connection, &child);
  }
  if (known.configured.empty() && known.children.empty() && !known.ikeSas.empty())
    claimUnconfigured(known);
  reportExplicit(known);
}

namespace {

/// For what is configured, and has no SA; nothing when a child has claimed the link.
void claimWithoutSa(Known & known, std::string const & child, IntfId intfId, Rule rule,
                    ConnState state) {
  auto const claimed = known.claims.find(intfId);
  if (claimed != known.claims.end() && claimed->second.isOfChild)
    return;
  addClaim(known, intfId, {rule, state, !known.ikeSas.empty(), false});
  addLine(known, {child, intfId, std::string(ruleText(rule))}, state);
}

} // namespace

void Binding::State::claimConfigured(Known & known, Connection const & connection,
                                     ChildConfig const * child) {
  auto const name = child == nullptr ? std::string() : child->name;
  auto const explicitly = explicitLinks(known, name);
  for (auto const * link : explicitly)
    claimWithoutSa(known, name, link->intfId, Rule::explicitly, known.best);
  if (!explicitly.empty())
    return;
  auto const found = configuredLinks(known, connection, child);
  for (auto const & [link, state] : found)
    claimWithoutSa(known, name, link->intfId, Rule::configured, state);
  if (found.empty() && !known.children.contains(name))
    addLine(known, {name, std::nullopt, whyNotConfigured(connection, child)}, known.best);
}

namespace {

/// The first of each side's single addresses, each with each.
std::vector<Endpoints> configuredEndpoints(Connection const & connection) {
  constexpr std::size_t addressesASide = 16;
  std::vector<Endpoints> all;
  for (auto const & local :
       std::span(connection.local).first(std::min(connection.local.size(), addressesASide)))
    for (auto const & remote :
         std::span(connection.remote).first(std::min(connection.remote.size(), addressesASide)))
      all.push_back({local, remote});
  return all;
}

bool hasSaBetween(Known const & known, std::string const & child, Endpoints const & own) {
  auto const found = known.children.find(child);
  return found != known.children.end() && found->second.contains(own);
}

} // namespace

std::map<Link const *, ConnState> Binding::State::configuredLinks(Known const & known,
                                                                  Connection const & connection,
                                                                  ChildConfig const * child) const {
  std::map<Link const *, ConnState> all;
  auto const add = [&all](LinkIndex::Found const & found, ConnState state) {
    for (auto const * link : found) {
      auto const [place, isNew] = all.try_emplace(link, state);
      place->second = betterOf(place->second, state);
    }
  };
  auto const addBetween = [&](Endpoints const & own, ConnState state) {
    if (!hasSaBetween(known, child == nullptr ? "" : child->name, own))
      add(configuredBetween(child, own), state);
  };
  if (child != nullptr && !known.children.contains(child->name)) // an SA says itself whose it is
    add(selectedLinks(index, selectionOf(*child)), known.best);
  for (auto const & own : configuredEndpoints(connection))
    addBetween(own, ConnState::down);
  for (auto const & [own, state] : known.ikeSas)
    addBetween(own, state);
  return all;
}

LinkIndex::Found Binding::State::configuredBetween(ChildConfig const * child,
                                                   Endpoints const & own) const {
  if (child == nullptr)
    return linksBetween(index, own);
  auto selected = selectedLinks(index, selectionOf(*child, own));
  if (!selected.empty() || child->mode == Mode::transport)
    return selected;
  auto between = linksBetween(index, own);
  std::erase_if(between, [](Link const * link) { return !isVti(*link); });
  return between;
}

std::string Binding::State::whyNotConfigured(Connection const & connection,
                                             ChildConfig const * child) const {
  auto const all = configuredEndpoints(connection);
  auto const own = all.empty() ? std::nullopt : std::optional(all.front());
  if (child != nullptr)
    if (auto why = whyNoneSelected(index, selectionOf(*child, own)); !why.empty())
      return why;
  if (!own)
    return "no SA yet, and its configuration names no single addresses";
  return fmt::format("no SA yet, and no {} is between {} and {}",
                     child == nullptr ? "link" : "vti link", own->local.stringValue(),
                     own->remote.stringValue());
}

void Binding::State::claimUnconfigured(Known & known) {
  auto const explicitly = explicitLinks(known, "");
  for (auto const * link : explicitly)
    claimWithoutSa(known, "", link->intfId, Rule::explicitly, known.best);
  if (explicitly.empty())
    addLine(known, {"", std::nullopt, "it is not configured any more, and has no child"},
            known.best);
}

namespace {

bool isConfigured(Known const & known, std::string const & child) {
  return std::ranges::any_of(known.configured, [&](Connection const & connection) {
    return std::ranges::any_of(connection.children,
                               [&](ChildConfig const & one) { return one.name == child; });
  });
}

} // namespace

void Binding::State::reportExplicit(Known & known) const {
  auto const isConnection = !known.configured.empty() || !known.ikeSas.empty();
  for (auto const & one : known.explicitly) {
    auto const say = [&](std::string_view trouble) {
      addLine(known,
              {one.child, std::nullopt, fmt::format("bound to {}, but {}", one.interface, trouble)},
              known.best);
    };
    if (!isConnection)
      say("the daemon has no such connection");
    else if (!one.child.empty() && !known.children.contains(one.child) &&
             !isConfigured(known, one.child))
      say("the connection has no such child");
    else if (links.findByName(one.interface) == nullptr)
      say("there is no such tunnel link");
  }
}

void Binding::State::decideOwners(std::string const & connection, Known const & known) {
  for (auto const & [intfId, claim] : known.claims) {
    if (links.find(intfId) == nullptr)
      continue;
    Owner const owner{&connection, claim, false};
    auto const [place, isNew] = owners.try_emplace(intfId, owner);
    if (isNew)
      continue;
    if (!std::exchange(place->second.isContested, true))
      ++bindings.conflicts;
    if (isOwnerBefore(owner, place->second))
      place->second = {&connection, claim, true};
  }
}

// Nobody has a link that has gone.
Owner const * Binding::State::ownerOf(IntfId intfId) const {
  auto const found = owners.find(intfId);
  return found == owners.end() || links.find(intfId) == nullptr ? nullptr : &found->second;
}

void Binding::State::report(std::string const & connection, Known const & known) {
  auto const isOurs = [&](IntfId intfId) {
    auto const * owner = ownerOf(intfId);
    return owner != nullptr && owner->connection == &connection;
  };
  for (auto const & [intfId, claim] : known.claims)
    if (isOurs(intfId))
      bindings.interfaces[intfId] = {connection, claim.state, claim.rule,
                                     ownerOf(intfId)->isContested};
  for (auto const & [line, state] : known.lines) {
    bindings.reports.push_back(reportOf(connection, line));
    bindings.reports.back().state = state;
  }
  for (auto const & [intfIds, count] : known.sas)
    (std::ranges::any_of(intfIds, isOurs) ? bindings.boundSas : bindings.unboundSas) += count;
}

ConnectionReport Binding::State::reportOf(std::string const & connection, Line const & line) const {
  ConnectionReport report{.connection = connection, .child = line.child, .reason = line.reason};
  if (!line.intfId)
    return report;
  auto const * owner = ownerOf(*line.intfId);
  if (owner == nullptr)
    report.reason = fmt::format("link {} has gone", line.intfId->stringValue());
  else if (*owner->connection == connection)
    report.interface = nameOf(*line.intfId);
  else
    report.reason =
        fmt::format("{} belongs to connection {}", nameOf(*line.intfId), *owner->connection);
  return report;
}

std::string Binding::State::nameOf(IntfId intfId) const {
  auto const & name = links.find(intfId)->name;
  return name.empty() ? intfId.stringValue() : name;
}

namespace {

void addClaim(Known & known, IntfId intfId, Claim const & claim) {
  auto const [place, isNew] = known.claims.try_emplace(intfId, claim);
  auto & [rule, state, hasSa, isOfChild] = place->second;
  rule = std::min(rule, claim.rule);
  state = betterOf(state, claim.state);
  hasSa = hasSa || claim.hasSa;
  isOfChild = isOfChild || claim.isOfChild;
}

void addLine(Known & known, Line line, ConnState state) {
  auto const [place, isNew] = known.lines.try_emplace(std::move(line), state);
  place->second = betterOf(place->second, state);
}

bool isOwnerBefore(Owner const & one, Owner const & other) {
  auto const rank = [](Owner const & owner) {
    auto const & [rule, state, hasSa, isOfChild] = owner.claim;
    return std::tuple(rule != Rule::explicitly, !hasSa, state != ConnState::up,
                      std::string_view(*owner.connection));
  };
  return rank(one) < rank(other);
}

} // namespace

} // namespace Sources::Ike
