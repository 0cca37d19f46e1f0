// The source that publishes the tunnel links of the Linux kernel, of the network namespace that the
// process is in.
//
// Most changes are announced by the kernel, and published as they come. It keeps silent about those
// to a link that is down, so everything is read again from time to time, one part of the kernel's
// answer in a turn of the event loop. Reading everything is also the answer to every loss.
#pragma once

#include "sources/Health.h"
#include "sources/Source.h"
#include "sources/linux/LinkDecoder.h"
#include "sources/linux/LinkPublication.h"
#include "sources/linux/LinkSockets.h"
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Sources {

class LinuxSource final : public Source {
public:
  /// How much the kernel may keep for us: about five hundred events.
  static constexpr int defaultReceiveBuffer = 1 << 20;
  /// From one full read to the next; and after one that failed or did not see everything, or after
  /// events could not be received.
  static constexpr std::chrono::seconds fullReadPeriod{20};
  static constexpr std::chrono::seconds retryPeriod{1};
  /// How long the kernel may take for each part of its answer, before the read is given up.
  static constexpr std::chrono::seconds patience{2};

  /// Raises std::invalid_argument as Linux::TunnelKindSet::fromOptions does, and when there is such
  /// a source already: one can have all kinds.
  LinuxSource(std::string_view options, Surroundings const & surroundings,
              int receiveBuffer = defaultReceiveBuffer,
              std::function<Os::Descriptor()> ask = Linux::askForLinks);

  std::string name() const override;
  void start() override;
  void reread() override;
  SourceStatus status() const override;

private:
  using Pace = Linux::LinkPublication::Pace;

  void readOrDegrade();
  void beginReading(Pace pace);
  void beginDump();
  void subscribe();
  void forgetEvents();
  Linux::LinkEvents::Received receiveOrUnsubscribe(Linux::TakeMessage const & take);

  void receiveDump();
  void receiveDumpOrRaise();
  void waitForDump() const;
  void found(std::span<std::byte const> message);
  void dumpIsOver(bool whole);
  void readingIsOver(bool whole);
  void tellHealth(bool whole);
  void readingFailed(std::exception const & reason);
  void readIn(std::chrono::milliseconds time);
  void stopDump();

  void receiveEvents();
  void receiveEventsOrRaise();
  /// False if and only if the message shows that something may have been missed.
  [[nodiscard]] bool take(Linux::LinkMessage const & message);
  void recover(std::string_view reason);
  void eventsFailed(std::exception const & reason);
  void degrade(std::string_view error);

  std::string const options_;
  Os::Loop & loop_;
  int const receiveBuffer_;
  std::function<Os::Descriptor()> const ask_;
  Health health_;
  Linux::LinkPublication publication_;

  std::optional<Linux::LinkEvents> events_; // before its watch, which must go first
  Os::Loop::Handle eventsReadable_;

  bool isReading_ = false; // until what was read is published
  bool readAgain_ = false; // when that is done
  Pace pace_ = Pace::inRuns;
  int dumps_ = 0;             // of this reading
  std::size_t malformed_ = 0; // messages of this dump
  Linux::DefaultHopLimits defaults_;
  std::optional<Linux::LinkDump> dump_; // while there is more to receive; before its watches
  Os::Loop::Handle dumpReadable_;
  Os::Loop::Handle dumpIsLate_;
  Os::Loop::Handle nextFullRead_;
  std::uint64_t fullReads_ = 0;
};

/// `options` is what follows "linux:" on the command line, or empty.
std::unique_ptr<Source> makeLinuxSource(std::string_view options,
                                        Surroundings const & surroundings);

} // namespace Sources
