// The kernel's answers to a linux source, written by a test: parts of dumps, octet by octet, over
// sockets that keep messages apart as netlink's do.
#pragma once

#include "os/Descriptor.h"
#include "tests/sources/linux/LinkBytes.h"
#include <deque>
#include <vector>

class ScriptedDumps {
public:
  using Octets = LinkBytes::Octets;
  /// What one reception gives: some messages.
  using Part = Octets;

  /// What is answered to a further asking, at once. Without an answer left, a dump is silent until
  /// send().
  void answerIs(std::vector<Part> parts) { answers_.push_back(std::move(parts)); }
  /// None is left.
  void forgetAnswers() { answers_.clear(); }
  /// Sends a part of the dump that was asked for last.
  void send(Part const & part) const;
  /// No more can come of the dump that was asked for last.
  void close() { kernel_ = Os::Descriptor(); }
  /// How often links were asked for.
  int asked() const { return asked_; }

  /// For the source: as Linux::askForAll.
  Os::Descriptor ask();

  // Messages of a dump.

  /// A gre link from 10.0.0.1 to 10.0.0.2.
  static Octets gre(int index, std::uint8_t hopLimit);
  /// One about that link that is cut off within its attributes.
  static Octets malformed(int index);
  static Octets done() { return end(3, 0); }
  /// The kernel refuses; `error` is a number of the system.
  static Octets refusal(int error) { return end(2, -error); }
  static Octets doneWith(int error) { return end(3, -error); }
  /// The same message, marked: links came and went while the dump was made.
  static Octets interrupted(Octets message);

private:
  static Octets end(std::uint16_t type, std::int32_t number);

  std::deque<std::vector<Part>> answers_;
  Os::Descriptor kernel_; // our end of the last dump
  int asked_ = 0;
};
