// What the MIB modules and their table handlers do alike: registering a table with net-snmp's table
// iterator in one context, finding rows for the iterator, and answering requests.
//
// A table handler is split in three. TableWalk finds rows and sets index varbinds (the iterator's
// callbacks). The table's own traits say which row a requested index names; the row's list of
// columns says what each column answers. answerRequests() joins them and sets errors.
//
// One thread. Rows are held by counted pointers: a row that is deleted while a request refers to it
// stays readable until that request is over.
#pragma once

#include "TunnelIntfSnmp/Column.h"
#include "TunnelIntfSnmp/Fetch.h"
#include "TunnelIntfSnmp/Printed.h"
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Lumo.h"
#include "platform/Snmp.h"
#include "platform/Zel.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace TunnelIntfSnmp {

inline auto const snmpDebugHandler = Lumo::Platform::getDebugHandler("Snmp", false);
/// The trace facility of the MIB handlers, "Snmp": 0 faults, 1 registered OIDs, 2 every step of a
/// request, 8 tables initialised.
inline Lumo::DebugHandler const & snmpTrace() {
  return *snmpDebugHandler;
}

// Registration

/// One MIB module's registrations, by context, in the order in which they were made. net-snmp frees
/// a registration when it is unregistered, but never the column info that the table was given.
struct MibModule {
  Zel::String name; ///< also the debug token
  std::map<Zel::String, std::list<netsnmp_handler_registration *>> handlerRegistrations{};
  std::map<Zel::String, std::list<netsnmp_column_info *>> columnInfos{};
};

struct MibIndex {
  char const * name;
  u_char asnType;
};

/// What is particular to one table's registration. All of it lives as long as the library.
struct MibTableRegistration {
  char const * table;
  std::span<oid const> rootOid;
  std::span<MibIndex const> indexes;
  std::span<unsigned int> columns; // not const: net-snmp's structure takes no pointer to const
  Netsnmp_Node_Handler * handler;
  Netsnmp_First_Data_Point * getFirstDataPoint;
  Netsnmp_Next_Data_Point * getNextDataPoint;
  Netsnmp_Make_Data_Context * makeDataContext;
  Netsnmp_Free_Data_Context * freeDataContext;
  Netsnmp_Free_Loop_Context * freeLoopContextAtEnd;
};

/// The numbers of a row's columns. They live as long as the library.
template <class Row>
std::span<unsigned int> columnNumbers() {
  static auto numbers = [] {
    std::vector<unsigned int> all;
    for (auto const & column : Row::columns())
      all.push_back(column.number);
    return all;
  }();
  return numbers;
}

/// Registers the table for the context and remembers what unregisterModule() needs. Only the
/// default context (empty) is served; for another nothing is registered. A missing or wrong entity
/// at "snmp/tunnelIntf/tunnelMib", and a registration that net-snmp refuses (a second one for the
/// same context, say), end the process.
void initializeTable(MibModule & module, MibTableRegistration const & table,
                     Zel::String const & context);
/// Takes back every registration of the context.
void unregisterModule(MibModule & module, Zel::String const & context);

// Finding rows

/// The index that a request names, as far as it could be parsed; null where nobody says.
using Hint = netsnmp_table_request_info const *;

/// The parts of a hint, read one by one in index order. Each part that cannot be used is traced.
class HintReader {
public:
  /// A null hint has no parts.
  HintReader(char const * table, Hint hint);

  /// The next part, or nothing when it is missing, has another type, or is out of range.
  std::optional<std::int32_t> integer(char const * index);
  std::optional<Snmp::Bytes> octets(char const * index);
  /// Parts that could be used so far.
  std::size_t found() const { return found_; }

private:
  netsnmp_variable_list const * next(char const * index, u_char asnType);
  template <class T>
  void use(char const * index, T const & value);

  char const * const table_;
  netsnmp_variable_list const * rest_;
  std::size_t found_ = 0;
};

/// The row key of a hint for a table that is indexed by ifIndex alone, or nothing.
std::optional<std::uint32_t> ifIndexOfHint(char const * table, Hint hint);

/// Sets the index varbinds of a row, one after the other in index order.
class IndexWriter {
public:
  IndexWriter(char const * table, netsnmp_variable_list * first) : table_(table), next_(first) {}

  /// As unsigned, also where the MIB's type is signed: a number beyond that type's range would turn
  /// negative, and a walk would go round for ever.
  IndexWriter & unsigned32(char const * name, std::uint32_t value);
  IndexWriter & octets(char const * name, Snmp::Bytes const & value);

private:
  template <class T>
  void trace(char const * name, T const & value) const;
  void set(u_char asnType, std::uint8_t const * buffer, int length);

  char const * const table_;
  netsnmp_variable_list * next_;
};

