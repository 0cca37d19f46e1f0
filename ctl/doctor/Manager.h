// The manager's side, by net-snmp's library: one GETNEXT at a time, and where MIB modules are
// looked for. Its configuration for clients (snmp.conf) is in force, as for snmpget.
#pragma once

#include "ctl/doctor/Facts.h"
#include <memory>
#include <string>
#include <vector>

namespace Ctl::Doctor {

/// One at a time: the library keeps its state in the process. It writes no file and to no stream,
/// but what it has to say of arguments that it does not understand.
class Manager {
public:
  /// `arguments` are those that snmpget takes before the host: "-v2c", "-c", "public". Raises
  /// std::invalid_argument, one line, when they are not understood or the address is none.
  Manager(std::vector<std::string> const & arguments, std::string const & address);
  Manager(Manager const &) = delete;
  Manager & operator=(Manager const &) = delete;
  ~Manager();

  /// What comes behind the OID. Takes two tries of a second each, unless the arguments say
  /// otherwise.
  Answer next(Oid const & oid);

private:
  struct Session;
  std::unique_ptr<Session> session_;
};

/// The folders where the library looks for MIB modules, in its order.
std::vector<std::string> mibFolders();

} // namespace Ctl::Doctor
