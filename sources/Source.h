// A source finds out what there is, of tunnels or of what protects them, and publishes it in the
// state database.
//
// Every source works the same way. start() subscribes to changes first and reads everything after
// that, so that nothing is missed in between; from then on changes are applied as they come. A lost
// message, a full buffer, an interrupted read are never only logged: they mean "anything may have
// changed" and lead to a full read on the same path as the start. Only differences are published.
// Registry.h lists the sources that there are.
#pragma once

#include "os/Loop.h"
#include "sources/Links.h"
#include "sources/ike/Binding.h"
#include "sources/ike/BoundLinks.h"
#include "statedb/Publisher.h"
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Sources {

class Source;

/// What a source works with. All of it outlives the source.
struct Surroundings {
  Os::Loop & loop;
  StateDb::Publishers & publishers; ///< a source makes a Publisher of its own from it
  Links & links;
  Ike::BoundLinks & boundLinks;
  /// Called after a source has become degraded, or in sync again. May ask for its status; must not
  /// change it.
  std::function<void(Source const &)> stateChanged = {};
  /// Called with one line for the operator: something that is no fault of the source's, and that
  /// it does without.
  std::function<void(Source const &, std::string_view)> noted = {};
};

/// How a source is doing. `lastError` is one line, empty when the last attempt went well.
struct SourceStatus {
  enum class State {
    stopped,  ///< not started, or reading for the first time
    inSync,   ///< what it last read is published, and changes are heard of
    degraded, ///< the last good state is published; lastError says what is wrong
  };
  State state = State::stopped;
  bool isReading = false; ///< a full read is under way, or waits for its turn; changes go on
  std::string lastError;
  StateDb::Publisher::Counts records; ///< published now
  std::uint64_t fullReads = 0;        ///< complete reads done
  std::uint64_t changes = 0;          ///< records inserted, changed or removed
  /// What else there is to say, by name, each one line: {"daemon", "strongSwan 5.9.8"}.
  std::vector<std::pair<std::string, std::string>> details = {};
};

/// Lives from its creation to the end of the agent. Destruction leaves what was published in place.
class Source {
public:
  virtual ~Source() = default;
  /// As on the command line: "json:/etc/tunnels.json", "linux".
  virtual std::string name() const = 0;
  /// Publishes everything that is there now and follows it from then on. Waits for it, a second or
  /// two at most; what takes longer goes on afterwards, while status().isReading. Raises
  /// std::runtime_error, one line, when the source cannot work at all. Requires: not started yet.
  virtual void start() = 0;
  /// Begins to read everything again (SIGHUP). What has happened until now is published when
  /// status().isReading is false again. Raises nothing: a failure shows in status().
  virtual void reread() = 0;
  virtual SourceStatus status() const = 0;
  /// What it knows of IPsec connections, for people; empty when it knows of none.
  virtual std::vector<Ike::ConnectionReport> connections() const { return {}; }
};

} // namespace Sources
