// What is known of the tunnel links of this system beyond their records: for a source that must
// find out which link somebody else's words are about, such as an IKE daemon's interface id or key.
#pragma once

#include "platform/Plexa.h"
#include "platform/zel/HashMap2018.h"
#include <absl/container/btree_set.h>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace Sources {

/// One link. Numbers are in the order of this machine.
struct Link {
  Plexa::IntfId intfId;  ///< under which its records are published
  std::string name;      ///< empty when it is not known
  std::string_view kind; ///< as in `ip link add type KIND`; the text lives for ever
  /// Which IPsec policies and states are the link's (XFRMA_IF_ID); kind "xfrm" has it.
  std::optional<std::uint32_t> ifId = {};
  /// What received and sent packets carry, where they carry a key; of a vti link the mark of its
  /// IPsec policies.
  std::optional<std::uint32_t> inputKey = {};
  std::optional<std::uint32_t> outputKey = {};
  /// The index of the link that it is bound to; nothing when it is bound to none.
  std::optional<std::uint32_t> lower = {};
  /// Where the outer packets come from and go to, as the link itself says; the empty address where
  /// it does not.
  Plexa::IpGenAddr local = {};
  Plexa::IpGenAddr remote = {};
  /// The UDP port that the outer packets go to; kinds "vxlan" and "geneve" have it.
  std::optional<std::uint16_t> port = {};
  /// True if and only if the outer packets leave in another network namespace, whose policies
  /// cannot be seen from here.
  bool isCarriedElsewhere = false;

  bool operator==(Link const &) const = default;
};

/// The links that the source of links has told of. One source writes, any number read.
///
/// For one thread. A reader may be told of a change from inside the call that makes it.
class Links {
public:
  /// Called with the id of a link that has come, changed or gone, when that is done. May read
  /// everything and end or begin any watch; must not change links. Requires: it raises nothing.
  using Changed = std::function<void(Plexa::IntfId)>;
  /// A wish to hear of changes; ends with the last copy of its handle.
  class Watch;
  using Handle = std::shared_ptr<Watch const>;
  class Reading;
  /// The right to change the links, which one source has at a time.
  class Writer;

  Links() = default;
  Links(Links const &) = delete;
  Links & operator=(Links const &) = delete;

  std::size_t size() const { return links_.size(); }
  /// The link, or null. Good until that link changes.
  Link const * find(Plexa::IntfId intfId) const;
  /// The link of that name, or null; the one of the least id while, for a moment, several have it.
  Link const * findByName(std::string_view name) const;
  /// Calls `take(link)` for each in order of id. Requires: `take` changes no links.
  template <class Take>
  void forEach(Take take) const {
    for (auto const & [intfId, entry] : links_)
      take(entry->link);
  }
  [[nodiscard]] Handle watch(Changed changed);

  /// Puts the link in, or in the place of the one of its id. Tells nobody when it was so already.
  void linkIs(Link const & link);
  /// Does nothing when there is none.
  void linkDel(Plexa::IntfId intfId);

private:
  struct Entry {
    Link link;
    std::uint64_t reading; // the last one in which it was there
  };
  // By pointer: with entries of 100 octets in its nodes, the tree would be twice as deep.
  using Map = Zel::HashMap2018<Plexa::IntfId, std::unique_ptr<Entry>>;

  Entry * entry(Plexa::IntfId intfId) const;
  void heardOf(Plexa::IntfId intfId);
  void store(Link const & link);
  void noteSeen(Entry & entry);
  void remove(Entry const & entry);
  void tell(Plexa::IntfId intfId);

  Map links_;
  absl::btree_set<std::pair<std::string, Plexa::IntfId>> byName_;
  std::list<std::weak_ptr<Watch const>> watches_;
  int telling_ = 0; // calls of tell() that are under way
  bool isWritten_ = false;
  std::uint64_t reading_ = 0; // the number of the last one
  bool isReading_ = false;
  std::size_t seen_ = 0;                   // links that bear the number of the last reading
  absl::btree_set<Plexa::IntfId> heardOf_; // since the reading that is under way began
};

class Links::Writer {
public:
  /// Raises std::invalid_argument, one line, when somebody else has it.
  explicit Writer(Links & links);
  Writer(Writer const &) = delete;
  Writer & operator=(Writer const &) = delete;
  ~Writer() { links_.isWritten_ = false; }

private:
  Links & links_;
};

/// Everything that a source finds when it reads all links. What linkIs() and linkDel() of Links say
/// while it is under way is newer, and wins.
///
/// A link that is found is there from that moment on; one that is not found goes at the end. When
/// another reading begins, this one is over and must not be used any more.
class Links::Reading {
public:
  explicit Reading(Links & links);

  /// The link is there and is so.
  void linkIs(Link const & link);
  /// What is known of the link stays; it could not be read.
  void linkStays(Plexa::IntfId intfId);
  /// Everything has been found: the other links go. Each call does some microseconds' work; false
  /// when all is done. A reading that did not see everything is not ended.
  [[nodiscard]] bool endNext();

private:
  static constexpr int linksAStep = 64;

  Links & links_;
  std::uint64_t const number_;
  std::optional<Plexa::IntfId> lookedAt_; // the last link that endNext() looked at
};

} // namespace Sources
