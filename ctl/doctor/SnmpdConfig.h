// What snmpd's configuration says, as far as it decides whether a manager sees our tables: who may
// read what, where it listens, and whether it is an AgentX master (snmpd.conf(5)).
#pragma once

#include "ctl/doctor/Oid.h"
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ctl::Doctor {

/// Somebody who may read.
struct Reader {
  std::string name;                ///< of a community or a user
  bool isCommunity = true;         ///< else a user of SNMPv3
  std::string source = {};         ///< of a community: from where; empty: from everywhere
  std::string view = {};           ///< what it may read; empty: what `subtree` says
  std::optional<Oid> subtree = {}; ///< nothing: everything
};

/// "view NAME included|excluded SUBTREE [MASK]".
struct ViewLine {
  bool isIncluded;
  Oid subtree;
  std::vector<bool> mask = {}; ///< false: any number fits there; what is beyond its end is true
};

struct SnmpdConfig {
  bool isMaster = false;                  ///< "master agentx"
  std::vector<std::string> agentxSockets; ///< in order; empty: the default
  std::vector<std::string> listeners;     ///< of agentAddress; empty: the default
  std::vector<Reader> readers;
  std::map<std::string, std::vector<ViewLine>> views;
  std::vector<std::string> unreadable; ///< files and folders that could not be read, with why
  std::vector<std::string>
      notUnderstood; ///< lines about access of which the OID has an unknown name
};

/// How configuration files are found and read. A test gives texts.
struct ConfigFiles {
  /// The text of a file. Raises std::runtime_error, one line.
  std::function<std::string(std::string const & path)> read;
  /// The files of a folder that end in ".conf", in order. Raises std::runtime_error, one line.
  std::function<std::vector<std::string>(std::string const & folder)> list;
};
ConfigFiles realConfigFiles();

/// Reads the file and what it includes. Lines that are about something else are passed over.
SnmpdConfig readSnmpdConfig(std::string const & path, ConfigFiles const & files);
/// The same for a text without includes.
SnmpdConfig parseSnmpdConfig(std::string_view text);

/// How much of a subtree a reader sees.
enum class Sight : std::uint8_t { nothing, part, all };
Sight sightOf(SnmpdConfig const & config, Reader const & reader, Oid const & subtree);
/// True if and only if the reader may ask from this machine.
bool mayAskFromHere(Reader const & reader);
/// An address at which this machine reaches who listens there: "udp:127.0.0.1:161" for none, and
/// for any address.
std::string addressFromHere(std::vector<std::string> const & listeners);

} // namespace Ctl::Doctor
