// Ways to serve the tunnels' tables with net-snmp alone, to measure the plug-in against. They
// answer the same instances with the same values; only how a row is found differs.
#pragma once

#include "bench/Tunnels.h"
#include <cstdint>

namespace Bench {

// Each registers the table with `rows` rows until the process ends; one call in a process. Raises
// std::runtime_error when net-snmp refuses.

/// A bare handler that computes which row comes next; it is called once for each repetition of a
/// GETBULK or, if `wholeBulk`, answers all repetitions in one call.
void serveByArithmetic(Table const & table, std::uint32_t rows, bool wholeBulk);
/// net-snmp's container_table over its sorted array.
void serveFromContainer(Table const & table, std::uint32_t rows);
/// net-snmp's table iterator over a sorted array, which it is given the place in by the hint.
void serveFromIterator(Table const & table, std::uint32_t rows);
/// net-snmp's tdata.
void serveFromTdata(Table const & table, std::uint32_t rows);

} // namespace Bench
