// A master agent inside the test process, asked over loopback by a client in the same thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

using Oid = std::vector<oid>;

struct Varbind {
  Oid name;
  int type;           ///< ASN_INTEGER ..., SNMP_NOSUCHOBJECT, SNMP_ENDOFMIBVIEW ...
  long integer = 0;   ///< for ASN_INTEGER
  std::string octets; ///< for ASN_OCTET_STR
  bool operator==(Varbind const &) const = default;
};
void PrintTo(Varbind const & varbind, std::ostream * out);

struct Response {
  long errorStatus;
  long errorIndex;
  std::vector<Varbind> varbinds;
};

/// There is one in a process: net-snmp keeps its state in globals.
class InProcessAgent {
public:
  static InProcessAgent & instance();

  Response get(std::vector<Oid> const & names, int version = SNMP_VERSION_2c);
  Response getNext(std::vector<Oid> const & names, int version = SNMP_VERSION_2c);
  Response getBulk(std::vector<Oid> const & names, int nonRepeaters, int maxRepetitions);
  /// Sets every name to the INTEGER 1.
  Response set(std::vector<Oid> const & names);
  /// GETNEXT from `root` to the end of the subtree.
  std::vector<Varbind> walk(Oid const & root);

private:
  InProcessAgent();
  Response ask(netsnmp_pdu * request, int version = SNMP_VERSION_2c);
  Response askFor(int command, std::vector<Oid> const & names, int version);

  std::string peer_;
};
