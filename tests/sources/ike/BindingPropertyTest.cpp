// Random links, connections, SAs and explicit bindings: what comes of them is what a plain reading
// of the rules says, and depends on neither the order in which they come nor on what was before.
#include "sources/ike/ConnectionState.h"
#include "tests/sources/ike/BindingWorld.h"
#include "tests/support/TestScheduler.h"
#include <algorithm>
#include <optional>
#include <random>
#include <set>

namespace Sources::Ike {
namespace {

using Plexa::IntfId;

/// All that a binding is made of.
struct Inputs {
  std::vector<Link> links;
  std::vector<ExplicitBinding> explicitly;
  std::vector<Connection> connections;
  std::vector<IkeSa> sas;
};

/// Few values of each sort, so that they meet.
class Chance {
public:
  explicit Chance(std::uint32_t seed) : random_(seed) {}

  std::size_t below(std::size_t end) {
    return std::uniform_int_distribution<std::size_t>(0, end - 1)(random_);
  }
  bool oneIn(std::size_t times) { return below(times) == 0; }
  template <class Value>
  Value of(std::vector<Value> const & all) {
    return all[below(all.size())];
  }
  template <class Value>
  void shuffle(std::vector<Value> & all) {
    std::shuffle(all.begin(), all.end(), random_);
  }

  Plexa::IpGenAddr local() {
    return address(of<std::string>({"10.9.0.1", "10.9.0.1", "10.8.0.1", "2001:db8::1"}));
  }
  Plexa::IpGenAddr remote() {
    return address(of<std::string>({"10.9.0.2", "10.9.0.2", "10.9.0.3", "2001:db8::2"}));
  }
  std::optional<std::uint32_t> number() {
    return oneIn(2) ? std::nullopt : std::optional(static_cast<std::uint32_t>(below(4)));
  }

  Link link(std::uint64_t id) {
    Link one{.intfId = IntfId(id),
             .name = "l" + std::to_string(id),
             .kind =
                 of<std::string_view>({"gre", "gre", "ipip", "sit", "ip6tnl", "vti", "vti", "vti6",
                                       "xfrm", "xfrm", "vxlan", "geneve", "wireguard"})};
    if (one.kind == "xfrm") {
      one.ifId = number();
      return one;
    }
    if (!oneIn(6))
      one.local = local();
    if (!oneIn(8))
      one.remote = remote();
    one.inputKey = number();
    one.outputKey = number();
    if (one.kind == "vxlan" || one.kind == "geneve")
      one.port = of<std::uint16_t>({4789, 6081});
    return one;
  }

  std::vector<Selector> side(bool isLocal) {
    static std::vector<std::string> const locals{
        "10.9.0.1/32",      "10.9.0.1/32[gre]", "10.8.0.1/32[udp]", "2001:db8::1/128", "0.0.0.0/0",
        "10.9.0.0/24[gre]", "dynamic",          "dynamic[gre]",     "dynamic[4]"};
    static std::vector<std::string> const remotes{
        "10.9.0.2/32",     "10.9.0.2/32[gre]", "10.9.0.3/32[udp/4789]",
        "2001:db8::2/128", "0.0.0.0/0",        "10.9.0.0/24[gre]",
        "dynamic",         "dynamic[gre]",     "dynamic[4]"};
    std::vector<std::string> texts;
    for (auto count = below(3); count != 0; --count)
      texts.push_back(of(isLocal ? locals : remotes));
    return selectors(texts);
  }
  Mode mode() { return of<Mode>({Mode::tunnel, Mode::transport, Mode::beet, Mode::other}); }
  std::string connectionName() { return of<std::string>({"a", "b", "c", "d"}); }
  std::string childName() { return of<std::string>({"k", "l"}); }

