// The daemon's iterator over a table of the test's own, which misbehaves in every way that a module
// may. TEST_SEED repeats a random run.
#include "agent/iterator/HostIterator.h"
#include "tests/agent/IteratorComparison.h"
#include "tests/agent/ToyTable.h"
#include "tests/support/TestScheduler.h"
#include <gmock/gmock.h>
#include <optional>

namespace {

using testing::HasSubstr;
using testing::Not;
using Wire::Oid;
using Wire::Request;

/// One case: a table, and the indexes to ask about.
struct Case {
  char const * name;
  ToyShape shape;
  std::vector<Oid> indexes;
};
void PrintTo(Case const & one, std::ostream * out) {
  *out << one.name;
}

ToyShape withRows(std::set<Oid> rows) {
  ToyShape shape;
  shape.rows = std::move(rows);
  return shape;
}

ToyShape withCells(std::function<Cell(unsigned int, Oid const &)> cell) {
  auto shape = withRows({{1}, {3}, {5}, {6}, {7}, {9}, {4294967295}});
  shape.cell = std::move(cell);
  return shape;
}

/// The cell of the column and the row misbehaves, the others have values.
ToyShape withOne(Cell kind, unsigned int column, unsigned long row) {
  return withCells([=](unsigned int c, Oid const & index) {
    return c == column && index[0] == row ? kind : Cell::value;
  });
}

/// The whole column misbehaves.
ToyShape withColumn(Cell kind, unsigned int column) {
  return withCells([=](unsigned int c, Oid const &) { return c == column ? kind : Cell::value; });
}

ToyShape mixed(std::vector<unsigned char> types, std::set<Oid> rows) {
  auto shape = withRows(std::move(rows));
  shape.indexTypes = std::move(types);
  return shape;
}

ToyShape withManyRows() {
  ToyShape shape;
  for (unsigned long row = 1; row <= 300; ++row)
    shape.rows.insert({row * 2});
  return shape;
}

ToyShape withColumns(std::vector<unsigned int> columns, ColumnsAre columnsAre) {
  auto shape = withRows({{3}, {5}});
  shape.columns = std::move(columns);
  shape.columnsAre = columnsAre;
  return shape;
}

std::vector<Oid> const simple{{0}, {1}, {3}, {4}, {5}, {7}, {9}, {10}};

Oid longString(oid length, oid number) {
  Oid index(1 + length, 65);
  index.front() = length;
  index.push_back(number);
  return index;
}

std::vector<Case> cases() {
  std::vector<Case> all{
      {"Empty", withRows({}), simple},
      {"OneRow", withRows({{5}}), simple},
      {"TwoRows", withRows({{3}, {5}}), simple},
      {"SomeRows", withCells([](unsigned int, Oid const &) { return Cell::value; }), simple},
      {"ManyRows", withManyRows(), {{2}, {5}, {590}, {600}}},
      {"GapsInColumns", withColumns({2, 3, 5, 9}, ColumnsAre::listed), simple},
      {"RangesOfColumns", withColumns({2, 3, 5, 9}, ColumnsAre::inRanges), simple},
      {"AnyColumn", withColumns({2, 3, 4}, ColumnsAre::unlisted), simple},
      {"OctetIndexes",
       mixed({ASN_INTEGER, ASN_OCTET_STR, ASN_PRIV_IMPLIED_OCTET_STR},
             {{5, 1, 0, 65}, {5, 2, 1, 255, 66, 66}, {5, 2, 2, 0, 66}, {7, 1, 9, 9, 9}}),
       {{5, 2, 1, 255, 66, 66}, {5, 2, 1, 256, 66}, {7, 1, 9, 9, 9}, {6, 0, 1}}},
      {"SeveralStrings",
       mixed({ASN_OCTET_STR, ASN_OCTET_STR, ASN_INTEGER},
             {{1, 10, 1, 65, 3}, {1, 10, 2, 65, 66, 3}, {2, 10, 11, 1, 255, 4294967295}}),
       {{1, 10, 1, 65, 3},
        {1, 266, 1, 65, 3},
        {1, 10, 1, 65, 3, 9},
        {1, 10, 4294967295, 65, 3},
        {2, 10, 11, 1, 255, 4294967295},
        {1, 10, 0, 3},
        {0, 0, 0},
        {1, 10, 2, 65, 256, 3}}},
      {"LongStrings",
       mixed({ASN_OCTET_STR, ASN_INTEGER}, {longString(39, 7),
                                            longString(40, 7),
                                            longString(60, 7),
                                            longString(100, 1),
                                            {1, 65, 2},
                                            {0, 5}}),
       {longString(39, 7),
        longString(40, 7),
        longString(60, 7),
        {1, 65, 2},
        longString(100, 1),
        {1, 66, 0},
        longString(99, 1)}},
      {"ObjectIndexes",
       mixed({ASN_OBJECT_ID, ASN_IPADDRESS, ASN_UNSIGNED},
             {{2, 1, 3, 10, 0, 0, 1, 7}, {3, 1, 3, 6, 10, 0, 0, 1, 7}}),
       {{2, 1, 3, 10, 0, 0, 1, 7}, {3, 1, 3, 6, 10, 0, 0, 1, 8}, {2, 1, 3, 10, 0, 0, 300, 7}}},
  };
  for (auto const & [name, kind] : {std::pair{"NoSuchObject", Cell::noSuchObject},
                                    {"NoSuchInstance", Cell::noSuchInstance},
                                    {"EndOfMibView", Cell::endOfMibView},
                                    {"Unanswered", Cell::unanswered},
                                    {"Failure", Cell::failure},
                                    {"SilentFailure", Cell::silentFailure}}) {
    all.push_back({name, withOne(kind, 3, 5), simple});
    all.push_back({name, withOne(kind, 4, 4294967295), simple});
    all.push_back({name, withOne(kind, 2, 1), simple});
    for (auto const column : {2u, 3u, 4u})
      all.push_back({name, withColumn(kind, column), simple});
  }
  return all;
}

class HostIterator : public testing::TestWithParam<Case> {};
INSTANTIATE_TEST_SUITE_P(Tables, HostIterator, testing::ValuesIn(cases()), [](auto const & one) {
  return one.param.name + std::to_string(one.index);
});

std::vector<unsigned long> numbers(std::vector<unsigned int> const & columns) {
  return {columns.begin(), columns.end()};
}

TEST_P(HostIterator, AnswersWhatTheStockIteratorAnswers) {
  auto const & shape = GetParam().shape;
  ToyTable toy(shape);
  auto const requests =
      everyRequest(namesAround(shape.root, numbers(shape.columns), GetParam().indexes));
  auto const expected = answers(requests);
  ASSERT_EQ(1u, Agent::installHostIterator());
  expectAnswers(expected, requests);
  EXPECT_EQ(0, toy.contexts());
}

// What stands above the iterator, or in its table

/// Asks both iterators over tables of their own, to which `prepare` has done something.
void expectEqual(ToyShape const & shape, std::vector<Request> const & requests,
                 std::function<void(ToyTable &)> const & prepare) {
  std::vector<std::string> expected;
  {
    ToyTable stock(shape);
    prepare(stock);
    expected = answers(requests);
  }
  ToyTable host(shape);
  EXPECT_EQ(1u, Agent::installHostIterator());
  prepare(host);
  expectAnswers(expected, requests);
  EXPECT_EQ(0, host.contexts());
}

void putOnTop(ToyTable & toy, Netsnmp_Node_Handler * handler) {
  netsnmp_inject_handler(toy.registration(), netsnmp_create_handler("test", handler));
}

int wantInclusive(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
                  netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
  for (auto * request = requests; request != nullptr; request = request->next)
    request->inclusive = 1;
  return netsnmp_call_next_handler(self, registration, agent, requests);
}

int answerSome(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
               netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
  for (auto * request = requests; request != nullptr; request = request->next)
    if (agent->mode == MODE_GET && request->requestvb->name_length % 2 == 0) {
      snmp_set_var_typed_integer(request->requestvb, ASN_INTEGER, 7);
      request->processed = 1;
    }
  return netsnmp_call_next_handler(self, registration, agent, requests);
}

TEST(HostIteratorBeneathOthers, AnswersInclusiveRequestsAlike) {
  auto const shape = withRows({{3}, {5}, {7}});
  auto const requests = everyRequest(namesAround(shape.root, {2, 3, 4}, {{3}, {4}, {5}, {7}}));
  // A GETBULK would come back to the same row for ever: an agent asks so for one row only.
  std::vector<Request> single;
  for (auto const & request : requests)
    if (request.command == Wire::Command::getNext && request.community == "public")
      single.push_back(request);
  expectEqual(shape, single, [](ToyTable & toy) { putOnTop(toy, wantInclusive); });
}

TEST(HostIteratorBeneathOthers, LeavesAnsweredRequestsAlone) {
  auto const shape = withRows({{3}, {5}});
  expectEqual(shape, everyRequest(namesAround(shape.root, {2, 3}, {{3}, {4}, {5}})),
              [](ToyTable & toy) { putOnTop(toy, answerSome); });
}

/// Registered inside another's table, which net-snmp then splits.
class Intruder {
public:
  explicit Intruder(Oid const & place)
      : registration_(netsnmp_create_handler_registration("intruder", answer, place.data(),
                                                          place.size(), HANDLER_CAN_RONLY)) {
    netsnmp_register_handler(registration_);
  }
  Intruder(Intruder const &) = delete;
  Intruder & operator=(Intruder const &) = delete;
  ~Intruder() { netsnmp_unregister_handler(registration_); }

private:
  /// One instance, ".9" below the place.
  static int answer(netsnmp_mib_handler *, netsnmp_handler_registration * registration,
                    netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
    Oid name(registration->rootoid, registration->rootoid + registration->rootoid_len);
    name.push_back(9);
    for (auto * request = requests; request != nullptr; request = request->next) {
      auto & varbind = *request->requestvb;
      auto const order =
          snmp_oid_compare(varbind.name, varbind.name_length, name.data(), name.size());
      if (agent->mode == MODE_GET ? order != 0 : order > 0 || (order == 0 && !request->inclusive))
        continue;
      snmp_set_var_objid(&varbind, name.data(), name.size());
      snmp_set_var_typed_integer(&varbind, ASN_INTEGER, 99);
    }
    return SNMP_ERR_NOERROR;
  }

