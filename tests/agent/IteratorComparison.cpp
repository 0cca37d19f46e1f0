// The agent that is asked, with communities that see different parts of the tables, and the
// requests: as many names as there are ways to be beside a cell.
#include "tests/agent/IteratorComparison.h"
#include "agent/SnmpEngine.h"
#include "tests/support/TestLoop.h"
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <unistd.h>

using Wire::Command;
using Wire::Oid;
using Wire::Request;

namespace {

// The tables' numbers, and within them what a community does not see. A mask's zero bit leaves a
// sub-identifier open: that of the column.
constexpr char const * configuration = R"(
rocommunity public 127.0.0.1
rwcommunity write 127.0.0.1
rocommunity cell 127.0.0.1 -V cell
rocommunity row 127.0.0.1 -V row
rocommunity column 127.0.0.1 -V column
rocommunity range 127.0.0.1 -V range
rocommunity table 127.0.0.1 -V table
rocommunity only 127.0.0.1 -V only
view cell included .1
view cell excluded .1.3.6.1.4.1.32473.9.1.1.3.5
view cell excluded .1.3.6.1.2.1.10.131.1.1.1.1.4.7
view row included .1
view row excluded .1.3.6.1.4.1.32473.9.1.1.0.5 ff:d0
view row excluded .1.3.6.1.2.1.10.131.1.1.1.1.0.7 ff:f4
view column included .1
view column excluded .1.3.6.1.4.1.32473.9.1.1.3
view column excluded .1.3.6.1.2.1.10.131.1.1.1.1.6
view column excluded .1.3.6.1.2.1.10.131.1.1.3.1.7
view range included .1
view range excluded .1.3.6.1.4.1.32473.9.1.1.3.5
view range excluded .1.3.6.1.4.1.32473.9.1.1.3.6
view range excluded .1.3.6.1.4.1.32473.9.1.1.3.7
view range excluded .1.3.6.1.2.1.10.131.1.1.3.1.6.1
view table included .1
view table excluded .1.3.6.1.4.1.32473.9.1
view table excluded .1.3.6.1.2.1.10.131.1.1.1
view only included .1.3.6.1.4.1.32473.9.1.1.4
view only included .1.3.6.1.2.1.10.131.1.1.1.1.4
view only included .1.3.6.1.2.1.10.131.1.1.3.1.8
)";
// Whether the answers are alike is found out without a sanitizer, which looks at how they come
// about and takes a multiple of the time: of all names, and of random requests, it gets a share.
#ifdef SANITIZED
constexpr std::size_t share = 7;
#else
constexpr std::size_t share = 1;
#endif

std::vector<std::string> const communities{"public", "write", "cell",  "row",
                                           "column", "range", "table", "only"};

class TheAgent : public testing::Environment {
public:
  void SetUp() override {
    auto const file = testing::TempDir() + fmt::format("iterator-{}.conf", getpid());
    std::ofstream(file) << configuration;
    engine_.emplace(loop_, Agent::SnmpSettings{file, std::nullopt});
    std::remove(file.c_str());
    manager_.emplace(loop_, engine_->listen("udp:127.0.0.1:0"));
  }
  void TearDown() override {
    manager_.reset();
    engine_.reset();
  }
  std::string ask(Request const & request) { return manager_->ask(request); }

private:
  TestLoop loop_;
  std::optional<Agent::SnmpEngine> engine_;
  std::optional<Wire::Manager> manager_;
};
auto * const theAgent = static_cast<TheAgent *>(testing::AddGlobalTestEnvironment(new TheAgent));

Oid joined(Oid first, Oid const & rest) {
  first.insert(first.end(), rest.begin(), rest.end());
  return first;
}

/// The cell's name in parts, the name, and what comes just before and after it.
void addAround(Names & names, Oid const & column, Oid const & index) {
  for (std::size_t length = 1; length <= index.size(); ++length) {
    Oid const part(index.begin(), index.begin() + static_cast<std::ptrdiff_t>(length));
    names.push_back(joined(column, part));
    for (auto const last : {part.back() - 1, part.back() + 1, 0xFFFFFFFFul})
      if (last <= 0xFFFFFFFFul) {
        names.push_back(names.back());
        names.back().back() = last;
      }
  }
  for (auto const extra : {0ul, 1ul, 0xFFFFFFFFul})
    names.push_back(joined(column, joined(index, {extra})));
}

