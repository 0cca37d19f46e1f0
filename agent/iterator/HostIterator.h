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
// What stays with net-snmp's handlers beneath: SET of a row that exists; every name that is neither
// a column nor a complete index of the table; the step that leads out of the table; a row whose
// index is too long for a name; a cell without an instance where the last answer should be; and all
// that the module fails at or leaves unanswered: then the answers so far are taken back, so that of
// several failures the agent reports the same one. Where the agent may refuse answers because the
// manager sees a part of the MIB only, repetitions are given singly; but not to a GETBULK of one
// name if the table is in view.
//
// One answer differs: net-snmp's iterator takes an empty octet string in a row's index for any that
// the request has in its place, and so finds rows that do not exist. This one does not. How a
// GETBULK runs through the files of this folder stands at the top of HostIterator.cpp.
#pragma once

#include <cstddef>
#include <functional>

struct netsnmp_agent_request_info_s;
struct netsnmp_handler_registration_s;
struct netsnmp_request_info_s;

namespace Agent {

/// Takes over every registration in net-snmp's tree that consists of net-snmp's table iterator and
/// a serialize handler on top of it, is sorted, has loop contexts that live to the end, and has
/// indexes of no fixed length. Those that are taken over already, and all others, stay as they are.
/// It is undone when the module unregisters. Returns how many were taken over.
///
/// With `isOurs` only those whose callbacks, by the address of get_first_data_point, it says yes
/// to: where other modules are that stay registered when this code has been unloaded.
std::size_t installHostIterator(std::function<bool(void const * callback)> const & isOurs =
                                    [](void const *) { return true; });

/// Has a registration answer one request, a GET or a GETNEXT, without net-snmp's handlers beneath.
/// False when it was not taken over, or the answer is theirs to give; the varbind may have changed
/// then, and nothing else.
bool answerAlone(netsnmp_handler_registration_s & registration,
                 netsnmp_agent_request_info_s & agent, netsnmp_request_info_s & request);

} // namespace Agent