/// The iterator's callbacks for one table. `Table` says what is particular to it:
///
///   name, keyType              "tunnelIfTable", the type of its key, both for traces
///   rows(mib)                  the collection
///   key(row)                   the row's key in it
///   hintKey(hint)              the key that the hint names, or nothing; may raise RangeException
///   setIndexes(row, indexes)   sets the index varbinds, in order
///   record(row)                where the columns are read from besides the row, or null
template <class Table>
struct TableWalk {
  using Rows = std::remove_cvref_t<decltype(Table::rows(std::declval<TunnelMib const &>()))>;
  using Position = typename Rows::const_iterator;
  using Row = typename Rows::const_iterator::value_type::second_type;

  /// Loop context and data context alike: a place in the table and the row there, null at the end.
  struct Entry {
    Rows const & rows;
    Row row;
    Position position; // of the row, while the table's version is still this:
    std::uint32_t version;
  };

  /// On entry `*loopContext` is the hint. Always replaced: what net-snmp finds there when the walk
  /// is over goes to freeLoopContextAtEnd.
  static netsnmp_variable_list * getFirst(void ** loopContext, void **,
                                          netsnmp_variable_list * index,
                                          netsnmp_iterator_info * info);
  static netsnmp_variable_list * getNext(void ** loopContext, void ** dataContext,
                                         netsnmp_variable_list * index, netsnmp_iterator_info *);
  static void * makeDataContext(void * loopContext, netsnmp_iterator_info *);
  static void freeDataContext(void * dataContext, netsnmp_iterator_info *);
  static void freeLoopContextAtEnd(void * loopContext, netsnmp_iterator_info *);

private:
  static Row rowAt(Rows const & rows, Position position) {
    return position == rows.end() ? Row() : position->second;
  }
  static std::optional<Position> matching(Rows const & rows, Hint hint);
  static void fetchAhead(Entry const & entry);
  static netsnmp_variable_list * fill(Entry const & entry, netsnmp_variable_list * index);
};

// Answering

/// Puts the value that the row has for the column into the answer of the request. What cannot be
/// encoded is traced under the attribute's name and answered with false; the varbind is then
/// untouched. Requires: GET serves the column, and the row is one of its table.
bool putValue(char const * table, Column const & column, Zel::PtrInterface const & row,
              netsnmp_request_info & request);

/// The served column of that number, or null, which is traced.
Column const * servedColumnOf(char const * table, std::span<Column const> columns,
                              unsigned int number);
/// Traces and returns true when somebody else has answered the request already.
bool alreadyProcessed(char const * table, netsnmp_request_info const * request);
/// Refuses the first request that nobody has answered, in whatever phase of a SET.
int refuseSet(char const * table, std::span<Column const> columns, netsnmp_request_info * requests);

/// Answers GETs from the rows that the iterator found. Besides what TableWalk needs, `Table` has
/// `Row`, the type of its rows, which lists the table's columns.
template <class Table>
int answerGets(netsnmp_request_info * requests) {
  for (auto * request = requests; request != nullptr; request = request->next) {
    if (alreadyProcessed(Table::name, request))
      continue;
    auto const * entry = static_cast<typename TableWalk<Table>::Entry const *>(
        netsnmp_extract_iterator_context(request));
    if (entry == nullptr) {
      LUMO_TRACE(snmpTrace(), 2, "{}_handler: null data context in request", Table::name);
      return SNMP_ERR_NOERROR;
    }
    auto const number = netsnmp_extract_table_info(request)->colnum;
    auto const * column = servedColumnOf(Table::name, Table::Row::columns(), number);
    if (column == nullptr) {
      netsnmp_request_set_error(request, SNMP_NOSUCHOBJECT);
      return SNMP_ERR_NOERROR;
    }
    LUMO_TRACE(snmpTrace(), 2, "{}_handler: request GET for column {}, key {}", Table::name,
               column->name, printed(Table::key(*entry->row)));
    if (!putValue(Table::name, *column, *entry->row, *request)) {
      netsnmp_request_set_error(requests, SNMP_ERR_GENERR); // on the first one, whichever failed
      return SNMP_ERR_GENERR;
    }
  }
  return SNMP_ERR_NOERROR;
}

/// What a table's request handler does: answers GETs, refuses everything else.
template <class Table>
int answerRequests(netsnmp_agent_request_info const & agent, netsnmp_request_info * requests) {
  LUMO_TRACE(snmpTrace(), 2, "{}_handler", Table::name);
  LUMO_TRACE(snmpTrace(), 2, "{}_handler: request mode {}", Table::name, agent.mode);
  return agent.mode == MODE_GET ? answerGets<Table>(requests)
                                : refuseSet(Table::name, Table::Row::columns(), requests);
}

// The iterator's callbacks

