// The model: the entity TunnelMib with the three tables that managers see, their rows, and the
// columns that are computed from the input records whenever they are read.
//
// The table state machines write the tables; the MIB handlers read them. All on one thread.
#pragma once

#include "TunnelIntfSnmp/Column.h"
#include "platform/Interface.h"
#include "platform/Ipsec.h"
#include "platform/Lumo.h"
#include "platform/Plexa.h"
#include "platform/Snmp.h"
#include "platform/Zel.h"
#include <compare>
#include <cstdint>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <string_view>

namespace TunnelIntfSnmp {

using StatusPtr = Zel::Ptr<Interface::TunnelIntfStatus const>;
using IkeStatusPtr = Zel::Ptr<Ipsec::Ike::Status const>;

/// The model's trace handler, "TunnelIntfSnmp".
Lumo::DebugHandler const & modelTrace();

/// The IANAtunnelType number (IANAifType-MIB) of a tunnel mode: gre (3), direct (2), and other (1)
/// for every mode without a number of its own.
std::uint32_t modeToEncap(Plexa::TunnelIntfMode mode);

/// A row of tunnelIfTable (RFC 4087). It stores its key and the status record that it describes;
/// every column is read from that record at the moment of the call. A row without a status record
/// has zero hop limit and TOS and empty addresses; its other columns may not be asked for.
class TunnelIfTableEntry : public Zel::PtrInterface {
public:
  TunnelIfTableEntry(std::uint32_t ifIndex, StatusPtr tunnelIntfStatus);
  static Zel::Ptr<TunnelIfTableEntry> TunnelIfTableEntryIs(std::uint32_t ifIndex,
                                                           StatusPtr tunnelIntfStatus);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  /// Ascending by number, as in every table here.
  static std::span<Column const> columns();

  std::uint32_t ifIndex() const { return ifIndex_; }
  StatusPtr const & tunnelIntfStatus() const { return tunnelIntfStatus_; }
  /// IANAtunnelType.
  std::uint32_t encapsMethod() const;
  std::uint8_t hopLimit() const;
  /// RFC 4087 tunnelIfSecurity: none (1) or ipsec (2).
  std::uint32_t security() const;
  std::uint8_t tos() const;
  /// InetAddressType (RFC 4001) of the source address or, where there is none, the destination's.
  std::uint32_t addrType() const;
  Plexa::IpGenAddr localAddr() const;
  Plexa::IpGenAddr remoteAddr() const;

private:
  std::uint32_t const ifIndex_;
  StatusPtr const tunnelIntfStatus_;
};
Zel::Ptr<TunnelIfTableEntry> tunnelIfTableEntryFactory(std::uint32_t ifIndex,
                                                       StatusPtr tunnelIntfStatus);

/// A row of velmoraIpsecTunnelIfTable.
class IpsecTunnelIfTableEntry : public Zel::PtrInterface {
public:
  IpsecTunnelIfTableEntry(std::uint32_t ifIndex, StatusPtr tunnelIntfStatus,
                          IkeStatusPtr ikeStatus);
  static Zel::Ptr<IpsecTunnelIfTableEntry> IpsecTunnelIfTableEntryIs(std::uint32_t ifIndex,
                                                                     StatusPtr tunnelIntfStatus,
                                                                     IkeStatusPtr ikeStatus);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  static std::span<Column const> columns();

  std::uint32_t ifIndex() const { return ifIndex_; }
  StatusPtr const & tunnelIntfStatus() const { return tunnelIntfStatus_; }
  IkeStatusPtr const & ikeStatus() const { return ikeStatus_; }
  /// The column's number of the connection state that the IKE status has for the interface now; 0
  /// when it knows nothing of the interface. Requires: both records are set.
  std::uint32_t connState() const;
  /// Where connState() reads first; null if there is no status.
  void const * connStateSource() const;

private:
  // What the IKE status has for the interface now, or null.
  Ipsec::Ike::IpsecTunnelProfileInfo const * connection() const;

  std::uint32_t const ifIndex_;
  StatusPtr const tunnelIntfStatus_;
  IkeStatusPtr const ikeStatus_;
};
Zel::Ptr<IpsecTunnelIfTableEntry> ipsecTunnelIfTableEntryFactory(std::uint32_t ifIndex,
                                                                 StatusPtr tunnelIntfStatus,
                                                                 IkeStatusPtr ikeStatus);

/// The index of tunnelInetConfigTable (RFC 4087). A value; its address type travels in
/// localInetAddr. Ordered field by field, which is the order of the index as an OID.
class TunnelInetConfigTableKey {
public:
  TunnelInetConfigTableKey() = default;
  TunnelInetConfigTableKey(Snmp::InetAddress localInetAddr, Snmp::Bytes remoteAddrBytes,
                           std::uint32_t encapsMethod, std::uint32_t configId);
  /// Consumes the text form. Raises Zel::StrepError, naming the field where it is one's fault.
  explicit TunnelInetConfigTableKey(Zel::StrepReader & text);

