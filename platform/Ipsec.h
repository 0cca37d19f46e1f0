// What the IKE daemon publishes of its connections.
#pragma once

#include "platform/Plexa.h"
#include "platform/Zel.h"
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Ipsec::Ike {

/// How far the IPsec connection of one interface has come.
enum class ConnState : std::uint8_t {
  none = 0,
  down = 1,       ///< configured, no security association
  connecting = 2, ///< the IKE exchange is under way
  ikeUp = 3,      ///< IKE is established, nothing carries traffic yet
  up = 4,         ///< traffic is protected
  unknown = 5,    ///< the IKE daemon cannot be asked
  rekeying = 6,
  closing = 7,
};
/// The enumerator's name, or the number in decimal where it has none.
std::string valueToStrep(ConnState state);
/// The state whose name `text` is, or nothing.
std::optional<ConnState> connStateFromString(std::string_view text);

/// The connection of one interface within one profile.
class IpsecTunnelProfileInfo : public Zel::PtrInterface {
public:
  IpsecTunnelProfileInfo();
  Zel::Type const & type() const override;
  static Zel::Attribute const & connStateAttribute();

  ConnState connState() const { return connState_; }
  /// Stores and notifies; does nothing when the value is the same.
  void connStateIs(ConnState state);

private:
  ConnState connState_ = ConnState::none;
};

/// The interfaces that one profile is applied to.
class IpsecProfileConnectionMap : public Zel::PtrInterface {
public:
  using AppliedIntfId = Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<IpsecTunnelProfileInfo>>;

  IpsecProfileConnectionMap();
  Zel::Type const & type() const override;
  /// Notified with the Plexa::IntfId as its key.
  static Zel::Attribute const & appliedIntfIdAttribute();

  /// A value may be null; readers treat that like a missing key.
  AppliedIntfId const & appliedIntfId() const { return appliedIntfId_; }
  void appliedIntfIdIs(Plexa::IntfId intfId, Zel::Ptr<IpsecTunnelProfileInfo> info);
  void appliedIntfIdDel(Plexa::IntfId intfId);

private:
  AppliedIntfId appliedIntfId_;
};

/// Which profile one tunnel interface uses.
class TunnelInfo : public Zel::PtrInterface {
public:
  TunnelInfo();
  Zel::Type const & type() const override;
  static Zel::Attribute const & profileNameAttribute();

  /// A key of Status::appliedProfiles.
  std::string const & profileName() const { return profileName_; }
  /// Stores and notifies; does nothing when the value is the same.
  void profileNameIs(std::string_view profileName);

private:
  std::string profileName_;
};

/// The IKE daemon's status.
class Status : public Zel::Entity {
public:
  using IpsecTunnelInfo = Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<TunnelInfo>>;
  using AppliedProfiles = Zel::HashMap2018<std::string, Zel::Ptr<IpsecProfileConnectionMap>>;

  explicit Status(std::string_view name);
  Zel::Type const & type() const override;
  /// Notified with the Plexa::IntfId as its key.
  static Zel::Attribute const & ipsecTunnelInfoAttribute();
  /// Notified with the profile name, a std::string, as its key.
  static Zel::Attribute const & appliedProfilesAttribute();

  /// In both collections a value may be null; readers treat that like a missing key.
  IpsecTunnelInfo const & ipsecTunnelInfo() const { return ipsecTunnelInfo_; }
  AppliedProfiles const & appliedProfiles() const { return appliedProfiles_; }
  void ipsecTunnelInfoIs(Plexa::IntfId intfId, Zel::Ptr<TunnelInfo> info);
  void ipsecTunnelInfoDel(Plexa::IntfId intfId);
  void appliedProfilesIs(std::string const & profile, Zel::Ptr<IpsecProfileConnectionMap> map);
  void appliedProfilesDel(std::string profile);

private:
  IpsecTunnelInfo ipsecTunnelInfo_;
  AppliedProfiles appliedProfiles_;
};

} // namespace Ipsec::Ike
