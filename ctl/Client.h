// The client's end of the daemon's control socket.
//
// Whatever is at the other end, an exchange is over within a stated time and takes no more than a
// stated amount of memory: a daemon may be stopped, stuck, or no daemon at all.
#pragma once

#include "os/Descriptor.h"
#include <chrono>
#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

namespace Ctl {

/// The daemon cannot be reached, or does not talk as it should. what() says what to do next.
class Unreachable : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};
/// Somebody is there, but has not answered in the time that it has.
class Late : public Unreachable {
public:
  using Unreachable::Unreachable;
};
/// The daemon refused the request. what() is its reason.
class Refused : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// How far the daemon is waited for.
struct Limits {
  /// Until it takes or gives something. Reading a large file again is done before it answers.
  std::chrono::milliseconds silence{60'000};
  /// For a whole exchange, from the connection to the end of the answer.
  std::chrono::milliseconds whole{600'000};
  std::size_t answerSize = std::size_t{512} << 20; ///< the longest line that is taken
};

/// One connection, made on construction, for one exchange.
class Client {
public:
  /// Raises Unreachable.
  explicit Client(std::string path, Limits const & limits = {});

  /// Sends one request, with the arguments as JSON text in one line, and returns the result of its
  /// answer: as ordered_json with the members in the order in which they came, as json for objects
  /// of very many members. Raises Refused and Unreachable.
  template <class Json>
  Json request(std::string const & command, std::string const & arguments);

private:
  using Clock = std::chrono::steady_clock;

  void connect();
  void send(std::string const & line);
  std::string receiveLine();
  void waitFor(short events) const;
  std::chrono::milliseconds timeLeft() const;
  [[noreturn]] void lost(std::string const & reason) const;
  [[noreturn]] void late() const;

  std::string const path_;
  Limits const limits_;
  Clock::time_point const end_;
  Os::Descriptor descriptor_;
};

} // namespace Ctl
