// A publisher's word on single members of a record that another publisher publishes whole.
#pragma once

#include "platform/zel/Record.h"

namespace StateDb {

/// Some members of a record and the value that each shall have:
///
///   Claim<TunnelIntfStatusValues>().with<&TunnelIntfStatusValues::ipsec>(true)
///
/// While a claim lasts, the members that it names have its values in the record that the other
/// publisher publishes. What the record said of them, and what its publisher says meanwhile, is
/// remembered, and comes back when the claim is withdrawn. It does not matter which of the two
/// comes first, nor which goes first: a claim alone creates no record, applies as soon as a
/// publisher publishes one, and outlasts its removal. Of several publishers that claim one member,
/// the last to come has it. Records that no publisher published are left alone.
template <Zel::RecordValues Values>
class Claim {
public:
  template <auto Member>
  Claim with(Zel::MemberType<Member> const & value) const {
    auto wider = *this;
    wider.values_.*Member = value;
    wider.fields_ |= Zel::fieldSet<Member>;
    return wider;
  }

  /// Which members are claimed.
  Zel::FieldSet fields() const { return fields_; }
  /// Lays the claimed members over `values`.
  void applyTo(Values & values) const { Zel::copyFields(values, values_, fields_); }
  bool operator==(Claim const &) const = default;

private:
  Zel::FieldSet fields_ = 0;
  Values values_; // defaults where nothing is claimed
};

} // namespace StateDb
