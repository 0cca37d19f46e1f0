// The statuses of the tunnel interfaces, as the interface services publish them.
#pragma once

#include "platform/Plexa.h"
#include "platform/Zel.h"
#include "platform/zel/Record.h"
#include <cstdint>
#include <span>
#include <string_view>
#include <tuple>

namespace Interface {

/// What the status of a tunnel interface says.
struct TunnelIntfStatusValues {
  /// The local and the remote endpoint; the empty address where none is configured.
  Plexa::IpGenAddr srcAddr{};
  Plexa::IpGenAddr dstAddr{};
  Plexa::TunnelIntfMode mode = Plexa::TunnelIntfMode::unknown;
  /// TTL or hop limit of the outer packet; 0: copied from the payload.
  std::uint8_t hopLimit = 0;
  /// The six bits of the outer packet's DSCP, 0 to 63; 0 also where it is copied from the payload.
  std::uint8_t tos = 0;
  /// True if and only if IPsec protects what goes through the tunnel.
  bool ipsec = false;

  static constexpr auto fields() {
    using V = TunnelIntfStatusValues;
    using Zel::RecordField;
    return std::tuple{
        RecordField{"srcAddr", "Plexa::IpGenAddr", &V::srcAddr},
        RecordField{"dstAddr", "Plexa::IpGenAddr", &V::dstAddr},
        RecordField{"mode", "Plexa::TunnelIntfMode", &V::mode},
        RecordField{"hopLimit", "U8", &V::hopLimit, {0, 255, "a hop limit, 0 to 255"}},
        RecordField{"tos",
                    "U8",
                    &V::tos,
                    {0, 63, "the six bits of the DSCP, 0 to 63 (an eight-bit ToS divided by 4)"}},
        RecordField{"ipsec", "bool", &V::ipsec}};
  }
  bool operator==(TunnelIntfStatusValues const &) const = default;
};

/// The status of one tunnel interface. Each setter stores and then notifies its attribute, and does
/// neither when the value is the same.
class TunnelIntfStatus : public Zel::Record<TunnelIntfStatus, TunnelIntfStatusValues> {
public:
  explicit TunnelIntfStatus(Plexa::IntfId intfId, Values const & values = {})
      : Record(values),
        intfId_(intfId) {}
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  static std::span<Zel::Attribute const> fieldAttributes();
  static Zel::Attribute const & intfIdAttribute();
  static Zel::Attribute const & srcAddrAttribute() { return attributeOf<&Values::srcAddr>(); }
  static Zel::Attribute const & dstAddrAttribute() { return attributeOf<&Values::dstAddr>(); }
  static Zel::Attribute const & modeAttribute() { return attributeOf<&Values::mode>(); }
  static Zel::Attribute const & hopLimitAttribute() { return attributeOf<&Values::hopLimit>(); }
  static Zel::Attribute const & tosAttribute() { return attributeOf<&Values::tos>(); }
  static Zel::Attribute const & ipsecAttribute() { return attributeOf<&Values::ipsec>(); }

  /// Never changes.
  Plexa::IntfId intfId() const { return intfId_; }
  Plexa::IpGenAddr const & srcAddr() const { return values().srcAddr; }
  Plexa::IpGenAddr const & dstAddr() const { return values().dstAddr; }
  Plexa::TunnelIntfMode mode() const { return values().mode; }
  std::uint8_t hopLimit() const { return values().hopLimit; }
  std::uint8_t tos() const { return values().tos; }
  bool ipsec() const { return values().ipsec; }

  void srcAddrIs(Plexa::IpGenAddr const & srcAddr) { fieldIs<&Values::srcAddr>(srcAddr); }
  void dstAddrIs(Plexa::IpGenAddr const & dstAddr) { fieldIs<&Values::dstAddr>(dstAddr); }
  void modeIs(Plexa::TunnelIntfMode mode) { fieldIs<&Values::mode>(mode); }
  void hopLimitIs(std::uint8_t hopLimit) { fieldIs<&Values::hopLimit>(hopLimit); }
  void tosIs(std::uint8_t tos) { fieldIs<&Values::tos>(tos); }
  void ipsecIs(bool ipsec) { fieldIs<&Values::ipsec>(ipsec); }

private:
  Plexa::IntfId const intfId_;
};

/// The directory of the tunnel interface statuses.
class TunnelIntfStatusDir : public Zel::Entity {
public:
  using IntfStatus = Zel::HashMap2018<Plexa::IntfId, Zel::Ptr<TunnelIntfStatus>>;

  explicit TunnelIntfStatusDir(std::string_view name);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
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
