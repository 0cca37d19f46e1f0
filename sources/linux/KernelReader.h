// Keeps its user in step with one kind of thing in the kernel: subscribes to changes, reads
// everything, hands over changes; and begins again whenever something may be missing.
//
// What happens, in the order in which the user is called:
//
//   a reading     dumpBegins, found..., dumpEnds; then the user says published() or failed(). When
//                 things came and went meanwhile, all of that again, some times.
//   an event      heard, also in the middle of a reading; it is newer than what a dump finds later.
//   a failure     readingFailed, which says when to try again; dumpEnds may not have been called.
//   all is well   isInSync, after a reading.
//
// A full read comes after a period as well, for what the kernel does not announce.
#pragma once

#include "os/Loop.h"
#include "platform/Lumo.h"
#include "sources/linux/NetlinkSockets.h"
#include "statedb/FullRead.h"
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string_view>

namespace Sources::Linux {

class KernelReader {
public:
  using Pace = StateDb::FullRead::Pace;

  /// Who wants to know. What its functions raise is a failure of the reading, or of the events.
  class User {
  public:
    virtual ~User() = default;
    virtual void dumpBegins() = 0;
    /// One message of the dump. False if and only if it cannot be understood.
    [[nodiscard]] virtual bool found(Bytes message) = 0;
    /// The dump is over: calls published() or failed() when it has taken effect, now or later. When
    /// it is not `whole`, what was not found may be there all the same.
    virtual void dumpEnds(bool whole, Pace pace) = 0;
    /// One message of an event; must neither begin nor end a reading. False if and only if it shows
    /// that something may have been missed.
    [[nodiscard]] virtual bool heard(Bytes message) = 0;
    virtual void isInSync() = 0;
    /// `error` is one line. Requires: raises nothing.
    virtual void isDegraded(std::string_view error) = 0;
    /// Called before isDegraded() when a reading has failed. Gives the time to the next one.
    virtual std::chrono::milliseconds retryAfter(std::exception const & reason) = 0;
  };

  /// What it reads, by what, and how often. What is referred to outlives the reader.
  struct Settings {
    NetlinkSubject const & subject;
    Os::Loop & loop;
    Lumo::DebugHandler const & trace;
    ReceiveBuffer const & buffer;
    int kernelBuffer;                    ///< bytes that the kernel keeps for us
    std::chrono::milliseconds period;    ///< from one full read to the next
    std::function<Os::Descriptor()> ask; ///< as askForAll() does; empty: that
  };
  /// From one that did not see everything to the next, and after events could not be received.
  static constexpr std::chrono::seconds retryPeriod{1};
  /// How long the kernel may take for each part of its answer, before the read is given up.
  static constexpr std::chrono::seconds patience{2};

  /// `user` outlives it.
  KernelReader(Settings settings, User & user) : settings_(std::move(settings)), user_(user) {}
  KernelReader(KernelReader const &) = delete;
  KernelReader & operator=(KernelReader const &) = delete;

  /// Subscribes and reads everything before it returns, at the pace atOnce; raises what fails.
  /// Readings follow from then on, whatever fails.
  void readNow();
  /// Begins to read everything. One that is under way ends first: it may have passed what is to be
  /// read. Raises nothing.
  void read();

  bool isReading() const { return isReading_; }
  /// Complete reads done.
  std::uint64_t fullReads() const { return fullReads_; }

  // For the user, once after each dumpEnds().
  void published();
  void failed(std::exception const & reason);

private:
  void beginReading(Pace pace);
  void beginDump();
  void subscribe();
  void forgetEvents();
  NetlinkEvents::Received receiveOrUnsubscribe(TakeMessage const & take);

  void receiveDump();
  void receiveDumpOrRaise();
  void expectAnswer();
  void waitForDump() const;
  void dumpIsOver(bool whole);
  void tellHealth();
  void readIn(std::chrono::milliseconds time) noexcept;
  void stopDump();
  NetlinkError noAnswer() const;

  void receiveEvents();
  void receiveEventsOrRaise();
  void recover(std::string_view reason);
  void eventsFailed(std::exception const & reason);

  Settings const settings_;
  User & user_;

  std::optional<NetlinkEvents> events_; // before its watch, which must go first
  Os::Loop::Handle eventsReadable_;

  bool isReading_ = false; // until what was read is published
  bool readAgain_ = false; // when that is done
  Pace pace_ = Pace::inRuns;
  int dumps_ = 0; // of this reading
  bool whole_ = false;
  std::size_t malformed_ = 0;       // messages of this dump
  std::optional<NetlinkDump> dump_; // while there is more to receive; before its watches
  Os::Loop::Handle dumpReadable_;
  Os::Loop::Handle dumpIsLate_;
  Os::Loop::Handle nextFullRead_;
  Os::Loop::Handle lastResort_; // a next read, where there was no memory for its own time
  std::uint64_t fullReads_ = 0;
};

} // namespace Sources::Linux
