// A source finds out what tunnels there are and publishes them in the state database.
//
// Every source works the same way. start() subscribes to changes first and reads everything after
// that, so that nothing is missed in between; from then on changes are applied as they come. A lost
// message, a full buffer, an interrupted read are never only logged: they mean "anything may have
// changed" and lead to a full read on the same path as the start. Only differences are published.
#pragma once

#include "os/Loop.h"
#include "statedb/StateDocument.h"
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Sources {

/// How a source is doing. `lastError` is one line, empty when the last attempt went well.
struct SourceStatus {
  enum class State {
    stopped,  ///< not started
    inSync,   ///< what it last read is published, and changes are heard of
    degraded, ///< the last good state is published; lastError says what is wrong
  };
  State state = State::stopped;
  std::string lastError;
  std::uint64_t records = 0;   ///< tunnels published now
  std::uint64_t fullReads = 0; ///< complete reads done
  std::uint64_t patches = 0;   ///< patches applied
};

/// Lives from its creation to the end of the agent. Destruction leaves what was published in place.
class Source {
public:
  virtual ~Source() = default;
  /// As on the command line: "json:/etc/tunnels.json", "linux".
  virtual std::string name() const = 0;
  /// Publishes everything that is there now and follows it from then on. Raises std::runtime_error,
  /// one line that says what to do, when the source cannot work at all. Requires: not started yet.
  virtual void start() = 0;
  /// Reads everything again now (SIGHUP). Raises nothing: a failure shows in status().
  virtual void reread() = 0;
  virtual SourceStatus status() const = 0;
};

/// Makes the source that `text` names: "json:FILE", "linux", "linux:kinds=+vxlan,-vti". Raises
/// std::invalid_argument, one line that lists what is possible, when it names none. `loop` and
/// `document` outlive the source.
std::unique_ptr<Source> makeSource(std::string_view text, Os::Loop & loop,
                                   StateDb::StateDocument & document);

} // namespace Sources
