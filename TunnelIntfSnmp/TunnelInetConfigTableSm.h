// Keeps TunnelMib.tunnelInetConfigTable in step with the tunnel statuses and the ifIndex map: one
// row for each interface with an ifIndex and two addresses, under a key made of its addresses and
// mode.
//
// Several tunnels may claim one key; the one that is added first has the row. A private store
// remembers, by ifIndex, the row that was written for it, and rows are deleted through that store
// only: by the key that was written, never by one computed from the status of today. Whenever a row
// may have gone, every tunnel without a row is tried again, or only those that can have one now
// (Rescan.h).
//
//   event                      delete  add  rescan
//   a status came or changed   yes     yes  yes
//   a status went              yes     no   yes
//   an ifIndex came, changed   no      yes  no
//   an ifIndex went            no      no   no
//
// In this order: a tunnel that changed loses its old row before its new one is tried.
#pragma once

#include "TunnelIntfSnmp/Rescan.h"
#include "TunnelIntfSnmp/StatusChildSm.h"
#include "TunnelIntfSnmp/TunnelTableSm.h"
#include <span>
#include <vector>

namespace TunnelIntfSnmp {

class TunnelInetConfigTableSm;

namespace FlowaCode::TunnelInetConfigTableSm {

/// One slot of the store: what was last written for one ifIndex.
class LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst : public Zel::PtrInterface {
public:
  explicit LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst(std::uint32_t ifIndex);
  ~LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst() override;
  Zel::Type const & type() const override { return typeDescription(); }
  static Zel::Type const & typeDescription();
  static Zel::Attribute const & valueAttribute();

  std::uint32_t ifIndex() const { return ifIndex_; }
  Zel::Ptr<MibEntryWrapper const> const & value() const { return value_; }
  /// The tunnel whose row it is.
  Plexa::IntfId holder() const { return holder_; }
  void holderIs(Plexa::IntfId holder) { holder_ = holder; }
  /// Wraps the entry, and notifies; does nothing when that very entry is there.
  void valueIs(Zel::Ptr<TunnelInetConfigTableEntry const> const & entry);
  /// Clears the value, and notifies if there was one.
  void valueDel();

private:
  std::uint32_t const ifIndex_;
  Zel::Ptr<MibEntryWrapper const> value_;
  Plexa::IntfId holder_;
};

/// The store. There is a slot for an ifIndex if and only if the machine's last write for it put a
/// row into the table; the slot's entry is that row's.
class LocalAttrStore : public Zel::PtrInterface {
public:
  using Slot = LocalAttrU32TunnelIntfSnmpMibEntryWrapperPtrConst;
  using ZelTunnelInetConfigByIfIndex = Zel::HashMap2018<std::uint32_t, Zel::Ptr<Slot>>;

  LocalAttrStore();
  Zel::Type const & type() const override { return typeDescription(); }
  static Zel::Type const & typeDescription();
  /// Notified with the ifIndex of a new slot.
  static Zel::Attribute const & tunnelInetConfigByIfIndexAttribute();

  ZelTunnelInetConfigByIfIndex const & tunnelInetConfigByIfIndex() const { return slots_; }
  /// Finds the slot or creates an empty one, for a row of `holder`.
  Zel::Ptr<Slot> tunnelInetConfigByIfIndexIs(std::uint32_t ifIndex, Plexa::IntfId holder = {});
  void tunnelInetConfigByIfIndexDel(std::uint32_t ifIndex);
  void tunnelInetConfigByIfIndexDelAll();

private:
  ZelTunnelInetConfigByIfIndex slots_;
};

/// Follows what the key is made of.
class SrcAddrMAdstAddrMAmodeSm1 final : public StatusChildSm<SrcAddrMAdstAddrMAmodeSm1> {
public:
  static constexpr std::string_view name = "SrcAddrMAdstAddrMAmodeSm1";
  static constexpr bool lossNeedsTheStamp = true;
  static std::span<Zel::Attribute const * const> followed();

