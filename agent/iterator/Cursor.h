// A place in a module's table, moved by the module's own callbacks.
//
// The callbacks know rows only: a loop context, which get_first_data_point makes and
// get_next_data_point moves on, stands for a row. A walk sees cells, column by column. The cursor
// knows the column as well and leads from the last row of one column to the first row of the next.
//
// Between two moves the module's handler runs, and rows may come and go: of a row the cursor keeps
// its index only, and leaves it to the module and its loop context to find the next one.
#pragma once

#include "agent/iterator/Codec.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <array>
#include <cstddef>

namespace Agent::TableIterator {

inline constexpr oid entryNumber = 1; ///< the last part of an entry's OID, below its table's

/// What a handler of ours keeps from call to call, one for each registration.
struct Table {
  explicit Table(netsnmp_iterator_info * iterator)
      : info(iterator),
        asked(iterator->table_reginfo->indexes),
        row(iterator->table_reginfo->indexes) {}

  netsnmp_iterator_info * const info; ///< of net-snmp's iterator in the same registration
  IndexVarbinds const asked;          ///< the index that a request names
  IndexVarbinds const row;            ///< that of the row where a cursor stands
};

/// A place in the table: a column, and a row that the module's callbacks found.
class Cursor {
public:
  /// Starts in the request's column, where the module starts when the request is its hint.
  Cursor(Table const & table, SubIds root, netsnmp_table_request_info & request);
  Cursor(Cursor const &) = delete;
  Cursor & operator=(Cursor const &) = delete;
  ~Cursor() { leaveRows(); }

  bool atEnd() const { return row_ == nullptr; }
  oid column() const { return name_[prefixLength_ - 1]; }
  /// The cell's name, and the row's index in it. Requires: not at the end.
  SubIds name() const { return {name_.data(), prefixLength_ + indexLength_}; }
  SubIds index() const { return name().subspan(prefixLength_); }
  netsnmp_variable_list * indexVarbinds() const { return row_; }
  void * makeDataContext() const { return table_.info->make_data_context(loop_, table_.info); }

  /// The next row or, after the last one, the first row of the next column. The request's column
  /// follows. Requires for nextRow(): the rows were not left.
  void nextRow();
  void nextColumn();
  /// Gives the loop context back. The name, the index and its varbinds stay.
  void leaveRows();

private:
  void firstRow(void * hint);
  void arriveAt(netsnmp_variable_list * row);

  Table const & table_;
  netsnmp_table_request_info & request_;
  std::size_t const prefixLength_; // of the root, the entry and the column
  std::size_t indexLength_ = 0;
  void * loop_ = nullptr;
  netsnmp_variable_list * row_ = nullptr;
  std::array<oid, MAX_OID_LEN> name_;
};

} // namespace Agent::TableIterator
