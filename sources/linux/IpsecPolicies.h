// Says of each tunnel whether the kernel's IPsec policies protect it, and follows them.
//
// The links' own records say it by kind: yes of vti and xfrm links, no of others. Where a policy
// demands ESP or AH of a tunnel's outer packets, "yes" is claimed over the record; nothing else is
// ever claimed of it, so that others may claim it as well. Of an xfrm link, which has no endpoints
// of its own, those of its policy's template are claimed.
#pragma once

#include "sources/Source.h"
#include "sources/linux/KernelReader.h"
#include "sources/linux/LinkFlows.h"
#include "sources/linux/LinkWork.h"
#include "sources/linux/Policies.h"
#include "sources/linux/ReaderHealth.h"
#include "statedb/Publisher.h"
#include <absl/container/btree_set.h>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Sources::Linux {

class IpsecPolicies final : private KernelReader::User, private LinkWork::Owner {
public:
  /// About a thousand events.
  static constexpr int defaultKernelBuffer = 1 << 20;
  static constexpr std::chrono::seconds fullReadPeriod{20};

  struct Options {
    int kernelBuffer = defaultKernelBuffer;
    int protocol;                             ///< NETLINK_XFRM; a test takes another one
    std::function<Os::Descriptor()> ask = {}; ///< as askForAll() does; empty: that
    Options();
  };

  /// Watches the links from now on. `changed` is called when lastError() or isReading() may have
  /// changed; `looked` after a link has been looked at, because it or what its policies are may
  /// have changed. Requires: they raise nothing.
  IpsecPolicies(Surroundings const & surroundings, std::function<void()> changed,
                std::function<void(Plexa::IntfId)> looked, Options options = {});
  ~IpsecPolicies() override;

  /// Reads all policies and claims what follows, before it returns. Raises nothing.
  void start();
  /// Begins to read them again.
  void reread() { reader_.read(); }

  bool isReading() const { return reader_.isReading(); }
  /// What is wrong, one line; empty when nothing is. That reading policies is not permitted, or not
  /// supported, is nothing wrong.
  std::string const & lastError() const { return health_.lastError(); }
  /// Why the kernel refuses, and what would help; empty when it does not.
  std::string const & refusal() const { return health_.refusal(); }
  /// For people: how many policies there are, or why nobody knows.
  std::string summary() const;
  StateDb::Publisher const & publisher() const { return publisher_; }

  /// Outbound policies that demand ESP or AH of what the link sends; those of an xfrm link by its
  /// if_id, of a vti link by its key, of others by their outer packets. Good until policies or the
  /// link change.
  struct OfLink {
    Policy const * policy;
    /// Whose outer packets it decides on; null for vti and xfrm links.
    Flow const * flow;
  };
  /// Hands them over one by one until `take` says false: of an xfrm link, on which many may dial
  /// in, there are as many as there are peers.
  void forEachPolicyOf(Plexa::IntfId intfId,
                       std::function<bool(OfLink const &)> const & take) const;

  /// The first link behind that one, or behind none, of which policies may speak.
  std::optional<Plexa::IntfId> nextLink(std::optional<Plexa::IntfId> behind) const override {
    return links_.next(behind);
  }

  Policies::Work const & policyWork() const { return policies_.work(); }
  LinkFlows::Work const & linkWork() const { return links_.work(); }

private:
  void dumpBegins() override;
  bool found(Bytes message) override;
  void dumpEnds(bool whole, KernelReader::Pace pace) override;
  bool heard(Bytes message) override;
  void isInSync() override;
  void isDegraded(std::string_view error) override;
  std::chrono::milliseconds retryAfter(std::exception const & reason) override;

  bool forgetOne() override;
  void look(Plexa::IntfId intfId) override;
  void workIsDone() override { reader_.published(); }
  void workFailed(std::exception const & reason) override;

  void linkChanged(Plexa::IntfId intfId);
  void knowLinks();
  void followRoute(Plexa::IntfId intfId);
  void concern(std::optional<Policy> const & policy);
  StateDb::Claim<StateDb::Publisher::Status> claimOf(Plexa::IntfId intfId) const;
  void noteElsewhere(Link const & link);
  void noteMalformed(MalformedMessage const & malformed) const;

  NetlinkSubject const subject_;
  Links & allLinks_;
  ReaderHealth health_;
  std::function<void(Plexa::IntfId)> const looked_;
  StateDb::Publisher publisher_;
  Policies policies_;
  LinkFlows links_;
  absl::btree_set<Plexa::IntfId> elsewhere_; // links that are carried there, which was traced
  bool areLinksKnown_ = true;                // until there is no memory for a change of one
  LinkWork work_;

  ReceiveBuffer const buffer_{ReceiveBuffer::Contents::plain};
  KernelReader reader_;
  Links::Handle const linksWatch_; // last: what it calls needs the rest
};

} // namespace Sources::Linux