template <class Table>
netsnmp_variable_list * TableWalk<Table>::getFirst(void ** loopContext, void **,
                                                   netsnmp_variable_list * index,
                                                   netsnmp_iterator_info * info) {
  auto const * hint = static_cast<Hint>(*loopContext);
  LUMO_TRACE(snmpTrace(), 2, "{}_get_first_data_point - *hint = {}, number_indexes = {}",
             Table::name, fmt::ptr(hint), hint == nullptr ? 0 : hint->number_indexes);
  auto const & rows = Table::rows(*static_cast<TunnelMib const *>(info->myvoid));
  auto const match = matching(rows, hint);
  auto const position = match.value_or(rows.begin());
  auto * entry = new Entry{rows, rowAt(rows, position), position, rows.version()};
  *loopContext = entry;
  LUMO_TRACE(snmpTrace(), 2,
             "{}_get_first_data_point - allocated new loop context {}, hintMatched={}", Table::name,
             fmt::ptr(entry), match.has_value());
  return fill(*entry, index);
}

template <class Table>
auto TableWalk<Table>::matching(Rows const & rows, Hint hint) -> std::optional<Position> {
  try {
    auto const key = Table::hintKey(hint);
    if (!key)
      return std::nullopt;
    if (auto const position = rows.find(*key); position != rows.end())
      return position;
    LUMO_TRACE(snmpTrace(), 2, "{}_get_first_data_point - key '{}' not found in table", Table::name,
               printed(*key));
  } catch (Zel::RangeException const & exception) {
    LUMO_TRACE(snmpTrace(), 0, "Bad hint for {}: {} ctor threw exception: {}", Table::name,
               Table::keyType, exception.what());
  }
  return std::nullopt;
}

template <class Table>
netsnmp_variable_list * TableWalk<Table>::fill(Entry const & entry, netsnmp_variable_list * index) {
  if (!entry.row) {
    LUMO_TRACE(snmpTrace(), 2, "{}IterationHelper - iterator is at end", Table::name);
    return nullptr;
  }
  Table::setIndexes(*entry.row, index);
  return index;
}

template <class Table>
netsnmp_variable_list * TableWalk<Table>::getNext(void ** loopContext, void ** dataContext,
                                                  netsnmp_variable_list * index,
                                                  netsnmp_iterator_info *) {
  auto * entry = static_cast<Entry *>(*loopContext);
  if (entry == nullptr || !entry->row) {
    LUMO_TRACE(snmpTrace(), 2, "{}_get_next_data_point - at end of loop context {}", Table::name,
               fmt::ptr(entry));
    return nullptr;
  }
  LUMO_TRACE(snmpTrace(), 2, "{}_get_next_data_point - advancing loop context {} ; data context {}",
             Table::name, fmt::ptr(entry), fmt::ptr(*dataContext));
  // Rows came or went since: the position may be gone, the key of its row is not.
  if (entry->version != entry->rows.version())
    entry->position = entry->rows.findNext(Table::key(*entry->row));
  else
    ++entry->position;
  entry->version = entry->rows.version();
  entry->row = rowAt(entry->rows, entry->position);
  fetchAhead(*entry);
  return fill(*entry, index);
}

// In a large table each row and its record are somewhere in memory that is far away. A walk goes on
// to the next ones: by then they are here.
template <class Table>
void TableWalk<Table>::fetchAhead(Entry const & entry) {
  auto ahead = entry.position;
  if (ahead == entry.rows.end() || ++ahead == entry.rows.end())
    return;
  fetch(Table::record(*ahead->second)); // of a row that was fetched one step ago
  if (++ahead != entry.rows.end())
    fetch(ahead->second.get());
}

template <class Table>
void * TableWalk<Table>::makeDataContext(void * loopContext, netsnmp_iterator_info *) {
  auto * entry = new Entry(*static_cast<Entry const *>(loopContext));
  LUMO_TRACE(snmpTrace(), 2, "{}_make_data_context - allocated data context {} for loop context {}",
             Table::name, fmt::ptr(entry), fmt::ptr(loopContext));
  return entry;
}

template <class Table>
void TableWalk<Table>::freeDataContext(void * dataContext, netsnmp_iterator_info *) {
  LUMO_TRACE(snmpTrace(), 2, "{}_free_data_context {}", Table::name, fmt::ptr(dataContext));
  delete static_cast<Entry *>(dataContext);
}

template <class Table>
void TableWalk<Table>::freeLoopContextAtEnd(void * loopContext, netsnmp_iterator_info *) {
  LUMO_TRACE(snmpTrace(), 2, "{}_free_loop_context_at_end {}", Table::name, fmt::ptr(loopContext));
  delete static_cast<Entry *>(loopContext);
}

} // namespace TunnelIntfSnmp