  netsnmp_handler_registration * const registration_;
};

class IntrudedTable : public testing::TestWithParam<Oid> {
protected:
  ToyShape shape_ = withCells([](unsigned int column, Oid const & index) {
    return column == 3 && index[0] == 6 ? Cell::noSuchInstance : Cell::value;
  });
  std::vector<Request> requests_ =
      everyRequest(namesAround(shape_.root, {2, 3, 4}, {{3}, {4}, {5}, {7}, {9}}));
  Oid place() const {
    auto all = shape_.root;
    all.insert(all.end(), GetParam().begin(), GetParam().end());
    return all;
  }
};
INSTANTIATE_TEST_SUITE_P(Places, IntrudedTable,
                         testing::Values(Oid{1}, Oid{1, 2}, Oid{1, 3}, Oid{1, 3, 5}, Oid{1, 4, 7},
                                         Oid{1, 4}, Oid{1, 9}, Oid{2}));

// One name at a time: in which order net-snmp takes several of them, once a table is cut, depends
// on the registrations that were there before.
TEST_P(IntrudedTable, IsServedAlikeWhenItWasTakenOverFirst) {
  std::erase_if(requests_, [](Request const & request) { return request.names.size() > 1; });
  std::vector<std::string> expected;
  {
    ToyTable const stock(shape_);
    Intruder const intruder(place());
    expected = answers(requests_);
  }
  ToyTable const host(shape_);
  EXPECT_EQ(1u, Agent::installHostIterator());
  Intruder const intruder(place());
  expectAnswers(expected, requests_);
  EXPECT_EQ(0, host.contexts());
}

TEST_P(IntrudedTable, IsServedAlikeWhenItIsTakenOverInParts) {
  ToyTable toy(shape_);
  Intruder const intruder(place());
  auto const expected = answers(requests_);
  EXPECT_LE(1u, Agent::installHostIterator());
  EXPECT_EQ(0u, Agent::installHostIterator());
  expectAnswers(expected, requests_);
  EXPECT_EQ(0, toy.contexts());
}

// What it takes over, and what becomes of it

TEST(HostIteratorInstallation, TakesOverOnce) {
  ToyTable const toy(withRows({{3}}));
  EXPECT_EQ(1u, Agent::installHostIterator());
  EXPECT_EQ(0u, Agent::installHostIterator());
}

TEST(HostIteratorInstallation, LeavesWhatItWouldNotServeAlike) {
  ToyShape unserialized;
  unserialized.serialized = false;
  ToyShape unsorted;
  unsorted.root.back() = 2;
  unsorted.iteratorFlags = 0;
  ToyShape fixed;
  fixed.root.back() = 3;
  fixed.indexTypes = {ASN_OCTET_STR};
  fixed.indexLength = 4;
  ToyTable const tables[]{ToyTable(unserialized), ToyTable(unsorted), ToyTable(fixed)};
  EXPECT_EQ(0u, Agent::installHostIterator());
}

TEST(HostIteratorInstallation, LeavesNothingBehindWhenTheModuleGoes) {
  Request const request{Wire::Command::getNext, {ToyShape().root}};
  auto const without = ask(request);
  for (int round = 0; round != 3; ++round) {
    {
      ToyTable const toy(withRows({{3}}));
      EXPECT_EQ(1u, Agent::installHostIterator());
      EXPECT_NE(without, ask(request));
    }
    EXPECT_EQ(without, ask(request));
  }
  EXPECT_EQ(0u, Agent::installHostIterator());
}

// What it costs

/// Asks a table of 300 rows, 2 to 600, once. Returns the calls of the module: each callback that
/// finds a row, and each cell that is asked for.
int callsFor(Request const & request) {
  ToyTable toy(withManyRows());
  Agent::installHostIterator();
  EXPECT_NE("", ask(request));
  return toy.callsSinceAsked();
}

Oid cell(unsigned long column, unsigned long row) {
  auto name = ToyShape().root;
  name.insert(name.end(), {1, column, row});
  return name;
}

TEST(HostIteratorCost, OfAnExistingRowIsOneStep) {
  EXPECT_EQ(2, callsFor({Wire::Command::get, {cell(3, 500)}}));
  EXPECT_EQ(3, callsFor({Wire::Command::getNext, {cell(3, 500)}}));
}

TEST(HostIteratorCost, OfAMissingRowIsOneStep) {
  EXPECT_EQ(1, callsFor({Wire::Command::get, {cell(3, 501)}}));
}

TEST(HostIteratorCost, OfASetOfMissingRowsIsOneStepEach) {
  Request request{Wire::Command::set, {}};
  request.community = "write";
  for (unsigned long row = 101; row != 301; row += 2)
    request.names.push_back(cell(3, row));
  EXPECT_EQ(100, callsFor(request));
}

// A SET has several phases, and what was found in the first is there in the others.
TEST(HostIteratorSets, ShowTheModuleInEachPhaseWhatNetSnmpsIteratorShows) {
  Request request{Wire::Command::set, {cell(3, 500), cell(2, 501), cell(4, 502), cell(3, 1)}};
  request.community = "write";
  for (auto const writable : {false, true}) {
    auto shape = withManyRows();
    shape.writable = writable;
    ToyTable toy(shape);
    auto const stockAnswer = ask(request);
    auto const stock = toy.sets();
    EXPECT_THAT(stock, testing::SizeIs(testing::Ge(8u)));
    ASSERT_EQ(1u, Agent::installHostIterator());
    EXPECT_EQ(stockAnswer, ask(request));
    auto const both = toy.sets();
    EXPECT_EQ(stock,
              std::vector(both.begin() + static_cast<std::ptrdiff_t>(stock.size()), both.end()));
    EXPECT_EQ(0, toy.contexts());
  }
}

TEST(HostIteratorCost, OfRepetitionsIsOneStepEach) {
  EXPECT_EQ(1 + 50 * 2, callsFor({Wire::Command::getBulk, {cell(3, 200)}, 0, 50}));
}

TEST(HostIteratorCost, OfSeveralNamesIsThatOfEach) {
  EXPECT_EQ(2 * (1 + 20 * 2),
            callsFor({Wire::Command::getBulk, {cell(2, 100), cell(3, 200)}, 0, 20}));
}

// Answers that differ, or are none

TEST(HostIteratorAnswers, AreMissingAlikeWhenTheyAreTooLong) {
  auto shape = withManyRows();
  shape.value = std::string(3000, 'x');
  std::vector<Request> requests;
  for (long const repetitions : {19, 20, 21, 22, 23})
    requests.push_back({Wire::Command::getBulk, {shape.root}, 0, repetitions});
  expectEqual(shape, requests, [](ToyTable &) {});
}

// net-snmp's iterator takes an empty octet string in a row's index for what the request has in its
// place, and answers for rows that do not exist.
TEST(HostIteratorAnswers, TellAnEmptyOctetStringFromAnother) {
  ToyTable const toy(mixed({ASN_INTEGER, ASN_OCTET_STR, ASN_INTEGER}, {{5, 0, 65}, {6, 1, 1, 65}}));
  ASSERT_EQ(1u, Agent::installHostIterator());
  auto const name = [](Oid const & index) {
    auto all = ToyShape().root;
    all.insert(all.end(), {1, 2});
    all.insert(all.end(), index.begin(), index.end());
    return all;
  };
  auto const get = [&](Oid const & index) { return ask({Wire::Command::get, {name(index)}}); };
  auto const next = [&](Oid const & index) { return ask({Wire::Command::getNext, {name(index)}}); };
  EXPECT_THAT(get({5, 0, 65}), HasSubstr("value"));
  EXPECT_THAT(get({5, 1, 9, 65}), Not(HasSubstr("value")));
  EXPECT_EQ(get({6, 1, 1, 65}), next({5, 1, 9, 64}));
  EXPECT_EQ(get({5, 0, 65}), next({5, 0, 64}));
}

// Everything at random

class RandomTables {
public:
  explicit RandomTables(std::uint32_t seed) : random_(seed) {}
  std::mt19937 & random() { return random_; }