  ChildSa childSa() {
    ChildSa child{.name = childName(),
                  .state = static_cast<ChildState>(below(12)),
                  .mode = mode(),
                  .local = side(true),
                  .remote = side(false)};
    if (oneIn(2))
      child.state = ChildState::installed;
    if (oneIn(3)) {
      child.ifIdIn = number();
      child.ifIdOut = number();
    }
    if (oneIn(3))
      child.markOut = number();
    return child;
  }
  IkeSa ikeSa() {
    IkeSa one{.connection = connectionName(),
              .state = static_cast<IkeState>(below(9)),
              .local = local(),
              .remote = remote()};
    if (oneIn(2))
      one.state = IkeState::established;
    for (auto count = below(4); count != 0; --count)
      one.children.push_back(childSa());
    return one;
  }
  Connection connection(std::string name) {
    Connection one{.name = std::move(name)};
    for (auto count = below(3); count != 0; --count)
      one.local.push_back(local());
    for (auto count = below(3); count != 0; --count)
      one.remote.push_back(remote());
    for (auto const * child : {"k", "l"})
      if (!oneIn(3))
        one.children.push_back(
            {.name = child, .mode = mode(), .local = side(true), .remote = side(false)});
    return one;
  }
  ExplicitBinding explicitly() {
    return {connectionName(), oneIn(2) ? childName() : "", "l" + std::to_string(1 + below(10))};
  }

  Inputs inputs() {
    Inputs all;
    for (std::uint64_t id = 1; id <= 8; ++id)
      if (!oneIn(4))
        all.links.push_back(link(id));
    for (auto const * name : {"a", "b", "c"})
      if (!oneIn(3))
        all.connections.push_back(connection(name));
    for (auto count = below(6); count != 0; --count)
      all.sas.push_back(ikeSa());
    for (auto count = below(3); count != 0; --count)
      all.explicitly.push_back(explicitly());
    return all;
  }

private:
  std::mt19937 random_;
};

/// Each rule as it is written, tried on each link.
class Oracle {
public:
  explicit Oracle(Inputs const & inputs) : inputs_(inputs) {}

  Bindings result() {
    for (auto const & link : inputs_.links)
      decide(link);
    for (auto const & sa : inputs_.sas)
      for (auto const & child : sa.children)
        if (isThere(child.state))
          ++(hasAny(sa, child) ? result_.boundSas : result_.unboundSas);
    return result_;
  }

private:
  struct Claim {
    std::string connection;
    std::set<Rule> rules = {};
    std::vector<ConnState> states = {};
    bool hasSa = false;

    ConnState best() const { return *std::ranges::min_element(states, isBetter); }
  };

  void decide(Link const & link) {
    std::vector<Claim> claims;
    for (auto const * name : {"a", "b", "c", "d"})
      if (auto claim = claimOf(link, name); !claim.states.empty())
        claims.push_back(std::move(claim));
    if (claims.empty())
      return;
    auto const isContested = claims.size() > 1;
    result_.conflicts += isContested ? 1 : 0;
    keepIfAny(claims, [](Claim const & one) { return one.rules.contains(Rule::explicitly); });
    keepIfAny(claims, [](Claim const & one) { return one.hasSa; });
    keepIfAny(claims, [](Claim const & one) { return one.best() == ConnState::up; });
    auto const & owner = claims.front();
    result_.interfaces[link.intfId] = {owner.connection, owner.best(), *owner.rules.begin(),
                                       isContested};
  }

  template <class Is>
  static void keepIfAny(std::vector<Claim> & claims, Is is) {
    if (std::ranges::any_of(claims, is))
      std::erase_if(claims, [&](Claim const & one) { return !is(one); });
  }

  Claim claimOf(Link const & link, std::string const & name) const {
    Claim claim{.connection = name};
    for (auto const & sa : sasOf(name))
      for (auto const & child : sa.children)
        if (auto const rule = isThere(child.state) ? ruleOf(link, sa, child) : std::nullopt)
          add(claim, *rule, connectionState(sa.state, child.state));
    claim.hasSa = !sasOf(name).empty();
    if (claim.states.empty())
      claimWithoutSa(claim, link, name);
    return claim;
  }

  static void add(Claim & claim, Rule rule, ConnState state) {
    claim.rules.insert(rule);
    claim.states.push_back(state);
  }

