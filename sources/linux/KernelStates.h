// Says of each tunnel that IPsec policies protect how far the kernel's security associations have
// come: for IKE daemons that cannot be asked, and for keys that were set by hand.
//
//   up          each template of the policy has a usable outbound state
//   connecting  one has none but one that is being acquired
//   down        there is a policy, and not even that
//
// A tunnel without a policy that demands ESP or AH has no record. Nor has one of which an IKE
// daemon has spoken: it knows better.
//
// Dumps and events of states carry session keys. They are received into pages that are never
// written into a core file, and overwritten as soon as they have been read.
#pragma once

#include "sources/Source.h"
#include "sources/linux/IpsecPolicies.h"
#include "sources/linux/KernelReader.h"
#include "sources/linux/LinkWork.h"
#include "sources/linux/ReaderHealth.h"
#include "sources/linux/States.h"
#include "statedb/Publisher.h"
#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Sources::Linux {

class KernelStates final : private KernelReader::User, private LinkWork::Owner {
public:
  /// The one profile under which all this is published.
  static constexpr std::string_view profile = "(kernel)";
  static constexpr int kernelBuffer = 1 << 20;
  /// That a state is being acquired is told by no event, but to those who then have to make it.
  static constexpr std::chrono::seconds fullReadPeriod{5};

  /// `policies` outlives it. `ask` asks for all states, as askForAll() does; empty: that. `changed`
  /// is called when lastError() or isReading() may have changed. Requires: it raises nothing.
  KernelStates(Surroundings const & surroundings, IpsecPolicies const & policies,
               std::function<void()> changed, std::function<Os::Descriptor()> ask = {});
  ~KernelStates() override;

  /// Reads all states and publishes what follows, before it returns. Raises nothing.
  void start();
  void reread() { reader_.read(); }
  /// The link or its policies may have changed. Raises nothing.
  void lookAgain(Plexa::IntfId intfId);

  bool isReading() const { return reader_.isReading(); }
  /// As IpsecPolicies has it.
  std::string const & lastError() const { return health_.lastError(); }
  std::string const & refusal() const { return health_.refusal(); }
  /// For people: how many states there are, or why nobody knows.
  std::string summary() const;
  std::vector<Ike::ConnectionReport> connections() const;
  StateDb::Publisher const & publisher() const { return publisher_; }
  ReceiveBuffer const & buffer() const { return buffer_; }

private:
  using ConnState = ::Ipsec::Ike::ConnState;
  /// What is published of a link, and where its states would lie.
  struct Entry {
    ConnState state = ConnState::down;
    std::vector<States::Place> places{};
  };

  void dumpBegins() override;
  bool found(Bytes message) override;
  void dumpEnds(bool whole, KernelReader::Pace pace) override;
  bool heard(Bytes message) override;
  void isInSync() override;
  void isDegraded(std::string_view error) override;
  std::chrono::milliseconds retryAfter(std::exception const & reason) override;

  bool forgetOne() override;
  std::optional<Plexa::IntfId> nextLink(std::optional<Plexa::IntfId> behind) const override {
    return policies_.nextLink(behind);
  }
  void look(Plexa::IntfId intfId) override;
  void workIsDone() override { reader_.published(); }
  void workFailed(std::exception const & reason) override;

  void concern(StateId const & id);
  std::optional<Entry> entryOf(Plexa::IntfId intfId) const;
  States::Progress progress(IpsecPolicies::OfLink const & one,
                            std::vector<States::Place> & places) const;
  void publish(Plexa::IntfId intfId, Entry entry);
  void withdraw(Plexa::IntfId intfId);
  void noteMalformed(MalformedMessage const & malformed) const;

  Links const & links_;
  Ike::BoundLinks const & boundLinks_;
  IpsecPolicies const & policies_;
  ReaderHealth health_;
  StateDb::Publisher publisher_;
  States states_;
  absl::btree_map<Plexa::IntfId, Entry> entries_;
  absl::btree_set<std::pair<States::Place, Plexa::IntfId>> byPlace_;
  bool isKnown_ = false;      // until all states have been read once, nothing is said of any
  bool hasMalformed_ = false; // this dump
  LinkWork work_;

  ReceiveBuffer const buffer_{ReceiveBuffer::Contents::secret};
  KernelReader reader_;
  Ike::BoundLinks::Handle const boundWatch_; // last: what it calls needs the rest
};

} // namespace Sources::Linux
