// A MIB module for tests: one table in net-snmp's table iterator, whose rows, indexes, columns and
// misbehaviour the test chooses, and which counts the contexts that it made and that came back.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "tests/agent/Wire.h"
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// What the handler does with one cell instead of putting its value.
enum class Cell {
  value,
  noSuchObject,
  noSuchInstance,
  endOfMibView,
  unanswered,
  failure,       ///< an error of the request and of the call
  silentFailure, ///< an error of the request alone
};

/// How the columns are registered.
enum class ColumnsAre { listed, inRanges, unlisted };

struct ToyShape {
  Wire::Oid root{1, 3, 6, 1, 4, 1, 32473, 9, 1};
  std::vector<unsigned char> indexTypes{ASN_INTEGER};
  std::size_t indexLength = 0; ///< of all indexes, where it is not part of the name
  std::vector<unsigned int> columns{2, 3, 4};
  ColumnsAre columnsAre = ColumnsAre::listed;
  std::string value = "value";
  /// The indexes as sub-identifiers.
  std::set<Wire::Oid> rows;
  std::function<Cell(unsigned int column, Wire::Oid const & index)> cell =
      [](unsigned int, Wire::Oid const &) { return Cell::value; };
  bool serialized = true;
  bool writable = false; ///< every SET succeeds, also that of a row that does not exist
  int iteratorFlags = NETSNMP_ITERATOR_FLAG_SORTED;
};

/// Registered for as long as it lives.
class ToyTable {
public:
  explicit ToyTable(ToyShape shape);
  ToyTable(ToyTable const &) = delete;
  ToyTable & operator=(ToyTable const &) = delete;
  ~ToyTable();

  /// Contexts that were made and not given back.
  int contexts() const { return contexts_; }
  /// Calls of the iterator's callbacks, and of the handler, since the last time it was asked.
  int callsSinceAsked() { return std::exchange(calls_, 0); }
  /// What the handler was asked by SETs, in order: "PHASE COLUMN INDEX", with "missing" behind
  /// where it was given no row.
  std::vector<std::string> const & sets() const { return sets_; }
  netsnmp_handler_registration * registration() const { return registration_; }

private:
  struct Context;
  static ToyTable & self(netsnmp_iterator_info * info) {
    return *static_cast<ToyTable *>(info->myvoid);
  }
  static netsnmp_variable_list * getFirst(void ** loop, void **, netsnmp_variable_list * index,
                                          netsnmp_iterator_info * info);
  static netsnmp_variable_list * getNext(void ** loop, void **, netsnmp_variable_list * index,
                                         netsnmp_iterator_info * info);
  static void * makeDataContext(void * loop, netsnmp_iterator_info * info);
  static void freeContext(void * context, netsnmp_iterator_info * info);
  static int handle(netsnmp_mib_handler *, netsnmp_handler_registration *,
                    netsnmp_agent_request_info * agent, netsnmp_request_info * requests);
  void noteSet(int phase, netsnmp_request_info * request, bool hasRow);
  netsnmp_variable_list * fill(Context const & context, netsnmp_variable_list * index);
  int answer(netsnmp_request_info * request, Wire::Oid const & index);
  void fillRanges();
  void fillColumns(netsnmp_table_registration_info & table);

  ToyShape const shape_;
  std::vector<std::string> sets_;
  std::vector<netsnmp_column_info> columns_;
  std::vector<unsigned int> columnList_;
  int contexts_ = 0;
  int calls_ = 0;
  netsnmp_handler_registration * registration_ = nullptr;
};