  std::vector<IkeSa> sasOf(std::string const & name) const {
    auto sas = inputs_.sas;
    std::erase_if(sas, [&](IkeSa const & sa) { return sa.connection != name; });
    return sas;
  }

  std::vector<Link> those(auto is) const {
    auto links = inputs_.links;
    std::erase_if(links, [&](Link const & link) { return !is(link); });
    return links;
  }

  std::vector<Link> bound(std::string const & connection, std::string const & child) const {
    auto const has = [&](Link const & link, bool wholeConnection) {
      return std::ranges::any_of(inputs_.explicitly, [&](ExplicitBinding const & one) {
        return one.connection == connection && one.interface == link.name &&
               (wholeConnection ? one.child.empty() : !one.child.empty() && one.child == child);
      });
    };
    auto const ofChild = those([&](Link const & link) { return has(link, false); });
    return ofChild.empty() ? those([&](Link const & link) { return has(link, true); }) : ofChild;
  }

  std::optional<Rule> ruleOf(Link const & link, IkeSa const & sa, ChildSa const & child) const {
    auto const ifId = child.ifIdOut.value_or(0) != 0 ? *child.ifIdOut : child.ifIdIn.value_or(0);
    auto const mark = child.markOut.value_or(0);
    std::pair<Rule, std::vector<Link>> const rules[] = {
        {Rule::explicitly, bound(sa.connection, child.name)},
        {Rule::ifId, those([&](Link const & one) {
           return ifId != 0 && one.kind == "xfrm" && one.ifId == ifId;
         })},
        {Rule::mark, those([&](Link const & one) {
           return mark != 0 && isVtiBetween(one, sa.local, sa.remote) && one.outputKey == mark;
         })},
        {Rule::selectors, those([&](Link const & one) {
           return ifId == 0 && mark == 0 &&
                  isSelected(one, child.mode, child.local, child.remote, {{sa.local, sa.remote}});
         })}};
    for (auto const & [rule, links] : rules)
      if (!links.empty())
        return std::ranges::find(links, link) == links.end() ? std::nullopt : std::optional(rule);
    return std::nullopt;
  }

  using Own = std::optional<std::pair<Plexa::IpGenAddr, Plexa::IpGenAddr>>;

  static bool isBetween(Link const & link, Plexa::IpGenAddr const & local,
                        Plexa::IpGenAddr const & remote, bool mayBeOpen) {
    return link.remote == remote &&
           (link.local == local || (mayBeOpen && link.local == Plexa::IpGenAddr()));
  }
  static bool isVtiBetween(Link const & link, Plexa::IpGenAddr const & local,
                           Plexa::IpGenAddr const & remote) {
    return (link.kind == "vti" || link.kind == "vti6") && isBetween(link, local, remote, true);
  }

  static bool isSelected(Link const & link, Mode mode, std::vector<Selector> const & locals,
                         std::vector<Selector> const & remotes, Own const & own) {
    auto const only = [&](Selector const & selector, Plexa::IpGenAddr const & ownSide) {
      auto const isOwn =
          own && (selector.isDynamic() || (mode == Mode::transport && selector.covers(ownSide)));
      return selector.isHost() ? std::optional(selector.first)
                               : (isOwn ? std::optional(ownSide) : std::nullopt);
    };
    for (auto const & local : locals)
      for (auto const & remote : remotes) {
        auto const from = only(local, own ? own->first : Plexa::IpGenAddr());
        auto const to = only(remote, own ? own->second : Plexa::IpGenAddr());
        if (from && to && isBetween(link, *from, *to, own == std::pair(*from, *to)) &&
            isForKind(link, local, remote))
          return true;
      }
    return false;
  }

