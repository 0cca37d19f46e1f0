// What is known of the daemon, of its master and of the manager's side when the checks begin. The
// checks (Checks.h) are functions of it, and look at nothing else.
#pragma once

#include "ctl/doctor/SnmpdConfig.h"
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Ctl::Doctor {

/// Whether the daemon answers at its control socket.
struct ControlFacts {
  enum class Result : std::uint8_t {
    answers,
    noSocket,
    nobodyListens,
    notPermitted,
    silent,
    other
  };
  std::string path;
  Result result = Result::other;
  std::string error = {}; ///< one line, unless it answers
};

/// Who the daemon is to the system.
struct Credentials {
  uid_t user = 0;
  std::vector<gid_t> groups = {}; ///< the effective one among them
};

/// A folder on the way to the master's socket, or the socket at its end, last.
struct PathPart {
  std::string path;
  bool exists = true;
  bool isSocket = false;
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
};

struct MasterFacts {
  std::vector<PathPart> parts = {}; ///< up to the first that does not exist; none for TCP
  Credentials daemon = {};
  std::optional<std::string> connectError = {}; ///< of a try of our own; nothing: it was taken
};

/// What came of a GETNEXT.
struct Answer {
  /// nothing: it was answered that there is nothing behind the OID.
  enum class Result : std::uint8_t { value, nothing, noAnswer, error };
  Result result = Result::noAnswer;
  Oid oid = {};          ///< of the value
  std::string text = {}; ///< the value, or what was wrong
};

/// A subtree of ours, and what a manager gets that asks for what comes first in it.
struct AskedFacts {
  std::string name;
  Oid subtree;
  bool hasRows = false;
  Answer answer = {};
};

struct MibFacts {
  std::string module;
  std::vector<std::string> folders = {}; ///< where net-snmp looks
  std::string file = {};                 ///< where it is; empty: nowhere
};

struct Facts {
  ControlFacts control;
  // Null or empty unless the daemon answers.
  nlohmann::ordered_json status = {};
  nlohmann::ordered_json tunnels = {}; ///< with their remarks
  nlohmann::ordered_json tables = {};

  std::optional<MasterFacts> master = {}; ///< behind an AgentX master
  bool isInsideSnmpd = false;             ///< the daemon is a module of snmpd
  /// Of snmpd, or of a daemon that listens by itself; nothing when that has its default.
  std::optional<SnmpdConfig> config = {};
  std::string configFile = {};
  std::string askedAt = {};   ///< the address
  std::string askedAs = {};   ///< in words: community "public"
  bool hasCredentials = true; ///< false: none were found that may be used from here
  std::vector<AskedFacts> asked = {};
  /// Who else has an OID that was refused to us, by that OID, as the master names it.
  std::map<std::string, std::string> owners = {};
  MibFacts mib = {};
};

} // namespace Ctl::Doctor