std::set<unsigned long> beside(std::vector<unsigned long> const & columns) {
  std::set<unsigned long> all;
  for (auto const column : columns)
    all.insert({column - 1, column, column + 1});
  return all;
}

void addSingles(std::vector<Request> & requests, Oid const & name, std::string const & community) {
  for (int const version : {0, 1}) {
    requests.push_back({Command::get, {name}, 0, 0, "public", version});
    requests.push_back({Command::getNext, {name}, 0, 0, "public", version});
    requests.push_back({Command::set, {name}, 0, 0, "write", version});
  }
  for (auto const command : {Command::get, Command::getNext, Command::getBulk})
    requests.push_back({command, {name}, 0, command == Command::getBulk ? 20 : 0, community});
}

void addBulks(std::vector<Request> & requests, Names const & names) {
  for (long const nonRepeaters : {0, 1, 2, 3})
    for (long const repetitions : {0, 1, 2, 3, 10, 50, 100, 1000})
      requests.push_back({Command::getBulk, names, nonRepeaters, repetitions});
}

bool seesEverything(std::string const & community) {
  return community == "public" || community == "write";
}

std::string hex(std::string const & bytes) {
  std::string text;
  for (unsigned char const byte : bytes)
    text += fmt::format("{:02x}", byte);
  return text;
}

} // namespace

std::string ask(Request const & request) {
  return theAgent->ask(request);
}

Names namesAround(Oid const & root, std::vector<unsigned long> const & columns,
                  std::vector<Oid> const & indexes) {
  Names names{root, joined(root, {0}), joined(root, {0, 3}), joined(root, {1}),
              joined(root, {2, 3, 5})};
  names.emplace_back(root.begin(), root.end() - 1);
  for (auto const column : beside(columns)) {
    auto const name = joined(root, {1, column});
    names.push_back(name);
    for (auto const & index : indexes)
      addAround(names, name, index);
  }
  names.push_back(joined(root, {1, 0xFFFFFFFFul, 3}));
  return names;
}

std::vector<Request> everyRequest(Names const & names) {
  constexpr std::size_t bulkStride = 29; // no multiple of anything that names come in
  std::vector<Request> requests;
  for (std::size_t place = 0; place < names.size(); place += share) {
    auto const at = names.begin() + static_cast<std::ptrdiff_t>(place);
    addSingles(requests, *at, communities[place % communities.size()]);
    auto const left = std::min<std::ptrdiff_t>(4, names.end() - at);
    for (auto const command : {Command::get, Command::getNext, Command::set})
      requests.push_back({command, Names(at, at + left), 0, 0, "write", 1});
    if (place / share % bulkStride == 0)
      for (std::ptrdiff_t count = 1; count <= left; ++count)
        addBulks(requests, Names(at, at + count));
  }
  return requests;
}

std::vector<Request> randomRequests(Names const & names, std::size_t count, std::mt19937 & random) {
  auto const below = [&](std::size_t limit) { return random() % limit; };
  constexpr Command commands[] = {Command::get, Command::getNext, Command::getBulk,
                                  Command::getBulk, Command::set};
  std::vector<Request> requests(count / share);
  for (auto & request : requests) {
    request.command = commands[below(std::size(commands))];
    for (auto left = below(4) + 1; left != 0; --left)
      request.names.push_back(names[below(names.size())]);
    request.version = request.command == Command::getBulk ? 1 : static_cast<int>(below(2));
    if (request.command == Command::getBulk) {
      request.nonRepeaters = static_cast<long>(below(4));
      request.repetitions = static_cast<long>(below(5) == 0 ? below(1000) : below(20));
    }
    request.community = communities[below(2) == 0 ? 0 : below(communities.size())];
    // To several names at once net-snmp gives garbled answers, or none for ever, where it may not
    // show a part of what they lead to.
    if (request.command == Command::getBulk && !seesEverything(request.community))
      request.names.resize(1);
  }
  return requests;
}

std::vector<std::string> answers(std::vector<Request> const & requests) {
  std::vector<std::string> all;
  for (auto const & request : requests)
    all.push_back(ask(request));
  return all;
}

void expectAnswers(std::vector<std::string> const & expected,
                   std::vector<Request> const & requests) {
  auto const now = answers(requests);
  int shown = 0;
  for (std::size_t at = 0; at != requests.size() && shown != 3; ++at)
    if (now[at] != expected[at]) {
      ++shown;
      ADD_FAILURE() << requests[at] << "\n  expected " << hex(expected[at]) << "\n  answered "
                    << hex(now[at]);
    }
}