  static bool isForKind(Link const & link, Selector const & local, Selector const & remote) {
    std::vector<int> protocols;
    if (link.kind == "gre")
      protocols = {47};
    if (link.kind == "ipip" || link.kind == "ip6tnl")
      protocols = {4};
    if (link.kind == "sit" || link.kind == "ip6tnl")
      protocols.push_back(41);
    if (link.port)
      protocols = {17};
    auto const isProtocol = [&](int protocol) {
      return (local.protocol == 0 || local.protocol == protocol) &&
             (remote.protocol == 0 || remote.protocol == protocol);
    };
    auto const isAny = [](Selector const & one) {
      return one.firstPort == 0 && one.lastPort == 65535;
    };
    auto const isPort =
        link.port ? remote.firstPort <= *link.port && *link.port <= remote.lastPort : isAny(remote);
    return isAny(local) && isPort && std::ranges::any_of(protocols, isProtocol);
  }

  void claimWithoutSa(Claim & claim, Link const & link, std::string const & name) const {
    auto isConfigured = false;
    for (auto const & connection : inputs_.connections) {
      if (connection.name != name)
        continue;
      isConfigured = true;
      if (connection.children.empty())
        claimConfigured(claim, link, connection, nullptr);
      for (auto const & child : connection.children)
        claimConfigured(claim, link, connection, &child);
    }
    auto const sas = sasOf(name);
    auto const isChildless = std::ranges::all_of(sas, [](IkeSa const & sa) {
      return std::ranges::none_of(sa.children, [](auto & child) { return isThere(child.state); });
    });
    auto const explicitly = bound(name, "");
    if (!isConfigured && !sas.empty() && isChildless &&
        std::ranges::find(explicitly, link) != explicitly.end())
      add(claim, Rule::explicitly, bestOf(sas));
  }

  static ConnState bestOf(std::vector<IkeSa> const & sas) {
    auto best = ConnState::down;
    for (auto const & sa : sas)
      best = betterOf(best, connectionState(sa.state));
    return best;
  }

  void claimConfigured(Claim & claim, Link const & link, Connection const & connection,
                       ChildConfig const * child) const {
    auto const sas = sasOf(connection.name);
    auto const name = child == nullptr ? "" : child->name;
    auto const explicitly = bound(connection.name, name);
    if (!explicitly.empty()) {
      if (std::ranges::find(explicitly, link) != explicitly.end())
        add(claim, Rule::explicitly, bestOf(sas));
      return;
    }
    if (child != nullptr && !hasSa(sas, child->name) &&
        isSelected(link, child->mode, child->local, child->remote, {}))
      add(claim, Rule::configured, bestOf(sas));
    for (auto const & local : connection.local)
      for (auto const & remote : connection.remote)
        claimBetween(claim, link, sas, child, {{local, remote}}, ConnState::down);
    for (auto const & sa : sas)
      claimBetween(claim, link, sas, child, {{sa.local, sa.remote}}, connectionState(sa.state));
  }

  static bool hasSa(std::vector<IkeSa> const & sas, std::string const & child) {
    return std::ranges::any_of(sas, [&](IkeSa const & sa) {
      return std::ranges::any_of(sa.children, [&](ChildSa const & one) {
        return isThere(one.state) && one.name == child;
      });
    });
  }

  void claimBetween(Claim & claim, Link const & link, std::vector<IkeSa> const & sas,
                    ChildConfig const * child, Own const & own, ConnState state) const {
    auto const hasChild = [&](IkeSa const & sa) {
      return sa.local == own->first && sa.remote == own->second &&
             std::ranges::any_of(sa.children, [&](ChildSa const & one) {
               return isThere(one.state) && (child == nullptr || one.name == child->name);
             });
    };
    if (std::ranges::none_of(sas, hasChild) && isConfiguredBetween(link, child, own))
      add(claim, Rule::configured, state);
  }

  bool isConfiguredBetween(Link const & link, ChildConfig const * child, Own const & own) const {
    if (child == nullptr)
      return isBetween(link, own->first, own->second, true);
    auto const isChosen = [&](Link const & one) {
      return isSelected(one, child->mode, child->local, child->remote, own);
    };
    if (!those(isChosen).empty() || child->mode == Mode::transport)
      return isChosen(link);
    return isVtiBetween(link, own->first, own->second);
  }

