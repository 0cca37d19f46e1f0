// The commands of the control socket: one JSON request in, one JSON answer out.
//
//   {"command": "trace/set", "arguments": {"unit": "Snmp", "levels": "2"}}
//   {"ok": true, "result": ...}      {"ok": false, "error": "one line"}
#pragma once

#include "agent/Patches.h"
#include "agent/Status.h"
#include "platform/Kiln.h"
#include "platform/Zel.h"
#include "statedb/StateDocument.h"
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// An answer, given piece by piece so that a long one holds nobody up: each call appends the next
/// piece and returns true if and only if there is more. An empty piece means that the next one is
/// not known yet: ask again a little later. The pieces together are one line of JSON without its
/// newline.
using Answer = std::function<bool(std::string & out)>;

/// What came of reading everything again: a line for each failure; nothing while it is under way.
using RereadOutcome = std::optional<std::vector<std::string>>;

/// What the commands work on. All of it outlives them.
struct CommandHost {
  StateDb::StateDocument & document;
  Zel::Ptr<Zel::PtrInterface const> mib; ///< whose tables are shown
  Patches & patches;
  Kiln::TaskScheduler const & scheduler;
  std::function<nlohmann::ordered_json()> status;
  /// Begins to read sources and configuration again.
  std::function<std::shared_ptr<RereadOutcome const>()> reread;
  /// Starts the plug-in's machines anew.
  std::function<void()> restartMachines;
  /// What each source knows of IPsec connections.
  std::function<std::vector<SourceConnections>()> connections;
  StateDb::StateDb const & database; ///< the one that the document shows
  Sources::Links const & links;
};

class Commands {
public:
  explicit Commands(CommandHost host) : host_(std::move(host)) {}

  /// Carries out one request. A request that is malformed or refused gets an error answer; nothing
  /// is raised.
  Answer answer(std::string_view request);

private:
  struct Command;
  static std::vector<Command> const & table();
  Answer execute(nlohmann::json request);

  CommandHost const host_;
};

/// An answer that says what is wrong, in one line (Os::oneLine).
Answer errorAnswer(std::string_view error);

} // namespace Agent
