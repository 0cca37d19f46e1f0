// The source that publishes what strongSwan says of its connections, over its own interface vici.
//
// One connection is for requests, one for events. An event is a hint that something has changed:
// what, a listing of all connections and security associations tells, since not everything has an
// event and what an event says is not always so. A listing is read and bound as it comes, one piece
// in a turn of the event loop. A change of a link is such a hint as well: what was bound before it
// is published nevertheless, and put right by the listing that follows, so that links which come
// and go without end hold nothing up.
//
//   phase       what holds                                   leads to
//   stopped     not started                                  away
//   away        no connection; another attempt at `next_`    greeting
//   greeting    one connection or both; what is asked first  listing, away
//   resting     both; another listing at `next_`             listing, away
//   listing     both; `binding_` takes what is listed        binding, away
//   binding     both; what was listed finds its links        publishing, away
//   publishing  both; the listing goes into the database     resting, listing, away
//
// What was published stays while the daemon is away. After a while its state becomes "unknown",
// until a listing tells it again. A timer for that, or for the next attempt, that could not be had
// for want of memory is set when the source next looks after itself.
#pragma once

#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include "sources/Health.h"
#include "sources/Source.h"
#include "sources/ike/LinkIndex.h"
#include "sources/vici/Conversation.h"
#include "sources/vici/Options.h"
#include "sources/vici/Publication.h"
#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Sources {

class ViciSource final : public Source {
public:
  /// From the end of a listing to the next one, when nothing happens.
  static constexpr std::chrono::seconds listingPeriod{5};
  /// From an event to the listing, so that what happens together is listed once.
  static constexpr std::chrono::milliseconds gathering{50};
  /// From the last sign of the daemon to the state "unknown".
  static constexpr std::chrono::seconds unknownAfter{3};
  /// From the loss of a connection to the next attempt: twice as long each time, up to the longest.
  static constexpr std::chrono::seconds shortestPause{1};
  static constexpr std::chrono::seconds longestPause{30};

  /// `options` is what follows "vici" on the command line. Raises std::invalid_argument as
  /// Vici::Options::fromText does.
  ViciSource(std::string_view options, Surroundings const & surroundings);

  ViciSource(ViciSource const &) = delete;
  ViciSource & operator=(ViciSource const &) = delete;
  ~ViciSource() override { run_->ownerDeletedIs(); }

  std::string name() const override { return "vici" + text_; }
  /// Does not wait, and raises nothing: a daemon that is not there shows in status().
  void start() override;
  void reread() override;
  SourceStatus status() const override;
  std::vector<Ike::ConnectionReport> connections() const override;

private:
  using Run = Flowa::Gen::InReactor<ViciSource>;
  enum class Phase { stopped, away, greeting, resting, listing, binding, publishing };
  /// When a listing begins after the one under way.
  enum class Again { asUsual, soon, atOnce };

  void connect();
  void greet();
  void openEvents();
  Vici::Conversation::Callbacks
  callbacks(std::function<void(std::string_view, Vici::Octets)> event);
  void listOrLose();
  void list();
  void takeListed(std::string_view event, Vici::Octets message);
  void listingIsOver();
  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);
  void bind();
  void publish(Ike::Bindings bindings);
  void noteConflicts(Ike::Bindings const & bindings) const;
  void publishingIsOver();
  void publishingFailed(std::exception const & reason);
  void restOrLose();
  void rest();
  void listIn(std::chrono::milliseconds time);

  void eventIs(std::string_view event);
  void linkHasChanged();
  void hint();

  void lost(std::exception const & reason);
  void awayFor(std::exception const & reason);
  void lookAfterItself();
  void expectNext(std::chrono::milliseconds unknownIn);
  void becomeUnknown();
  void degrade(std::string_view error);
  bool isReading() const;

  std::string const text_;
  Vici::Options const options_;
  Os::Loop & loop_;
  Links & links_;
  Ike::LinkIndex const index_;
  Health health_;
  Vici::Publication publication_;
  Links::Handle linksWatch_;

  Phase phase_ = Phase::stopped;
  Again again_ = Again::asUsual;
  bool isHinted_ = false; // `next_` is for a hint
  std::chrono::milliseconds pause_ = shortestPause;
  std::string daemon_; // its version; empty while it has never been heard of
  std::optional<std::chrono::system_clock::time_point> lastListing_;
  std::uint64_t fullReads_ = 0;
  std::optional<Ike::Binding> binding_; // while listing and binding
  Zel::Ptr<Kiln::Task> const task_;     // binds
  Zel::Ptr<Run> const run_;
  std::optional<Vici::Conversation> requests_;
  std::optional<Vici::Conversation> events_;
  Os::Loop::Handle look_;
  Os::Loop::Handle next_;
  Os::Loop::Handle becomesUnknown_; // while the daemon was lost a short time ago
  bool isUnknown_ = false;          // which is published
};

/// `options` is what follows "vici" on the command line, or empty.
std::unique_ptr<Source> makeViciSource(std::string_view options, Surroundings const & surroundings);

} // namespace Sources
