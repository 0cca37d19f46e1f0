// The interface MIB's index mapping.
#pragma once

#include "platform/Plexa.h"
#include "platform/Zel.h"
#include <cstdint>
#include <string_view>

namespace IntfSnmp {

/// Which ifIndex (RFC 2863) each interface has.
class IfMib : public Zel::Entity {
public:
  using IfIndexByIntfId = Zel::HashMap2018<Plexa::IntfId, std::uint32_t>;

  explicit IfMib(std::string_view name);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  /// Notified with the Plexa::IntfId as its key.
  static Zel::Attribute const & ifIndexByIntfIdAttribute();

  IfIndexByIntfId const & ifIndexByIntfId() const { return ifIndexByIntfId_; }
  /// Maps the interface to `ifIndex` and notifies the key; does nothing when it is so already.
  void ifIndexByIntfIdIs(Plexa::IntfId intfId, std::uint32_t ifIndex);
  /// Removes the mapping and notifies the key; does nothing when there is none.
  void ifIndexByIntfIdDel(Plexa::IntfId intfId);

private:
  IfIndexByIntfId ifIndexByIntfId_;
};

} // namespace IntfSnmp