  Snmp::InetAddress const & localInetAddr() const { return localInetAddr_; }
  Snmp::Bytes const & remoteAddrBytes() const { return remoteAddrBytes_; }
  std::uint32_t encapsMethod() const { return encapsMethod_; }
  std::uint32_t configId() const { return configId_; }

  bool operator==(TunnelInetConfigTableKey const &) const = default;
  std::strong_ordering operator<=>(TunnelInetConfigTableKey const &) const = default;
  std::uint32_t hash(std::uint32_t seed) const;
  /// True if and only if any field differs from the default key's.
  explicit operator bool() const { return *this != TunnelInetConfigTableKey(); }

  static constexpr std::string_view typeName = "TunnelIntfSnmp::TunnelInetConfigTableKey";
  static constexpr auto fields();

private:
  Snmp::InetAddress localInetAddr_;
  Snmp::Bytes remoteAddrBytes_;
  std::uint32_t encapsMethod_ = 0;
  std::uint32_t configId_ = 0;
};
constexpr auto TunnelInetConfigTableKey::fields() {
  using Key = TunnelInetConfigTableKey;
  return std::tuple{Zel::Field{"localInetAddr", &Key::localInetAddr_},
                    Zel::Field{"remoteAddrBytes", &Key::remoteAddrBytes_},
                    Zel::Field{"encapsMethod", &Key::encapsMethod_},
                    Zel::Field{"configId", &Key::configId_}};
}
std::ostream & operator<<(std::ostream & out, TunnelInetConfigTableKey const & key);

/// A row of tunnelInetConfigTable: immutable, shared by the table and the machine that made it.
class TunnelInetConfigTableEntry : public Zel::PtrInterface {
public:
  TunnelInetConfigTableEntry(TunnelInetConfigTableKey key, std::uint32_t ifIndex);
  /// Consumes the text form. Raises Zel::StrepError, naming the field where it is one's fault.
  explicit TunnelInetConfigTableEntry(Zel::StrepReader & text);
  static Zel::Ptr<TunnelInetConfigTableEntry const>
  TunnelInetConfigTableEntryIs(TunnelInetConfigTableKey key, std::uint32_t ifIndex);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  static std::span<Column const> columns();

  TunnelInetConfigTableKey const & key() const { return key_; }
  std::uint32_t addrType() const { return key_.localInetAddr().addressType(); }
  Snmp::Bytes const & localAddr() const { return key_.localInetAddr().address(); }
  Snmp::Bytes const & remoteAddr() const { return key_.remoteAddrBytes(); }
  std::uint32_t encapsMethod() const { return key_.encapsMethod(); }
  std::uint32_t configId() const { return key_.configId(); }
  /// The interface that implements the tunnel.
  std::uint32_t ifIndex() const { return ifIndex_; }
  std::uint32_t rowStatus() const { return 1; }   ///< active (RFC 2579 RowStatus)
  std::uint32_t storageType() const { return 5; } ///< readOnly (RFC 2579 StorageType)

  static constexpr std::string_view typeName = "TunnelIntfSnmp::TunnelInetConfigTableEntry";
  static constexpr auto fields();

private:
  std::uint32_t ifIndex_ = 0;
  TunnelInetConfigTableKey key_;
};
constexpr auto TunnelInetConfigTableEntry::fields() {
  return std::tuple{Zel::Field{"key", &TunnelInetConfigTableEntry::key_},
                    Zel::Field{"ifIndex", &TunnelInetConfigTableEntry::ifIndex_}};
}
Zel::Ptr<TunnelInetConfigTableEntry const>
tunnelInetConfigTableEntryFactory(TunnelInetConfigTableKey key, std::uint32_t ifIndex);
/// Consumes the text form and makes an entry of it, by which text becomes a value
/// (Zel::strepToValue).
void strepRead(Zel::StrepReader & in, Zel::Ptr<TunnelInetConfigTableEntry const> & entry);

/// Keeps the entry that a machine last wrote for an interface, to be deleted by its key later.
class MibEntryWrapper : public Zel::PtrInterface {
public:
  explicit MibEntryWrapper(Zel::Ptr<TunnelInetConfigTableEntry const> mibEntry);
  static Zel::Ptr<MibEntryWrapper>
  MibEntryWrapperIs(Zel::Ptr<TunnelInetConfigTableEntry const> mibEntry);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();

