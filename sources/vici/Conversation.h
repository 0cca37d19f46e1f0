// What is said on one connection to strongSwan: one request after another, each with its answer,
// and events at any time.
#pragma once

#include "os/Loop.h"
#include "sources/vici/Connection.h"
#include "sources/vici/Message.h"
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

namespace Sources::Vici {

/// An answer is due, and nothing has been heard for too long.
class Silent : public Unreachable {
public:
  using Unreachable::Unreachable;
};

/// Ends the connection when the daemon breaks the rules of the protocol, does not know a command,
/// does not come to an end before an answer, or is silent while one is due.
class Conversation {
public:
  /// How long the daemon may be silent while an answer is due.
  static constexpr std::chrono::seconds patience{2};
  /// How long it may take to its answer, however much it says.
  static constexpr std::chrono::seconds longestAnswer{60};
  /// Events that may come before one answer.
  static constexpr std::size_t mostEvents = 200'000;

  struct Callbacks {
    /// An event that was registered, or another one. Must not end the conversation; what it raises
    /// is why the connection is lost.
    std::function<void(std::string_view name, Octets message)> event;
    /// As Connection's.
    std::function<void(std::exception const &)> lost;
  };
  /// Has the right and the duties of `event`.
  using Answered = std::function<void(Octets message)>;
  using Registered = std::function<void(bool isKnown)>;

  /// Raises Unreachable. `loop` outlives it.
  Conversation(std::string const & path, Os::Loop & loop, Callbacks callbacks);
  Conversation(Conversation const &) = delete;
  Conversation & operator=(Conversation const &) = delete;

  /// Asks when what was asked before is answered.
  void call(std::string_view command, Answered answered);
  /// The same, for an event to be told from then on. The daemon may know no such event.
  void registerEvent(std::string_view name, Registered registered);

private:
  struct Question {
    PacketType type;
    std::string name;
    std::function<void(Packet const &)> answered;
  };

  void ask(Question question);
  void sendFirst();
  void received(Packet const & packet);
  void takeEvent(Packet const & packet);
  void takeAnswer(Packet const & packet);
  void isNotAsked();
  void heard();
  void isSilent();
  void isEndless();
  void giveUp(std::exception const & reason);

  Os::Loop & loop_;
  Callbacks callbacks_;
  Connection connection_;
  std::deque<Question> questions_; // the first one has been sent
  std::size_t events_ = 0;         // since then
  Os::Loop::Handle isLate_;        // as the next one, while there is a question
  Os::Loop::Handle isTooLong_;
};

} // namespace Sources::Vici