  bool hasAny(IkeSa const & sa, ChildSa const & child) const {
    return std::ranges::any_of(inputs_.links, [&](Link const & link) {
      auto const owner = result_.interfaces.find(link.intfId);
      return ruleOf(link, sa, child) && owner->second.profile == sa.connection;
    });
  }

  Inputs const & inputs_;
  Bindings result_;
};

Bindings bound(LinkIndex const & index, Inputs const & inputs) {
  Binding binding(index, inputs.explicitly);
  for (auto const & one : inputs.connections)
    binding.connectionIs(one);
  for (auto const & one : inputs.sas)
    binding.saIs(one);
  return std::move(binding).result();
}

class BindingProperty : public testing::Test {
protected:
  /// Puts the links there, after others that changed into them or went.
  void makeLinks(Links & links, Inputs const & inputs) {
    for (std::uint64_t id = 1; id <= 10; ++id)
      if (chance.oneIn(2))
        links.linkIs(chance.link(id));
    for (std::uint64_t id = 1; id <= 10; ++id)
      links.linkDel(IntfId(id));
    for (auto const & link : inputs.links)
      links.linkIs(chance.link(link.intfId.value()));
    for (auto const & link : inputs.links)
      links.linkIs(link);
  }

  void shuffle(Inputs & inputs) {
    chance.shuffle(inputs.links);
    chance.shuffle(inputs.explicitly);
    chance.shuffle(inputs.connections);
    chance.shuffle(inputs.sas);
    for (auto & sa : inputs.sas)
      chance.shuffle(sa.children);
  }

  Chance chance{testSeed()};
};

TEST_F(BindingProperty, IsWhatThePlainReadingOfTheRulesSays) {
  std::size_t boundLinks = 0;
  std::size_t conflicts = 0;
  std::set<Rule> rules = {};
  for (int round = 0; round != 1000; ++round) {
    auto const inputs = chance.inputs();
    Links links;
    LinkIndex const index(links);
    makeLinks(links, inputs);
    auto made = bound(index, inputs);
    made.reports.clear();
    auto const expected = Oracle(inputs).result();
    ASSERT_EQ(told(links, made), told(links, expected)) << "round " << round;
    ASSERT_EQ(made, expected) << "round " << round;
    boundLinks += made.interfaces.size();
    conflicts += made.conflicts;
    for (auto const & [intfId, one] : made.interfaces)
      rules.insert(one.rule);
  }
  EXPECT_GT(boundLinks, 500u);
  EXPECT_GT(conflicts, 50u);
  EXPECT_EQ(rules.size(), 5u);
}

TEST_F(BindingProperty, DependsOnTheFinalInputsAlone) {
  for (int round = 0; round != 300; ++round) {
    auto inputs = chance.inputs();
    Links links;
    LinkIndex const index(links);
    makeLinks(links, inputs);
    auto const expected = bound(index, inputs);
    for (int again = 0; again != 3; ++again) {
      shuffle(inputs);
      Links others;
      makeLinks(others, inputs);
      auto const made = bound(LinkIndex(others), inputs);
      ASSERT_EQ(told(made.reports), told(expected.reports)) << "round " << round;
      ASSERT_EQ(made, expected) << "round " << round;
    }
  }
}

TEST_F(BindingProperty, SaysOfEachReportItsLinkOrAReason) {
  for (int round = 0; round != 200; ++round) {
    auto const inputs = chance.inputs();
    Links links;
    LinkIndex const index(links);
    makeLinks(links, inputs);
    auto const made = bound(index, inputs);
    for (auto const & report : made.reports) {
      ASSERT_FALSE(report.reason.empty());
      if (report.interface.empty())
        continue;
      auto const * link = links.findByName(report.interface);
      ASSERT_NE(link, nullptr);
      ASSERT_EQ(made.interfaces.at(link->intfId).profile, report.connection);
    }
  }
}

} // namespace
} // namespace Sources::Ike
