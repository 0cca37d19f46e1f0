// The collections of the database as a Ledger sees them: one class for each, with what a record
// there is published as, how to see whether it stands there already, and how to put it there.
#pragma once

#include "statedb/Publishers.h"
#include "statedb/StateDb.h"
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace StateDb {

/// The records of one collection of `Owner`, published as their values; std::nullopt stands for
/// null.
template <class Owner, class R, auto Entries, auto Is, auto Del>
struct Records {
  using Key = Plexa::IntfId;
  using Value = std::optional<typename R::Values>;

  static Zel::Ptr<R> const * find(Owner const & owner, Key key) {
    return (owner.*Entries)().find(key);
  }
  /// The record, or null.
  static Zel::Ptr<R> record(Owner const & owner, Key key) {
    auto const * present = find(owner, key);
    return present != nullptr ? *present : nullptr;
  }
  static bool isSo(Owner const & owner, Key key, Value const & value) {
    auto const * present = find(owner, key);
    if (present == nullptr || (*present == nullptr) == value.has_value())
      return false;
    return !value || (*present)->values() == *value;
  }
  static void put(Owner & owner, Key key, Value const & value) {
    auto const present = record(owner, key);
    if (present && value)
      present->valuesIs(*value);
    else
      (owner.*Is)(key, value ? make(key, *value) : nullptr);
  }
  static void remove(Owner & owner, Key key) { (owner.*Del)(key); }

private:
  static Zel::Ptr<R> make(Key key, typename R::Values const & values) {
    if constexpr (std::is_constructible_v<R, Key, typename R::Values const &>)
      return Zel::makePtr<R>(key, values);
    else
      return Zel::makePtr<R>(values);
  }
};
using Statuses = Records<Interface::TunnelIntfStatusDir, Interface::TunnelIntfStatus,
                         &Interface::TunnelIntfStatusDir::intfStatus,
                         &Interface::TunnelIntfStatusDir::intfStatusIs,
                         &Interface::TunnelIntfStatusDir::intfStatusDel>;
using TunnelInfos =
    Records<Ipsec::Ike::Status, Ipsec::Ike::TunnelInfo, &Ipsec::Ike::Status::ipsecTunnelInfo,
            &Ipsec::Ike::Status::ipsecTunnelInfoIs, &Ipsec::Ike::Status::ipsecTunnelInfoDel>;
using Connections =
    Records<Ipsec::Ike::IpsecProfileConnectionMap, Ipsec::Ike::IpsecTunnelProfileInfo,
            &Ipsec::Ike::IpsecProfileConnectionMap::appliedIntfId,
            &Ipsec::Ike::IpsecProfileConnectionMap::appliedIntfIdIs,
            &Ipsec::Ike::IpsecProfileConnectionMap::appliedIntfIdDel>;

/// Statuses, in which claimed members say what the claims say.
class StatusPlace {
public:
  using Key = Statuses::Key;
  using Value = Statuses::Value;
  explicit StatusPlace(Publishers & publishers);
  bool isSo(Key key, Value const & value) const;
  bool isThere(Key key) const { return Statuses::find(directory_, key) != nullptr; }
  void put(Key key, Value const & value);
  void remove(Key key);
  std::string pointer(Key key) const;

private:
  Interface::TunnelIntfStatusDir & directory_;
  Publishers::StatusClaims & claims_;
};

class IfIndexPlace {
public:
  using Key = Plexa::IntfId;
  using Value = std::uint32_t;
  explicit IfIndexPlace(Publishers & publishers);
  bool isSo(Key key, Value ifIndex) const;
  bool isThere(Key key) const { return ifMib_.ifIndexByIntfId().find(key) != nullptr; }
  void put(Key key, Value ifIndex) { ifMib_.ifIndexByIntfIdIs(key, ifIndex); }
  void remove(Key key) { ifMib_.ifIndexByIntfIdDel(key); }
  std::string pointer(Key key) const;

private:
  IntfSnmp::IfMib & ifMib_;
};

class TunnelInfoPlace {
public:
  using Key = TunnelInfos::Key;
  using Value = TunnelInfos::Value;
  explicit TunnelInfoPlace(Publishers & publishers);
  bool isSo(Key key, Value const & value) const { return TunnelInfos::isSo(ike_, key, value); }
  bool isThere(Key key) const { return TunnelInfos::find(ike_, key) != nullptr; }
  void put(Key key, Value const & value) { TunnelInfos::put(ike_, key, value); }
  void remove(Key key) { TunnelInfos::remove(ike_, key); }
  std::string pointer(Key key) const;

private:
  Ipsec::Ike::Status & ike_;
};

/// A profile is published as its being there; its connections have a place of their own.
class ProfilePlace {
public:
  using Key = std::string;
  enum class Value { record, null };
  explicit ProfilePlace(Publishers & publishers);
  bool isSo(Key const & profile, Value value) const;
  bool isThere(Key const & profile) const;
  void put(Key const & profile, Value value);
  void remove(Key const & profile) { ike_.appliedProfilesDel(profile); }
  std::string pointer(Key const & profile) const;

private:
  Ipsec::Ike::Status & ike_;
};

/// The connections of all profiles. One that is put brings its profile with it.
class ConnectionPlace {
public:
  struct Key {
    std::string profile;
    Plexa::IntfId intfId;
    auto operator<=>(Key const &) const = default;
  };
  using Value = Connections::Value;
  explicit ConnectionPlace(Publishers & publishers);
  bool isSo(Key const & key, Value const & value) const;
  bool isThere(Key const & key) const;
  void put(Key const & key, Value const & value);
  void remove(Key const & key);
  std::string pointer(Key const & key) const;

private:
  Zel::Ptr<Ipsec::Ike::IpsecProfileConnectionMap> connections(std::string const & profile) const;
  Ipsec::Ike::Status & ike_;
};

/// The claims of one publisher on statuses. To put one is to have the record say what it claims.
class StatusClaimPlace {
public:
  using Key = Statuses::Key;
  using Value = Claim<Interface::TunnelIntfStatusValues>;
  StatusClaimPlace(Publishers & publishers, void const * claimant);
  bool isSo(Key key, Value const & claim) const;
  bool isThere(Key key) const { return claims_.find(claimant_, key) != nullptr; }
  void put(Key key, Value const & claim);
  void remove(Key key);
  std::string pointer(Key key) const;

private:
  void apply(Key key, Zel::FieldSet fields, Statuses::Value const & published);

  Publishers & publishers_;
  Interface::TunnelIntfStatusDir & directory_;
  Publishers::StatusClaims & claims_;
  void const * const claimant_;
};

} // namespace StateDb