  ToyShape shape() {
    ToyShape shape;
    shape.columns.clear();
    for (auto column = below(3) + 1; shape.columns.size() < below(4) + 1; column += below(3) + 1)
      shape.columns.push_back(static_cast<unsigned int>(column));
    shape.columnsAre = static_cast<ColumnsAre>(below(3));
    static std::vector<std::vector<unsigned char>> const types{
        {ASN_INTEGER},
        {ASN_UNSIGNED, ASN_INTEGER},
        {ASN_OCTET_STR, ASN_INTEGER},
        {ASN_INTEGER, ASN_PRIV_IMPLIED_OCTET_STR}};
    shape.indexTypes = types[below(types.size())];
    for (auto count = below(3) == 0 ? below(120) : below(8); count != 0; --count)
      shape.rows.insert(index(shape.indexTypes));
    // What a cell does depends on nothing but the cell.
    unsigned long const salt = random_();
    auto const often = below(3) == 0 ? 1000u : static_cast<unsigned>(below(30) + 4);
    shape.cell = [=](unsigned int column, Oid const & row) {
      auto drawn = salt + column;
      for (auto const part : row)
        drawn = drawn * 2654435761u + part;
      drawn = (drawn >> 7) % often;
      return drawn < 7 ? static_cast<Cell>(drawn) : Cell::value;
    };
    return shape;
  }