  SrcAddrMAdstAddrMAmodeSm1(::TunnelIntfSnmp::TunnelInetConfigTableSm & root, Plexa::IntfId intfId,
                            StatusPtr status);
  static void emit(TableSmBase & machine, Plexa::IntfId intfId, StatusPtr const & status);
  Zel::Type const & type() const override { return typeDescription(); }
  static Zel::Type const & typeDescription();
};

using IntfStatusSm0 =
    StatusParentSm<::TunnelIntfSnmp::TunnelInetConfigTableSm, SrcAddrMAdstAddrMAmodeSm1>;
using IfIndexByIntfIdSm2 = IfIndexByIntfIdSm<::TunnelIntfSnmp::TunnelInetConfigTableSm>;

} // namespace FlowaCode::TunnelInetConfigTableSm

using MibTunnelInetConfigTableOutputKeyType =
    OutputKeyType<TunnelInetConfigTableKey,
                  "TunnelIntfSnmp::TunnelInetConfigTableSm::MibTunnelInetConfigTableOutputKeyType">;

/// Works from its construction to its destruction, which leaves the rows in place. Rows that were
/// in the table before are never taken over: an event that finds its key there adds nothing, and
/// the reconciliation removes them.
class TunnelInetConfigTableSm final
    : public TunnelTableSm<TunnelInetConfigTableSm, TunnelMib::TunnelInetConfigTable,
                           MibTunnelInetConfigTableOutputKeyType> {
public:
  using IntfStatusSm0 = FlowaCode::TunnelInetConfigTableSm::IntfStatusSm0;
  static constexpr std::string_view unitName = "TunnelInetConfigTableSm";
  static constexpr std::string_view outsideTypes[] = {"TunnelIntfSnmp::TunnelMib",
                                                      "TunnelIntfSnmp::MibEntryWrapper",
                                                      "Interface::TunnelIntfStatusDir",
                                                      "Interface::TunnelIntfStatus",
                                                      "IntfSnmp::IfMib",
                                                      "Flowa::SmControl",
                                                      "Skein::TraceHandle",
                                                      "Kiln::Task",
                                                      "Plexa::IntfId"};
  static Zel::Type const & typeDescription();
  static std::vector<Zel::Type const *> nestedTypes();

  using MibTunnelInetConfigTableOutputKeyType =
      TunnelIntfSnmp::MibTunnelInetConfigTableOutputKeyType;
  using EntryPtr = Zel::Ptr<TunnelInetConfigTableEntry const>;

  /// Requires: no pointer is null; a null one is fatal.
  TunnelInetConfigTableSm(Zel::Ptr<TunnelMib> mib, StatusDirPtr tunnelIntfStatusDir, IfMibPtr ifMib,
                          Flowa::SmControl const & control);
  ~TunnelInetConfigTableSm() override;
  static Zel::Ptr<TunnelInetConfigTableSm>
  TunnelInetConfigTableSmIs(Zel::Ptr<TunnelMib> const & mib,
                            StatusDirPtr const & tunnelIntfStatusDir, IfMibPtr const & ifMib,
                            Flowa::SmControl const & control);

  Zel::Ptr<FlowaCode::TunnelInetConfigTableSm::LocalAttrStore> const & localAttrStore() const {
    return localAttrStore_;
  }
  Zel::Ptr<FlowaCode::TunnelInetConfigTableSm::IfIndexByIntfIdSm2> ifIndexByIntfIdSm2() const {
    return ifIndexSm();
  }
  /// What decides which tunnels a rescan tries.
  Rescan & rescan() { return rescan_; }
  Rescan const & rescan() const { return rescan_; }
  /// The key of the row that such a status is to have.
  static TunnelInetConfigTableKey mibKeyOf(Interface::TunnelIntfStatus const & intfStatus);

  // The streams. All return at once, without trace, while initialScanDone() is false.

  /// The status came, changed or, without a value, went.
  void eventToTisStream(Plexa::IntfId intfId, Zel::Optional<StatusPtr> const & intfStatusOpt);
  /// The ifIndex came, changed or, without a value, went.
  void eventToIfMibStream(Plexa::IntfId intfId, Zel::Optional<std::uint32_t> const & ifIndexOpt);
  /// Deletes the row that was written for the ifIndex, if any.
  void eventToDeleteStream(std::uint32_t ifIndex, Zel::Optional<StatusPtr> const & intfStatusOpt,
                           bool isAdd);
  /// Adds the status's row unless something is missing or its key is taken, and tells what became
  /// of it. Raises Zel::BadOptionalAccess for isAdd without a status.
  Outcome eventToAddStream(std::uint32_t ifIndex, Zel::Optional<StatusPtr> const & intfStatusOpt,
                           bool isAdd);
  /// Tries every interface that has no row, except the one whose status was just processed.
  void eventToRescanStream(std::uint32_t ifIndex, Zel::Optional<StatusPtr> const & processedTisOpt,
                           bool isAdd);

  /// What every write to the table goes through: with a value inserts or replaces, without deletes.
  /// `statement` names the place in traces. Requires: the value's own key is `k1`; else it is
  /// fatal.
  void intoMibTable(std::string_view statement, TunnelInetConfigTableKey const & k1,
                    EntryPtr const & value);

private:
  using Slot = FlowaCode::TunnelInetConfigTableSm::LocalAttrStore::Slot;

  TunnelMib::TunnelInetConfigTable const & output() const override {
    return mib()->tunnelInetConfigTable();
  }
  void deleteOutputRow(TunnelInetConfigTableKey const & k1) override;

  Outcome addRow(EntryPtr const & entry, Plexa::IntfId holder);
  bool overtaken(Slot const & slot, EntryPtr const & entry, TunnelInetConfigTableKey const & key);
  bool isHeld(TunnelInetConfigTableKey const & key) const;
  void deleteSlot(Slot const & slot);
  Outcome rescanOne(Plexa::IntfId intfId, StatusPtr const & intfStatus,
                    Zel::Optional<StatusPtr> const & processedTisOpt);

  Zel::Ptr<FlowaCode::TunnelInetConfigTableSm::LocalAttrStore> const localAttrStore_;
  Rescan rescan_;
};
Zel::Ptr<TunnelInetConfigTableSm>
tunnelInetConfigTableSmFactory(Zel::Ptr<TunnelMib> const & mib,
                               StatusDirPtr const & tunnelIntfStatusDir, IfMibPtr const & ifMib,
                               Flowa::SmControl const & control);

} // namespace TunnelIntfSnmp
