// The daemon's own table iterator: it serves what modules register with net-snmp's, through the
// same callbacks and the same request handler, and gives the same answers at a fraction of the
// cost.
//
// net-snmp's iterator makes and frees, for each varbind, copies of every index varbind, two records
// of a kilobyte and a list of names; a GETBULK begins anew with every repetition; and a GET of a
// row that does not exist visits every row. This one stands on top of a registration's handlers. It
// finds a row by its index, keeps its place between the repetitions of a GETBULK, and makes nothing
// on the heap but what the module makes.
//
// What a module must keep to, beyond what net-snmp asks of it:
// - rows ascend in the order of their indexes as OIDs (NETSNMP_ITERATOR_FLAG_SORTED);
// - get_first_data_point, told a complete index by the hint in the loop context's place, starts at
//   that row when it exists. So a first row with another index says that there is none;
// - data contexts come from make_data_context alone, and are done with when the handler returns.
//
// What stays with net-snmp's handlers beneath: SET; names that are no column and no complete index
// of the table; cells that the module fails at or that another registration within the table hides.
// They also get each repetition of a GETBULK singly, as this iterator does, when the manager may
// see a part of the table only: the agent then checks one answer at a time.
#pragma once

#include <cstddef>

namespace Agent {

/// Takes over every registration in net-snmp's tree that consists of net-snmp's table iterator and
/// a serialize handler on top of it, is sorted, has loop contexts that live to the end, and has
/// indexes of no fixed length. Those that are taken over already, and all others, stay as they are.
/// It is undone when the module unregisters. Returns how many were taken over.
std::size_t installHostIterator();

} // namespace Agent
