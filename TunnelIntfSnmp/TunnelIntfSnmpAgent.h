// Where the plug-in starts: the entity Root, which the host creates by type name, and the agent
// that it owns, which creates and owns the table state machines.
#pragma once

#include "TunnelIntfSnmp/IpsecTunnelIfTableSm.h"
#include "TunnelIntfSnmp/TunnelIfTableSm.h"
#include "TunnelIntfSnmp/TunnelInetConfigTableSm.h"
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Flowa.h"
#include "platform/Zel.h"
#include <string_view>

namespace TunnelIntfSnmp {

/// Holds the four inputs for its whole life and runs the machines over them, each with a copy of
/// its control record. Its destruction removes them in the order in which they were created.
class TunnelIntfSnmpAgent : public Zel::PtrInterface {
public:
  /// Creates the machines before it returns. Requires: no pointer is null; a null one is
  /// fatal.
  TunnelIntfSnmpAgent(Zel::Ptr<TunnelMib> tunnelMib, StatusDirPtr tunnelIntfStatusDir,
                      IfMibPtr ifMib, IkeStatusPtr ikeStatus);
  ~TunnelIntfSnmpAgent() override;
  static Zel::Ptr<TunnelIntfSnmpAgent> TunnelIntfSnmpAgentIs(Zel::Ptr<TunnelMib> tunnelMib,
                                                             StatusDirPtr tunnelIntfStatusDir,
                                                             IfMibPtr ifMib,
                                                             IkeStatusPtr ikeStatus);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();

  Zel::Ptr<TunnelMib> const & tunnelMib() const { return tunnelMib_; }
  StatusDirPtr const & tunnelIntfStatusDir() const { return tunnelIntfStatusDir_; }
  IfMibPtr const & ifMib() const { return ifMib_; }
  IkeStatusPtr const & ikeStatus() const { return ikeStatus_; }
  /// No scheduler (the machines find the default one), priority 3, everything else at its default.
  Flowa::SmControl const & smControl() const { return smControl_; }

  /// Creates the machines. Called by the constructor.
  void handleInitialized();

  Zel::Ptr<TunnelIfTableSm> const & tunnelIfTableSm() const { return tunnelIfTableSm_; }
  Zel::Ptr<TunnelInetConfigTableSm> const & tunnelInetConfigTableSm() const {
    return tunnelInetConfigTableSm_;
  }
  Zel::Ptr<IpsecTunnelIfTableSm> const & ipsecTunnelIfTableSm() const {
    return ipsecTunnelIfTableSm_;
  }

  // Each keeps the machine if it has these very inputs, else replaces it by a new one; in any case
  // the machine that stays or goes is given `smControl`. Returns the machine that is there now.
  Zel::Ptr<TunnelIfTableSm> tunnelIfTableSmIs(Zel::Ptr<TunnelMib> const & tunnelMib,
                                              StatusDirPtr const & tunnelIntfStatusDir,
                                              IfMibPtr const & ifMib,
                                              Flowa::SmControl const & smControl);
  Zel::Ptr<TunnelInetConfigTableSm>
  tunnelInetConfigTableSmIs(Zel::Ptr<TunnelMib> const & tunnelMib,
                            StatusDirPtr const & tunnelIntfStatusDir, IfMibPtr const & ifMib,
                            Flowa::SmControl const & smControl);
  Zel::Ptr<IpsecTunnelIfTableSm> ipsecTunnelIfTableSmIs(Zel::Ptr<TunnelMib> const & tunnelMib,
                                                        StatusDirPtr const & tunnelIntfStatusDir,
                                                        IfMibPtr const & ifMib,
                                                        IkeStatusPtr const & ikeStatus,
                                                        Flowa::SmControl const & smControl);
  // Each removes the machine, if there is one.
  void tunnelIfTableSmDel();
  void tunnelInetConfigTableSmDel();
  void ipsecTunnelIfTableSmDel();

private:
  Zel::Ptr<TunnelMib> const tunnelMib_;
  StatusDirPtr const tunnelIntfStatusDir_;
  IfMibPtr const ifMib_;
  IkeStatusPtr const ikeStatus_;
  Flowa::SmControl smControl_;
  Zel::Ptr<TunnelIfTableSm> tunnelIfTableSm_;
  Zel::Ptr<TunnelInetConfigTableSm> tunnelInetConfigTableSm_;
  Zel::Ptr<IpsecTunnelIfTableSm> ipsecTunnelIfTableSm_;
};
Zel::Ptr<TunnelIntfSnmpAgent> tunnelIntfSnmpAgentFactory(Zel::Ptr<TunnelMib> tunnelMib,
                                                         StatusDirPtr tunnelIntfStatusDir,
                                                         IfMibPtr ifMib, IkeStatusPtr ikeStatus);

/// The entity by which a host reaches the plug-in. It notifies `tunnelIntfSnmpAgent`.
class Root : public Zel::Entity {
public:
  explicit Root(std::string_view name);
  ~Root() override;
  static Zel::Ptr<Root> RootIs(std::string_view name);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  static Zel::Attribute const & tunnelIntfSnmpAgentAttribute();

  /// Null until tunnelIntfSnmpAgentIs() has been called.
  Zel::Ptr<TunnelIntfSnmpAgent> const & tunnelIntfSnmpAgent() const { return agent_; }
  /// Keeps the agent if it has these very inputs; else makes a new one, puts it in the place of the
  /// old, which tears its machines down, and notifies. When making it throws, the old one stays.
  Zel::Ptr<TunnelIntfSnmpAgent> tunnelIntfSnmpAgentIs(Zel::Ptr<TunnelMib> const & tunnelMib,
                                                      StatusDirPtr const & tunnelIntfStatusDir,
                                                      IfMibPtr const & ifMib,
                                                      IkeStatusPtr const & ikeStatus);
  /// Removes the agent, notifies and returns it; null, without notification, when there is none.
  Zel::Ptr<TunnelIntfSnmpAgent> tunnelIntfSnmpAgentDel();

private:
  Zel::Ptr<TunnelIntfSnmpAgent> agent_;
};
/// What the framework calls to make the entity by type name.
Zel::Ptr<Root> rootFactory(std::string_view name);

} // namespace TunnelIntfSnmp
