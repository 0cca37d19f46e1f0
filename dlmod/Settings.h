// What snmpd's configuration says to the module: the lines
//
//   tunnelIntfSource linux          as the daemon's --source; one line for each source
//   tunnelIntfControl /path/socket  as its --control; without this line there is no such socket
//
// below the line "dlmod tunnelIntf FILE", which is where snmpd gets to know them.
#pragma once

#include <string>
#include <vector>

namespace Dlmod {

struct Settings {
  std::vector<std::string> sources; ///< in the order of their lines
  std::string controlPath;          ///< empty: no socket
};

/// The reader of those lines. snmpd reads its configuration when it starts and at HUP, which has it
/// load the module anew; but not when a manager unloads and loads the module by snmpset. So what
/// was read last is kept with net-snmp, where it outlives the module's code.
///
/// Life cycle: between net-snmp's init_agent() and shutdown_agent(); one at a time.
class SettingsReader {
public:
  SettingsReader();
  SettingsReader(SettingsReader const &) = delete;
  SettingsReader & operator=(SettingsReader const &) = delete;
  ~SettingsReader();

  /// What the lines said when the configuration was read last.
  Settings settings() const;
};

} // namespace Dlmod
