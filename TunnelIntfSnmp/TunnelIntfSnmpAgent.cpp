// The agent and the root. Both keep what they made as long as it is asked for with the same inputs,
// and replace it otherwise. The machines start in the order of the tables in TunnelMib, and go in
// the same order.
#include "TunnelIntfSnmp/TunnelIntfSnmpAgent.h"
#include <array>

namespace TunnelIntfSnmp {

namespace {

constexpr char const * unitName = "TunnelIntfSnmpAgent";

Lumo::DebugHandler const & agentTrace() {
  static auto const handler = Lumo::Platform::getDebugHandler(unitName, false);
  return *handler;
}
// Known by its name before it has traced anything, so that it can be switched on.
[[maybe_unused]] auto const & traceFromTheLoadOn = agentTrace();

} // namespace

// The agent

TunnelIntfSnmpAgent::TunnelIntfSnmpAgent(Zel::Ptr<TunnelMib> tunnelMib,
                                         StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                                         IkeStatusPtr ikeStatus)
    : tunnelMib_(std::move(tunnelMib)),
      tunnelIntfStatusDir_(std::move(tunnelIntfStatusDir)),
      ifMib_(std::move(ifMib)),
      ikeStatus_(std::move(ikeStatus)) {
  smControl_.taskPriority = 3;
  handleInitialized();
}

TunnelIntfSnmpAgent::~TunnelIntfSnmpAgent() {
  tunnelIfTableSmDel();
  tunnelInetConfigTableSmDel();
  ipsecTunnelIfTableSmDel();
}

Zel::Ptr<TunnelIntfSnmpAgent>
TunnelIntfSnmpAgent::TunnelIntfSnmpAgentIs(Zel::Ptr<TunnelMib> tunnelMib,
                                           StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                                           IkeStatusPtr ikeStatus) {
  return Zel::makePtr<TunnelIntfSnmpAgent>(std::move(tunnelMib), std::move(tunnelIntfStatusDir),
                                           std::move(ifMib), std::move(ikeStatus));
}

Zel::Ptr<TunnelIntfSnmpAgent> tunnelIntfSnmpAgentFactory(Zel::Ptr<TunnelMib> tunnelMib,
                                                         StatusDirPtr tunnelIntfStatusDir,
                                                         IfMibPtr ifMib, IkeStatusPtr ikeStatus) {
  return TunnelIntfSnmpAgent::TunnelIntfSnmpAgentIs(
      std::move(tunnelMib), std::move(tunnelIntfStatusDir), std::move(ifMib), std::move(ikeStatus));
}

void TunnelIntfSnmpAgent::handleInitialized() {
  LUMO_TRACE(agentTrace(), 8, "Enter {}",
             "void TunnelIntfSnmp::TunnelIntfSnmpAgent::handleInitialized()");
  LUMO_TRACE(agentTrace(), 9, "Creating TunnelIfTableSm");
  tunnelIfTableSmIs(tunnelMib_, tunnelIntfStatusDir_, ifMib_, smControl_);
  LUMO_TRACE(agentTrace(), 9, "Creating TunnelInetConfigTableSm");
  tunnelInetConfigTableSmIs(tunnelMib_, tunnelIntfStatusDir_, ifMib_, smControl_);
  LUMO_TRACE(agentTrace(), 9, "Creating IpsecTunnelIfTableSm");
  ipsecTunnelIfTableSmIs(tunnelMib_, tunnelIntfStatusDir_, ifMib_, ikeStatus_, smControl_);
}

namespace {

// Whether the machine was built with these very inputs.
template <class Sm>
bool hasInputs(Sm const & sm, Zel::Ptr<TunnelMib> const & tunnelMib,
               StatusDirPtr const & tunnelIntfStatusDir, IfMibPtr const & ifMib) {
  return sm.mib() == tunnelMib && sm.tunnelIntfStatusDir() == tunnelIntfStatusDir &&
         sm.ifMib() == ifMib;
}

bool hasInputs(IpsecTunnelIfTableSm const & sm, Zel::Ptr<TunnelMib> const & tunnelMib,
               StatusDirPtr const & tunnelIntfStatusDir, IfMibPtr const & ifMib,
               IkeStatusPtr const & ikeStatus) {
  return hasInputs(sm, tunnelMib, tunnelIntfStatusDir, ifMib) && sm.ikeStatus() == ikeStatus;
}

// Finds or replaces the machine that an attribute holds. `create` is the machine's own operation.
template <class Sm, class Create, class... Inputs>
Zel::Ptr<Sm> smIs(Zel::Ptr<Sm> & attribute, Create create, Flowa::SmControl const & smControl,
                  Inputs const &... inputs) {
  if (attribute) {
    attribute->flowaControlIs(smControl);
    if (hasInputs(*attribute, inputs...))
      return attribute;
  }
  attribute = create(inputs..., smControl);
  attribute->hasNotificationActiveIs(true);
  return attribute;
}

} // namespace

Zel::Ptr<TunnelIfTableSm>
TunnelIntfSnmpAgent::tunnelIfTableSmIs(Zel::Ptr<TunnelMib> const & tunnelMib,
                                       StatusDirPtr const & tunnelIntfStatusDir,
                                       IfMibPtr const & ifMib, Flowa::SmControl const & smControl) {
  return smIs(tunnelIfTableSm_, TunnelIfTableSm::TunnelIfTableSmIs, smControl, tunnelMib,
              tunnelIntfStatusDir, ifMib);
}

Zel::Ptr<TunnelInetConfigTableSm> TunnelIntfSnmpAgent::tunnelInetConfigTableSmIs(
    Zel::Ptr<TunnelMib> const & tunnelMib, StatusDirPtr const & tunnelIntfStatusDir,
    IfMibPtr const & ifMib, Flowa::SmControl const & smControl) {
  return smIs(tunnelInetConfigTableSm_, TunnelInetConfigTableSm::TunnelInetConfigTableSmIs,
              smControl, tunnelMib, tunnelIntfStatusDir, ifMib);
}

Zel::Ptr<IpsecTunnelIfTableSm> TunnelIntfSnmpAgent::ipsecTunnelIfTableSmIs(
    Zel::Ptr<TunnelMib> const & tunnelMib, StatusDirPtr const & tunnelIntfStatusDir,
    IfMibPtr const & ifMib, IkeStatusPtr const & ikeStatus, Flowa::SmControl const & smControl) {
  return smIs(ipsecTunnelIfTableSm_, IpsecTunnelIfTableSm::IpsecTunnelIfTableSmIs, smControl,
              tunnelMib, tunnelIntfStatusDir, ifMib, ikeStatus);
}

void TunnelIntfSnmpAgent::tunnelIfTableSmDel() {
  tunnelIfTableSm_ = nullptr;
}

void TunnelIntfSnmpAgent::tunnelInetConfigTableSmDel() {
  tunnelInetConfigTableSm_ = nullptr;
}

void TunnelIntfSnmpAgent::ipsecTunnelIfTableSmDel() {
  ipsecTunnelIfTableSm_ = nullptr;
}

// The root

Root::Root(std::string_view name) : Entity(name) {}

Root::~Root() {
  tunnelIntfSnmpAgentDel();
  notifieesDelAll();
}

Zel::Ptr<Root> Root::RootIs(std::string_view name) {
  return Zel::makePtr<Root>(name);
}

Zel::Ptr<Root> rootFactory(std::string_view name) {
  return Root::RootIs(name);
}

Zel::Ptr<TunnelIntfSnmpAgent> Root::tunnelIntfSnmpAgentIs(Zel::Ptr<TunnelMib> const & tunnelMib,
                                                          StatusDirPtr const & tunnelIntfStatusDir,
                                                          IfMibPtr const & ifMib,
                                                          IkeStatusPtr const & ikeStatus) {
  if (agent_ && agent_->tunnelMib() == tunnelMib &&
      agent_->tunnelIntfStatusDir() == tunnelIntfStatusDir && agent_->ifMib() == ifMib &&
      agent_->ikeStatus() == ikeStatus)
    return agent_;
  auto agent = tunnelIntfSnmpAgentFactory(tunnelMib, tunnelIntfStatusDir, ifMib, ikeStatus);
  agent->hasNotificationActiveIs(true);
  agent_ = agent;
  notify(tunnelIntfSnmpAgentAttribute());
  return agent;
}

Zel::Ptr<TunnelIntfSnmpAgent> Root::tunnelIntfSnmpAgentDel() {
  auto const removed = std::exchange(agent_, nullptr);
  if (removed)
    notify(tunnelIntfSnmpAgentAttribute());
  return removed;
}

// What the framework is told when the library is loaded.

Zel::Type const & TunnelIntfSnmpAgent::type() const {
  return typeDescription();
}

Zel::Type const & TunnelIntfSnmpAgent::typeDescription() {
  using Agent = TunnelIntfSnmpAgent;
  static Zel::Attribute const list[] = {
      {"tunnelMib", "TunnelIntfSnmp::TunnelMib", Zel::getBy<&Agent::tunnelMib>},
      {"tunnelIntfStatusDir", "Interface::TunnelIntfStatusDir",
       Zel::getBy<&Agent::tunnelIntfStatusDir>},
      {"ifMib", "IntfSnmp::IfMib", Zel::getBy<&Agent::ifMib>},
      {"ikeStatus", "Ipsec::Ike::Status", Zel::getBy<&Agent::ikeStatus>},
      {"smControl", "Flowa::SmControl", Zel::getBy<&TunnelIntfSnmpAgent::smControl>},
      {"tunnelIfTableSm", "TunnelIntfSnmp::TunnelIfTableSm", Zel::getBy<&Agent::tunnelIfTableSm>},
      {"tunnelInetConfigTableSm", "TunnelIntfSnmp::TunnelInetConfigTableSm",
       Zel::getBy<&Agent::tunnelInetConfigTableSm>},
      {"ipsecTunnelIfTableSm", "TunnelIntfSnmp::IpsecTunnelIfTableSm",
       Zel::getBy<&Agent::ipsecTunnelIfTableSm>}};
  static auto const attributes = Zel::pointersTo(list);
  static Zel::Type const type{"TunnelIntfSnmp::TunnelIntfSnmpAgent", attributes};
  return type;
}

namespace {

// tunnelIntfSnmpAgentIs() for a host that knows the attribute by name only.
Zel::Ptr<Zel::PtrInterface>
tunnelIntfSnmpAgentByName(Zel::PtrInterface & root,
                          std::span<Zel::Ptr<Zel::PtrInterface> const> arguments) {
  constexpr std::string_view attribute = "tunnelIntfSnmpAgent";
  if (arguments.size() != 4)
    throw Zel::GenericAccessError(fmt::format(
        "attribute {}: {} arguments; it takes tunnelMib, tunnelIntfStatusDir, ifMib, ikeStatus",
        attribute, arguments.size()));
  return static_cast<Root &>(root).tunnelIntfSnmpAgentIs(
      Zel::argument<TunnelMib>(arguments[0], attribute),
      Zel::argument<Interface::TunnelIntfStatusDir>(arguments[1], attribute),
      Zel::argument<IntfSnmp::IfMib>(arguments[2], attribute),
      Zel::argument<Ipsec::Ike::Status>(arguments[3], attribute));
}

} // namespace

Zel::Attribute const & Root::tunnelIntfSnmpAgentAttribute() {
  static Zel::Attribute const attribute{
      "tunnelIntfSnmpAgent", "TunnelIntfSnmp::TunnelIntfSnmpAgent",
      Zel::getBy<&Root::tunnelIntfSnmpAgent>, tunnelIntfSnmpAgentByName,
      [](Zel::PtrInterface & root) { static_cast<Root &>(root).tunnelIntfSnmpAgentDel(); }};
  return attribute;
}

Zel::Type const & Root::type() const {
  return typeDescription();
}

Zel::Type const & Root::typeDescription() {
  static Zel::Attribute const name{"name", "String", Zel::getBy<&Entity::name>};
  static std::array<Zel::Attribute const *, 2> const attributes{&name,
                                                                &tunnelIntfSnmpAgentAttribute()};
  static Zel::Type const type{"TunnelIntfSnmp::Root", attributes,
                              [](std::string_view entityName) -> Zel::Ptr<Zel::PtrInterface> {
                                return rootFactory(entityName);
                              }};
  return type;
}

namespace {

std::array<Zel::Type const *, 2> const types{&Root::typeDescription(),
                                             &TunnelIntfSnmpAgent::typeDescription()};
constexpr auto outsideTypes = std::to_array<std::string_view>(
    {"TunnelIntfSnmp::TunnelMib", "TunnelIntfSnmp::TunnelIfTableSm",
     "TunnelIntfSnmp::TunnelInetConfigTableSm", "TunnelIntfSnmp::IpsecTunnelIfTableSm",
     "Interface::TunnelIntfStatusDir", "IntfSnmp::IfMib", "Ipsec::Ike::Status",
     "Flowa::SmControl"});
Zel::Module const moduleRecord{unitName, "ns-", types, outsideTypes};
Zel::zelModuleIs const _TunnelIntfSnmpAgent_4f04f781_zelModule(moduleRecord);

} // namespace

} // namespace TunnelIntfSnmp
