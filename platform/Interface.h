// The statuses of the tunnel interfaces, as the interface services publish them.
#pragma once

#include "platform/Plexa.h"
#include "platform/Zel.h"
#include <cstdint>
#include <string_view>

namespace Interface {

/// The status of one tunnel interface. Each setter stores and then notifies its attribute, and does
/// neither when the value is the same.
class TunnelIntfStatus : public Zel::PtrInterface {
public:
  explicit TunnelIntfStatus(Plexa::IntfId intfId);
  Zel::Type const & type() const override;
  static Zel::Attribute const & srcAddrAttribute();
  static Zel::Attribute const & dstAddrAttribute();
  static Zel::Attribute const & modeAttribute();
  static Zel::Attribute const & hopLimitAttribute();
  static Zel::Attribute const & tosAttribute();
  static Zel::Attribute const & ipsecAttribute();

  Plexa::IntfId intfId() const { return intfId_; }
  /// The local and the remote endpoint; the empty address where none is configured.
  Plexa::IpGenAddr const & srcAddr() const { return srcAddr_; }
  Plexa::IpGenAddr const & dstAddr() const { return dstAddr_; }
  Plexa::TunnelIntfMode mode() const { return mode_; }
  /// TTL or hop limit of the outer packet; 0: copied from the payload.
  std::uint8_t hopLimit() const { return hopLimit_; }
  /// The six bits of the outer packet's DSCP, 0 to 63; 0 also where it is copied from the payload.
  std::uint8_t tos() const { return tos_; }
  /// True if and only if IPsec protects what goes through the tunnel.
  bool ipsec() const { return ipsec_; }

  void srcAddrIs(Plexa::IpGenAddr const & srcAddr);
  void dstAddrIs(Plexa::IpGenAddr const & dstAddr);
  void modeIs(Plexa::TunnelIntfMode mode);
  void hopLimitIs(std::uint8_t hopLimit);
  void tosIs(std::uint8_t tos);
  void ipsecIs(bool ipsec);

private:
  template <class T>
  void store(T & member, T const & value, Zel::Attribute const & attribute);

  Plexa::IntfId const intfId_;
  Plexa::IpGenAddr srcAddr_;
  Plexa::IpGenAddr dstAddr_;
  Plexa::TunnelIntfMode mode_ = Plexa::TunnelIntfMode::unknown;
  std::uint8_t hopLimit_ = 0;
  std::uint8_t tos_ = 0;
  bool ipsec_ = false;
};

/// The directory of the tunnel interface statuses.
class TunnelIntfStatusDir : public Zel::Entity {
public:
  using IntfStatus = Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<TunnelIntfStatus>>;

  explicit TunnelIntfStatusDir(std::string_view name);
  Zel::Type const & type() const override;
  /// Notified with the Plexa::IntfId as its key.
  static Zel::Attribute const & intfStatusAttribute();

  /// A value may be null; readers treat that like a missing key.
  IntfStatus const & intfStatus() const { return intfStatus_; }
  /// Inserts the status or puts it in the place of the present one, and notifies the key. Does
  /// nothing when that very object is there.
  void intfStatusIs(Plexa::IntfId intfId, Zel::Ptr<TunnelIntfStatus> status);
  /// Removes the entry and notifies the key; does nothing when there is none.
  void intfStatusDel(Plexa::IntfId intfId);

private:
  IntfStatus intfStatus_;
};

} // namespace Interface
