// The client's end of the daemon's control socket.
#pragma once

#include "os/Descriptor.h"
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

namespace Ctl {

/// The daemon cannot be reached, or does not talk as it should. what() says what to do next.
class Unreachable : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};
/// The daemon refused the request. what() is its reason.
class Refused : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// One connection, made on construction.
class Client {
public:
  /// Raises Unreachable.
  explicit Client(std::string path);

  /// Sends one request and returns the result of its answer: as ordered_json with the members in
  /// the order in which they came, as json for objects of very many members. Raises Refused and
  /// Unreachable.
  template <class Json>
  Json request(std::string const & command, nlohmann::json const & arguments);

private:
  void send(std::string const & line);
  std::string receiveLine();
  [[noreturn]] void lost(char const * reason) const;

  std::string const path_;
  Os::Descriptor const descriptor_;
};

} // namespace Ctl