  Oid index(std::vector<unsigned char> const & types) {
    Oid all;
    for (auto const type : types) {
      if (type == ASN_OCTET_STR)
        all.push_back(below(3) + 1);
      auto const length = type == ASN_OCTET_STR                ? all.back()
                          : type == ASN_PRIV_IMPLIED_OCTET_STR ? below(3) + 1
                                                               : 1;
      for (auto left = length; left != 0; --left)
        all.push_back(below(12));
    }
    return all;
  }

private:
  std::size_t below(std::size_t limit) { return random_() % limit; }

  std::mt19937 random_;
};

TEST(HostIteratorAtRandom, AnswersWhatTheStockIteratorAnswers) {
  for (std::uint32_t round = 0; round != 60; ++round) {
    RandomTables tables(testSeed() + round);
    auto const shape = tables.shape();
    std::vector<Oid> indexes(shape.rows.begin(), shape.rows.end());
    for (int left = 4; left != 0; --left)
      indexes.push_back(tables.index(shape.indexTypes));
    auto const names = namesAround(shape.root, numbers(shape.columns), indexes);
    auto const requests = randomRequests(names, 150, tables.random());
    ToyTable toy(shape);
    auto const expected = answers(requests);
    ASSERT_EQ(1u, Agent::installHostIterator());
    expectAnswers(expected, requests);
    ASSERT_EQ(0, toy.contexts());
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
}

} // namespace
