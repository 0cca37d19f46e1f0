// Walks through a table's rows for net-snmp's table iterator: the callbacks that find a row and set
// its index varbinds.
//
// A walk starts at the row that the hint names, if there is that very row, else at the first one.
// From there it goes on in key order. Between two steps rows may come and go, since a machine may
// run or a listener of a trace may write: the walk notices it by the table's version and goes on
// behind the key of the row that it was at.
//
// One thread. Rows are held by counted pointers: a row that is deleted while a request refers to it
// stays readable until that request is over.
#pragma once

#include "TunnelIntfSnmp/MibIndex.h"
#include "TunnelIntfSnmp/Prefetch.h"
#include "TunnelIntfSnmp/Printed.h"
#include "TunnelIntfSnmp/SnmpTrace.h"
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "platform/Lumo.h"
#include "platform/Zel.h"
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

namespace TunnelIntfSnmp {

/// The iterator's callbacks for one table, each under the end of the name that its traces give it:
/// `tunnelIfTable_get_first_data_point`, say. What `Table` has to have stands in MibTable.h.
template <class Table>
struct MibWalk {
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
  /// is over goes to free_loop_context_at_end.
  static netsnmp_variable_list * get_first_data_point(void ** loopContext, void **,
                                                      netsnmp_variable_list * index,
                                                      netsnmp_iterator_info * info);
  static netsnmp_variable_list * get_next_data_point(void ** loopContext, void ** dataContext,
                                                     netsnmp_variable_list * index,
                                                     netsnmp_iterator_info *);
  static void * make_data_context(void * loopContext, netsnmp_iterator_info *);
  static void free_data_context(void * dataContext, netsnmp_iterator_info *);
  static void free_loop_context_at_end(void * loopContext, netsnmp_iterator_info *);

private:
  static Row rowAt(Rows const & rows, Position position) {
    return position == rows.end() ? Row() : position->second;
  }
  static std::optional<Position> matching(Rows const & rows, Hint hint);
  static void prefetchAhead(Entry const & entry);
  static netsnmp_variable_list * iterationHelper(Entry const & entry,
                                                 netsnmp_variable_list * index);
};

template <class Table>
netsnmp_variable_list * MibWalk<Table>::get_first_data_point(void ** loopContext, void **,
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
  return iterationHelper(*entry, index);
}

template <class Table>
auto MibWalk<Table>::matching(Rows const & rows, Hint hint) -> std::optional<Position> {
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
netsnmp_variable_list * MibWalk<Table>::iterationHelper(Entry const & entry,
                                                        netsnmp_variable_list * index) {
  if (!entry.row) {
    LUMO_TRACE(snmpTrace(), 2, "{}IterationHelper - iterator is at end", Table::name);
    return nullptr;
  }
  Table::setIndexes(*entry.row, index);
  return index;
}

template <class Table>
netsnmp_variable_list *
MibWalk<Table>::get_next_data_point(void ** loopContext, void ** dataContext,
                                    netsnmp_variable_list * index, netsnmp_iterator_info *) {
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
  prefetchAhead(*entry);
  return iterationHelper(*entry, index);
}

// In a large table each row and its record are somewhere in memory that is far away. A walk goes on
// to the next ones: by then they are here.
template <class Table>
void MibWalk<Table>::prefetchAhead(Entry const & entry) {
  auto ahead = entry.position;
  if (ahead == entry.rows.end() || ++ahead == entry.rows.end())
    return;
  prefetch(Table::record(*ahead->second)); // of a row that was fetched one step ago
  if (++ahead != entry.rows.end())
    prefetch(ahead->second.get());
}

template <class Table>
void * MibWalk<Table>::make_data_context(void * loopContext, netsnmp_iterator_info *) {
  auto * entry = new Entry(*static_cast<Entry const *>(loopContext));
  LUMO_TRACE(snmpTrace(), 2, "{}_make_data_context - allocated data context {} for loop context {}",
             Table::name, fmt::ptr(entry), fmt::ptr(loopContext));
  return entry;
}

template <class Table>
void MibWalk<Table>::free_data_context(void * dataContext, netsnmp_iterator_info *) {
  LUMO_TRACE(snmpTrace(), 2, "{}_free_data_context {}", Table::name, fmt::ptr(dataContext));
  delete static_cast<Entry *>(dataContext);
}

template <class Table>
void MibWalk<Table>::free_loop_context_at_end(void * loopContext, netsnmp_iterator_info *) {
  LUMO_TRACE(snmpTrace(), 2, "{}_free_loop_context_at_end {}", Table::name, fmt::ptr(loopContext));
  delete static_cast<Entry *>(loopContext);
}

} // namespace TunnelIntfSnmp
