// Which tunnel interface each connection of an IKE daemon protects, and how that is going.
//
// A pure function of the links, the connections, the security associations and what an operator
// has bound explicitly: the order in which they are handed over, and that of past events, do not
// matter.
//
// A child is bound by the first of these rules that finds a link; the rules are tried in order:
//
//   explicitly  the operator said so: bind=CONNECTION[/CHILD]@INTERFACE
//   ifId        if_id_out, else if_id_in, is the if_id of an xfrm link; 0 never is
//   mark        mark_out is the output key of a vti link whose endpoints are the IKE_SA's
//   selectors   neither if_id nor mark, which other links' packets do not have; transport mode, or
//               host selectors: they cover the link's endpoints and demand its protocol, or any
//   configured  no SA of it: the selectors of the child as it is configured are for the link; or no
//               SA of it between those addresses: the link is a vti link between the connection's
//               addresses, or those of its IKE_SA; of a connection without children, any link is
//
// One child may have several links, and one link several children. An explicit binding of a child
// comes before one of its whole connection. What is configured and has no SA keeps its links, with
// the state of the connection's IKE_SA, or down: no interface vanishes because its tunnel does.
#pragma once

#include "platform/Ipsec.h"
#include "platform/Plexa.h"
#include "sources/ike/Ike.h"
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Sources::Ike {

class LinkIndex;

enum class Rule : std::uint8_t { explicitly, ifId, mark, selectors, configured };
/// "explicit", "if_id", "mark", "selectors", "configured".
std::string_view ruleText(Rule rule);

/// bind=CONNECTION[/CHILD]@INTERFACE.
struct ExplicitBinding {
  std::string connection;
  std::string child; ///< empty: any
  std::string interface;
  bool operator==(ExplicitBinding const &) const = default;
};
/// What follows "bind=". The interface is what comes after the last '@', the child what comes after
/// the first '/'. Raises std::invalid_argument, one line, when a part is missing.
ExplicitBinding explicitBindingFromText(std::string_view text);

/// The connection that one interface has.
struct Bound {
  std::string profile; ///< the connection's name
  ::Ipsec::Ike::ConnState state = ::Ipsec::Ike::ConnState::down;
  Rule rule = Rule::configured;
  bool isContested = false; ///< another connection claims the interface too
  bool operator==(Bound const &) const = default;
};

/// One line for people: a connection, one of its children, or an IKE_SA without any, and where it
/// belongs.
struct ConnectionReport {
  std::string connection;
  std::string child = {}; ///< empty when there is none
  ::Ipsec::Ike::ConnState state = ::Ipsec::Ike::ConnState::down;
  std::string interface = {}; ///< empty when it is bound to none
  std::string reason = {};    ///< the rule that bound it, or why it is bound to none
  bool operator==(ConnectionReport const &) const = default;
};

/// What came of it all.
struct Bindings {
  std::map<Plexa::IntfId, Bound> interfaces;
  std::vector<ConnectionReport> reports; ///< in order of connection, then child
  std::size_t boundSas = 0;              ///< CHILD_SAs that are bound to an interface
  std::size_t unboundSas = 0;            ///< and those that are not
  /// Interfaces that several connections claim. The explicit one has it; else one that has SAs; of
  /// those the one that is up; else the one of the lowest name.
  std::size_t conflicts = 0;
  bool operator==(Bindings const &) const = default;
};

/// Takes connections and SAs as they are decoded, in any order, each at a cost that does not grow
/// with the number of links; keeps what it must know of them and not them.
class Binding {
public:
  /// `index` outlives it. Links may change between the calls: what is found is right for the moment
  /// in which it is sought, so who uses it follows a change by another one. A link that has gone by
  /// the end is bound to nothing.
  Binding(LinkIndex const & index, std::vector<ExplicitBinding> bindings);
  Binding(Binding const &) = delete;
  Binding & operator=(Binding const &) = delete;
  ~Binding();

  void connectionIs(Connection const & connection);
  void saIs(IkeSa const & sa);
  /// Does a part of the work of result(), some hundred microseconds of it; false when none is left.
  /// Requires: nothing is handed over afterwards.
  [[nodiscard]] bool prepareNext();
  /// All of it. Requires: nothing is handed over afterwards.
  Bindings result() &&;

private:
  struct State;
  std::unique_ptr<State> state_;
};

} // namespace Sources::Ike
