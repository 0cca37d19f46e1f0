// What the IKE daemon publishes of its connections.
#pragma once

#include "platform/Plexa.h"
#include "platform/Zel.h"
#include "platform/zel/Record.h"
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

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

/// Advances before another record comes to stand where one is looked up, or none: in a collection
/// of any Status or IpsecProfileConnectionMap of the process, or because a TunnelInfo gets another
/// profile name; also while notification is off. As long as it stays the same, a look-up that
/// begins at a Status that lives finds the same record, so a plain pointer to that stays good.
std::uint64_t directoryRevision();

/// What is known of the connection of one interface within one profile.
struct IpsecTunnelProfileInfoValues {
  ConnState connState = ConnState::none;

  static constexpr auto fields() {
    using V = IpsecTunnelProfileInfoValues;
    return std::tuple{Zel::RecordField{"connState", "Ipsec::Ike::ConnState", &V::connState}};
  }
  bool operator==(IpsecTunnelProfileInfoValues const &) const = default;
};

/// The connection of one interface within one profile.
class IpsecTunnelProfileInfo
    : public Zel::Record<IpsecTunnelProfileInfo, IpsecTunnelProfileInfoValues> {
public:
  explicit IpsecTunnelProfileInfo(Values const & values = {}) : Record(values) {}
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  static std::span<Zel::Attribute const> fieldAttributes();
  static Zel::Attribute const & connStateAttribute() { return attributeOf<&Values::connState>(); }

  ConnState connState() const { return values().connState; }
  /// Stores and notifies; does nothing when the value is the same.
  void connStateIs(ConnState state) { fieldIs<&Values::connState>(state); }
};

/// The interfaces that one profile is applied to.
class IpsecProfileConnectionMap : public Zel::PtrInterface {
public:
  using AppliedIntfId = Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<IpsecTunnelProfileInfo>>;

  IpsecProfileConnectionMap();
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
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
struct TunnelInfoValues {
  /// A key of Status::appliedProfiles.
  std::string profileName;

  static constexpr auto fields() {
    using V = TunnelInfoValues;
    return std::tuple{Zel::RecordField{"profileName", "String", &V::profileName}};
  }
  bool operator==(TunnelInfoValues const &) const = default;
};

/// Which profile one tunnel interface uses.
class TunnelInfo : public Zel::Record<TunnelInfo, TunnelInfoValues> {
public:
  explicit TunnelInfo(Values const & values = {}) : Record(values) {}
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  static std::span<Zel::Attribute const> fieldAttributes();
  static Zel::Attribute const & profileNameAttribute() {
    return attributeOf<&Values::profileName>();
  }

  std::string const & profileName() const { return values().profileName; }
  /// Stores and notifies; does nothing when the value is the same.
  void profileNameIs(std::string_view profileName) {
    fieldIs<&Values::profileName>(std::string(profileName));
  }

private:
  friend class Zel::Record<TunnelInfo, TunnelInfoValues>;
  static void beforeChange(); // advances directoryRevision()
};

/// The IKE daemon's status.
class Status : public Zel::Entity {
public:
  using IpsecTunnelInfo = Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<TunnelInfo>>;
  using AppliedProfiles = Zel::HashMap2018<std::string, Zel::Ptr<IpsecProfileConnectionMap>>;

  explicit Status(std::string_view name);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
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
