// What can be seen of the plug-in, of the scheduler and of the session with an AgentX master from
// outside, as JSON.
//
// The plug-in's objects are known here by their attributes' names only:
// - the root's attribute "tunnelIntfSnmpAgent" holds an object; each of its attributes that is an
//   object with an attribute "ready" is a machine;
// - each attribute of a machine that is an object with an attribute "scanState" is one of its
//   inputs; each bool whose name ends in "OutputReconciling" says that a deletion scan is owed, and
//   the attribute whose name ends in "OutputBookmark" how far it is; "rescanUnheard" counts how
//   often an input went unheard;
// - each attribute of the MIB entity that can be walked and holds objects is a table, and the
// columns
//   of a row are its attributes that are no objects themselves;
// - a number of an attribute with enumerators has a name.
#pragma once

#include "agent/agentx/SessionStatus.h"
#include "platform/Kiln.h"
#include "platform/Zel.h"
#include "sources/Source.h"
#include <cstddef>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

/// The machines in order, each {name, ready, idle, initialized, initialScanDone, synchronous,
/// reconciling, reconciledTo while it is, rescanUnheard, inputs: [{name, scanState in words,
/// scanComplete, scanned, inputSize}]}; what an object does not have is left out. Empty when the
/// root has no agent.
nlohmann::ordered_json machinesStatus(Zel::PtrInterface const & root);
/// True if and only if there are machines and all of them are ready.
bool allReady(nlohmann::ordered_json const & machines);

/// {name, state, reading, lastError, records: {collection: count}, fullReads, changes, details:
/// {name: line} where the source has any}.
nlohmann::ordered_json sourceStatus(Sources::Source const & source);

/// {address, state, since, session while there is one, sessions, lastError, registrations: [{oid,
/// context, state, reason of the last refusal}]}. `since` is the time in UTC, as in RFC 3339, at
/// which it began to serve, or ceased to.
nlohmann::ordered_json masterStatus(AgentX::SessionStatus const & session);

/// Every task: {name, priority, scheduled, runs, workCount, workPending}.
nlohmann::ordered_json tasksStatus(Kiln::TaskScheduler const & scheduler);
/// The sums: {count, scheduled, runs, workPending}.
nlohmann::ordered_json tasksSummary(Kiln::TaskScheduler const & scheduler);

/// What the columns of each table that has a row are: {"TABLE": [{name, type, enumerators: {number:
/// name} where it has any}, ...], ...}.
nlohmann::ordered_json tableColumns(Zel::PtrInterface const & mib);

/// Writes the tables of a MIB entity piece by piece, as {"TABLE": [{column: value, ...}, ...], ...}
/// in JSON, with numbers as they are. A row that is there all the while is written once; one that
/// comes or goes meanwhile may be. Holds the entity.
class TablesWriter {
public:
  explicit TablesWriter(Zel::Ptr<Zel::PtrInterface const> mib);

  /// Appends the next piece, some hundred rows at most. True if and only if there is more.
  bool next(std::string & out);

private:
  void beginTable(std::string & out);
  void writeRow(std::string & out, Zel::PtrInterface const & row);

  Zel::Ptr<Zel::PtrInterface const> const mib_;
  std::size_t attribute_ = 0; // the attribute that is written now, or the next one
  bool anyTable_ = false;
  Zel::Walk walk_; // over the table that is written now; null when none is
  bool anyRow_ = false;
};

/// What one source knows of IPsec connections.
struct SourceConnections {
  std::string source;
  std::vector<Sources::Ike::ConnectionReport> reports;
};

/// Writes the reports of all sources piece by piece, as [{connection, child, state, interface,
/// reason, source}, ...] in JSON. No text has a control character in it.
class ConnectionsWriter {
public:
  explicit ConnectionsWriter(std::vector<SourceConnections> sources)
      : sources_(std::move(sources)) {}

  /// Appends the next piece, some hundred rows at most. True if and only if there is more.
  bool next(std::string & out);

private:
  std::vector<SourceConnections> const sources_;
  std::size_t source_ = 0;
  std::size_t report_ = 0;
  bool begun_ = false;
  bool anyReport_ = false;
};

} // namespace Agent
