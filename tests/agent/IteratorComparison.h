// Answers of net-snmp in this process, recorded and compared bit by bit: what two iterators that
// are to behave alike are asked, one after the other.
#pragma once

#include "tests/agent/Wire.h"
#include <cstddef>
#include <random>
#include <string>
#include <vector>

/// Asks the process's one stand-alone agent. Its communities: "public" and "write" see all, and the
/// latter may set; "cell", "row", "column", "range" and "table" do not see one of these of the
/// tables that the tests use, and "only" sees nothing but a column of each.
std::string ask(Wire::Request const & request);

using Names = std::vector<Wire::Oid>;

/// Names in a table and around it: the table and its entry, the columns with those beside them, and
/// for each index the instance, its neighbours, every part of its name, and more than its name.
Names namesAround(Wire::Oid const & root, std::vector<unsigned long> const & columns,
                  std::vector<Wire::Oid> const & indexes);

/// Each name by each command, in each version and by one of the communities in turn, alone and with
/// the names that follow it; for some, GETBULKs with every mix of small and large numbers.
std::vector<Wire::Request> everyRequest(Names const & names);
/// Requests of every kind for one to four of the names.
std::vector<Wire::Request> randomRequests(Names const & names, std::size_t count,
                                          std::mt19937 & random);

std::vector<std::string> answers(std::vector<Wire::Request> const & requests);
/// Asks again and expects the same answers; shows the first few that differ.
void expectAnswers(std::vector<std::string> const & expected,
                   std::vector<Wire::Request> const & requests);
