// Who says what of a record of which several publishers speak: the claims on single members, and
// what the publisher of the whole record says of them meanwhile.
#pragma once

#include "statedb/Claim.h"
#include <algorithm>
#include <map>
#include <optional>
#include <vector>

namespace StateDb {

/// The claims on the records of one collection. Only records that are claimed have an entry.
/// Changes nothing in the database.
template <class Key, Zel::RecordValues Values>
class Arbitration {
public:
  /// Who claims; only told apart.
  using Claimant = void const *;

  /// What the record is to say when its publisher says `values`.
  Values ruling(Key const & key, Values values) const {
    if (auto const found = claimed_.find(key); found != claimed_.end())
      for (auto const & held : found->second.claims)
        held.claim.applyTo(values);
    return values;
  }
  bool isClaimed(Key const & key) const { return claimed_.contains(key); }
  /// What the publisher of the whole record said last, if the record is claimed and is there.
  std::optional<Values> const & published(Key const & key) const {
    static std::optional<Values> const nothing;
    auto const found = claimed_.find(key);
    return found == claimed_.end() ? nothing : found->second.published;
  }
  /// What the publisher of the whole record says now; std::nullopt: that there is none.
  void publishedIs(Key const & key, std::optional<Values> const & values) {
    if (auto const found = claimed_.find(key); found != claimed_.end())
      found->second.published = values;
  }

  /// Null when that claimant has no claim there.
  Claim<Values> const * find(Claimant claimant, Key const & key) const {
    auto const found = claimed_.find(key);
    if (found == claimed_.end())
      return nullptr;
    auto const & claims = found->second.claims;
    auto const held = std::ranges::find(claims, claimant, &Held::claimant);
    return held == claims.end() ? nullptr : &held->claim;
  }
  /// Adds the claim, or puts it in the place of the claimant's present one. `published` is for a
  /// record that nobody claimed before.
  void claimIs(Claimant claimant, Key const & key, Claim<Values> const & claim,
               std::optional<Values> const & published) {
    auto const [entry, added] = claimed_.try_emplace(key);
    if (added)
      entry->second.published = published;
    auto & claims = entry->second.claims;
    if (auto const held = std::ranges::find(claims, claimant, &Held::claimant);
        held != claims.end())
      held->claim = claim;
    else
      claims.push_back({claimant, claim});
  }
  void claimDel(Claimant claimant, Key const & key) {
    if (auto const found = claimed_.find(key); found != claimed_.end()) {
      std::erase_if(found->second.claims, isOf(claimant));
      if (found->second.claims.empty())
        claimed_.erase(found);
    }
  }
  void claimDelAll(Claimant claimant) {
    for (auto & [key, claimed] : claimed_)
      std::erase_if(claimed.claims, isOf(claimant));
    std::erase_if(claimed_, [](auto const & entry) { return entry.second.claims.empty(); });
  }

private:
  struct Held {
    Claimant claimant;
    Claim<Values> claim;
  };
  struct Claimed {
    std::vector<Held> claims; // a later one prevails
    std::optional<Values> published;
  };
  static auto isOf(Claimant claimant) {
    return [claimant](Held const & held) { return held.claimant == claimant; };
  }

  std::map<Key, Claimed> claimed_;
};

} // namespace StateDb
