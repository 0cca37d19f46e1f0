// The source that publishes the tunnel links of the Linux kernel, of the network namespace that the
// process is in.
//
// The interface id and the ifIndex of a tunnel are both the kernel's link index. Most changes are
// announced by the kernel; it keeps silent about those to a link that is down, so everything is
// read again from time to time. Reading everything is also the answer to every loss.
#pragma once

#include "sources/Source.h"
#include "sources/linux/LinkDecoder.h"
#include "sources/linux/LinkSockets.h"
#include "sources/linux/TunnelKind.h"
#include <chrono>
#include <map>
#include <optional>
#include <string>

namespace Sources {

/// Owns the records that it published, and no others: what somebody else does to them is undone by
/// the next full read, and records of other ids are left alone.
class LinuxSource final : public Source {
public:
  /// How much the kernel may keep for us: about five hundred events.
  static constexpr int defaultReceiveBuffer = 1 << 20;
  /// From one full read to the next, and after one that did not see everything.
  static constexpr std::chrono::seconds fullReadPeriod{20};
  static constexpr std::chrono::seconds retryPeriod{1};

  /// Raises std::invalid_argument as Linux::TunnelKindSet::fromOptions does.
  LinuxSource(std::string_view options, Os::Loop & loop, StateDb::StateDocument & document,
              int receiveBuffer = defaultReceiveBuffer);

  std::string name() const override;
  void start() override;
  void reread() override;
  SourceStatus status() const override;

private:
  using Links = std::map<std::uint32_t, Linux::TunnelLink>;
  /// What one dump has shown.
  struct Dump {
    Links links;
    bool whole = false;
    std::size_t malformed = 0;
  };

  void readEverything();
  void readEverythingOrDegrade();
  void recover(std::string_view reason);
  void subscribe();
  void forgetEvents();
  Dump dump() const;
  Dump dumpOnce() const;
  void addMalformed(Dump & result, Linux::MalformedMessage const & malformed) const;
  bool wants(Linux::LinkState const & state) const;
  void reconcile(Dump dump);

  void receiveEvents();
  void receiveEventsOrRaise();
  /// False if and only if the message shows that something may have been missed.
  [[nodiscard]] bool take(Linux::LinkMessage const & message);
  void take(Linux::LinkState const & state);

  void publish(Links const & before, Links const & after);
  void apply(Links const & before, Links const & after);
  void degrade(std::string_view error);

  std::string const options_;
  Linux::TunnelKindSet const kinds_;
  Os::Loop & loop_;
  StateDb::StateDocument & document_;
  int const receiveBuffer_;
  std::optional<Linux::LinkEvents> events_; // before its watch, which must go first
  Os::Loop::Handle eventsReadable_;
  Os::Loop::Handle nextFullRead_;
  Linux::DefaultHopLimits defaults_; // as at the last full read
  Links published_;                  // what this source has published
  SourceStatus status_;
};

/// `options` is what follows "linux:" on the command line, or empty.
std::unique_ptr<Source> makeLinuxSource(std::string_view options, Os::Loop & loop,
                                        StateDb::StateDocument & document);

} // namespace Sources
