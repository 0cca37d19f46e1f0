// Moves through a table, row by row and column by column. In each column the walk begins anew in
// the module: its loop context goes at the end of a column.
#include "agent/iterator/Cursor.h"
#include <algorithm>

namespace Agent::TableIterator {

Cursor::Cursor(Table const & table, SubIds root, netsnmp_table_request_info & request)
    : table_(table),
      request_(request),
      prefixLength_(root.size() + 2) {
  auto * end = std::ranges::copy(root, name_.data()).out;
  *end++ = entryNumber;
  *end = request.colnum;
  firstRow(&request);
}

void Cursor::nextRow() {
  void * dataContext = nullptr;
  arriveAt(table_.info->get_next_data_point(&loop_, &dataContext, row_, table_.info));
  if (atEnd())
    nextColumn();
}

void Cursor::nextColumn() {
  leaveRows();
  row_ = nullptr;
  auto const column = netsnmp_table_next_column(&request_);
  if (column == 0)
    return;
  request_.colnum = column;
  name_[prefixLength_ - 1] = column;
  firstRow(nullptr);
}

void Cursor::firstRow(void * hint) {
  loop_ = hint;
  void * dataContext = nullptr;
  auto * row =
      table_.info->get_first_data_point(&loop_, &dataContext, table_.row.emptied(), table_.info);
  if (loop_ == hint)
    loop_ = nullptr; // the module left it there: it is nothing of the module's to free
  arriveAt(row);
}

void Cursor::leaveRows() {
  if (loop_ != nullptr)
    table_.info->free_loop_context_at_end(loop_, table_.info);
  loop_ = nullptr;
}

void Cursor::arriveAt(netsnmp_variable_list * row) {
  row_ = row;
  if (row != nullptr)
    indexLength_ = encode(row, std::span(name_).subspan(prefixLength_));
}

} // namespace Agent::TableIterator