  Zel::Ptr<TunnelInetConfigTableEntry const> const & mibEntry() const { return mibEntry_; }

private:
  Zel::Ptr<TunnelInetConfigTableEntry const> const mibEntry_;
};
Zel::Ptr<MibEntryWrapper>
mibEntryWrapperFactory(Zel::Ptr<TunnelInetConfigTableEntry const> mibEntry);

/// The output of the plug-in: three ordered tables. After each insertion, replacement and deletion
/// the notifiees hear the table's attribute and the key. A removed row lives on while somebody
/// holds it. Destruction deletes the rows of the two ifIndex tables one by one, each notified, and
/// then lets go of the notifiees; what tunnelInetConfigTable holds goes silently.
class TunnelMib : public Zel::Entity {
public:
  using TunnelIfTable = Zel::RbTreeMap<std::uint32_t, Zel::Ptr<TunnelIfTableEntry>>;
  using IpsecTunnelIfTable = Zel::RbTreeMap<std::uint32_t, Zel::Ptr<IpsecTunnelIfTableEntry>>;
  using TunnelInetConfigTable =
      Zel::RbTreeMap<TunnelInetConfigTableKey, Zel::Ptr<TunnelInetConfigTableEntry const>>;

  explicit TunnelMib(std::string_view name);
  ~TunnelMib() override;
  static Zel::Ptr<TunnelMib> TunnelMibIs(std::string_view name);
  Zel::Type const & type() const override;
  static Zel::Type const & typeDescription();
  // Notified with the row's key.
  static Zel::Attribute const & tunnelIfTableAttribute();
  static Zel::Attribute const & tunnelInetConfigTableAttribute();
  static Zel::Attribute const & ipsecTunnelIfTableAttribute();

  TunnelIfTable const & tunnelIfTable() const { return tunnelIfTable_; }
  /// The row, or null.
  Zel::Ptr<TunnelIfTableEntry> tunnelIfTable(std::uint32_t ifIndex) const;
  /// Finds the row or creates it. Raises Zel::ReinstantiationError, with nothing changed, when
  /// there is one with another status record.
  Zel::Ptr<TunnelIfTableEntry> tunnelIfTableIs(std::uint32_t ifIndex, StatusPtr tunnelIntfStatus);
  /// Removes and returns the row; null when there is none.
  Zel::Ptr<TunnelIfTableEntry> tunnelIfTableDel(std::uint32_t ifIndex);
  Zel::Ptr<TunnelIfTableEntry> tunnelIfTableDel(TunnelIfTable::const_iterator position);
  /// Removes every row from the smallest key up, each notified. A row that a listener adds
  /// meanwhile goes, too, if its key is greater than the one just removed.
  void tunnelIfTableDelAll();

  IpsecTunnelIfTable const & ipsecTunnelIfTable() const { return ipsecTunnelIfTable_; }
  Zel::Ptr<IpsecTunnelIfTableEntry> ipsecTunnelIfTable(std::uint32_t ifIndex) const;
  /// As tunnelIfTableIs, for both records.
  Zel::Ptr<IpsecTunnelIfTableEntry>
  ipsecTunnelIfTableIs(std::uint32_t ifIndex, StatusPtr tunnelIntfStatus, IkeStatusPtr ikeStatus);
  Zel::Ptr<IpsecTunnelIfTableEntry> ipsecTunnelIfTableDel(std::uint32_t ifIndex);
  Zel::Ptr<IpsecTunnelIfTableEntry>
  ipsecTunnelIfTableDel(IpsecTunnelIfTable::const_iterator position);
  void ipsecTunnelIfTableDelAll();

  TunnelInetConfigTable const & tunnelInetConfigTable() const { return tunnelInetConfigTable_; }
  /// Inserts the entry under its key, or puts it in the place of another entry. Raises
  /// Zel::NullArgumentError when it is null.
  void tunnelInetConfigTableIs(Zel::Ptr<TunnelInetConfigTableEntry const> entry);
  /// The same without a search. Requires: the entry is not null, and `place` is what the table's
  /// findNotLess() finds for its key.
  void tunnelInetConfigTableIs(TunnelInetConfigTable::const_iterator place,
                               Zel::Ptr<TunnelInetConfigTableEntry const> entry);
  /// Removes and returns the entry; null when there is none.
  Zel::Ptr<TunnelInetConfigTableEntry const>
  tunnelInetConfigTableDel(TunnelInetConfigTableKey const & key);
  Zel::Ptr<TunnelInetConfigTableEntry const>
  tunnelInetConfigTableDel(TunnelInetConfigTable::const_iterator position);
  /// The same; but when nobody listens the table is cleared at once.
  void tunnelInetConfigTableDelAll();

private:
  TunnelIfTable tunnelIfTable_;
  TunnelInetConfigTable tunnelInetConfigTable_;
  IpsecTunnelIfTable ipsecTunnelIfTable_;

  template <class Table>
  auto del(Table & table, typename Table::const_iterator position,
           Zel::Attribute const & attribute);
  template <class Table>
  void delAll(Table & table, Zel::Attribute const & attribute);
};
/// What the framework calls to make the entity by type name.
Zel::Ptr<TunnelMib> tunnelMibFactory(std::string_view name);

} // namespace TunnelIntfSnmp
