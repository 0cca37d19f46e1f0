// What is traced of a request must not depend on who iterates, net-snmp's table iterator or the
// daemon's: the same lines in the same order, but where docs/traces.md says otherwise.
#include "TunnelIntfSnmp/tunnelMIB.h"
#include "agent/iterator/HostIterator.h"
#include "tests/handlers/InetConfigFixture.h"
#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <regex>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

class IteratorTrace : public InetConfigFixture {
protected:
  using Ask = std::function<void(InProcessAgent &)>;

  IteratorTrace() {
    for (std::uint32_t const ifIndex : {5, 7, 9})
      mib_->tunnelIfTableIs(ifIndex,
                            Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(ifIndex)));
    add(5, "10.0.0.1", "10.0.0.2");
    add(7, "10.0.0.1", "10.0.0.3");
  }

  static Oid ifCell(Oid const & columnAndRow) {
    Oid name{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1, 1};
    name.insert(name.end(), columnAndRow.begin(), columnAndRow.end());
    return name;
  }
  static Ask get(Oid const & name) {
    return [=](InProcessAgent & agent) { agent.get({name}); };
  }
  static Ask getNext(Oid const & name) {
    return [=](InProcessAgent & agent) { agent.getNext({name}); };
  }
  static Ask set(Oid const & name) {
    return [=](InProcessAgent & agent) { agent.set({name}); };
  }
  // The lines of a request, pointers left out.
  std::vector<std::string> lines(Ask const & ask) {
    static std::regex const pointer("0x[0-9a-f]+");
    TraceRecorder traces{{"Snmp", "0,2"}};
    ask(agent_);
    auto texts = traces.texts();
    for (auto & text : texts)
      text = std::regex_replace(text, pointer, "POINTER");
    return texts;
  }
  static std::vector<std::string> joined(std::vector<std::vector<std::string>> const & parts) {
    std::vector<std::string> all;
    for (auto const & part : parts)
      all.insert(all.end(), part.begin(), part.end());
    return all;
  }
  void expectSame(std::vector<Ask> const & requests) {
    std::vector<std::vector<std::string>> stock;
    for (auto const & request : requests)
      stock.push_back(lines(request));
    ASSERT_EQ(Agent::installHostIterator(), 2u);
    for (std::size_t i = 0; i != requests.size(); ++i)
      EXPECT_THAT(lines(requests[i]), ElementsAreArray(stock[i])) << "request " << i;
  }
};

TEST_F(IteratorTrace, IsTheSameOfAGetOfARow) {
  auto const & index = indexes_.front().first;
  expectSame({get(ifCell({4, 7})), get(ifCell({1, 7})), get(instance(6, index))});
}

TEST_F(IteratorTrace, IsTheSameOfAGetThatNamesNoCell) {
  expectSame(
      {get(ifCell({12, 7})), get(ifCell({4})), get(ifCell({4, 7, 1})), get(instance(1, {}))});
}

TEST_F(IteratorTrace, IsTheSameOfAGetNextWithinAColumn) {
  expectSame({getNext(ifCell({4, 5})), getNext(ifCell({4, 7})), getNext(ifCell({4, 6})),
              getNext(ifCell({4})), getNext(ifCell({4, 0})), getNext(ifCell({3, 7, 1})),
              getNext(instance(6, indexes_.front().first)), getNext(instance(6, {})),
              getNext(instance(7, {1, 4, 10}))});
}

TEST_F(IteratorTrace, IsTheSameOfAGetNextThatLeadsToAnotherColumn) {
  expectSame({getNext(ifCell({4, 9})), getNext(ifCell({6, 9})), getNext(ifCell({})),
              getNext(ifCell({1})), getNext(ifCell({7, 5})),
              getNext(instance(6, indexes_.back().first))});
}

// Where they differ

std::string const advances =
    "tunnelIfTable_get_next_data_point - advancing loop context POINTER ; data context POINTER";
/// Of the rows behind the first one, to the end.
std::vector<std::string> const visits{
    advances, "tunnelIfTableIterationHelper - iterator has another value: ifIndex=7",
    advances, "tunnelIfTableIterationHelper - iterator has another value: ifIndex=9",
    advances, "tunnelIfTableIterationHelper - iterator is at end"};

TEST_F(IteratorTrace, OfAMissingRowLeavesOutTheRowsThatTheDaemonsDoesNotVisit) {
  auto const missing = get(ifCell({4, 8}));
  std::vector<std::string> const begins{
      "tunnelIfTable_get_first_data_point - *hint = POINTER, number_indexes = 1",
      "hint component ifIndex is '8'",
      "tunnelIfTable_get_first_data_point - key '8' not found in table",
      "tunnelIfTable_get_first_data_point - allocated new loop context POINTER, hintMatched=false",
      "tunnelIfTableIterationHelper - iterator has another value: ifIndex=5"};
  std::vector<std::string> const ends{"tunnelIfTable_free_loop_context_at_end POINTER",
                                      "tunnelIfTable_handler",
                                      "tunnelIfTable_handler: request mode 160",
                                      "tunnelIfTable_handler: null data context in request"};
  EXPECT_THAT(lines(missing), ElementsAreArray(joined({begins, visits, ends})));
  Agent::installHostIterator();
  EXPECT_THAT(lines(missing), ElementsAreArray(joined({begins, ends})));
}

TEST_F(IteratorTrace, OfASetOfARowBeginsWithTheDaemonsLookUp) {
  auto const row = set(ifCell({4, 7}));
  auto const stock = lines(row);
  auto const asked = std::ranges::find(stock, "tunnelIfTable_handler");
  auto lookUp = std::vector(stock.begin(), asked);
  lookUp.push_back(stock.back()); // the data context goes
  Agent::installHostIterator();
  EXPECT_THAT(lines(row), ElementsAreArray(joined({lookUp, stock})));
}

TEST_F(IteratorTrace, OfASetOfAMissingRowLeavesThemOutAsWell) {
  auto const missing = set(ifCell({4, 8}));
  auto expected = lines(missing);
  auto const visited = std::ranges::search(expected, visits);
  ASSERT_FALSE(visited.empty());
  expected.erase(visited.begin(), visited.end());
  Agent::installHostIterator();
  EXPECT_THAT(lines(missing), ElementsAreArray(expected));
}

TEST_F(IteratorTrace, OfAGetBulkHasOneLoopContextWhichGoesBeforeTheLastAnswer) {
  Agent::installHostIterator();
  EXPECT_THAT(
      lines([](InProcessAgent & agent) {
        agent.getBulk({ifCell({4, 5})}, 0, 2);
      }),
      ElementsAre(
          "tunnelIfTable_get_first_data_point - *hint = POINTER, number_indexes = 1",
          "hint component ifIndex is '5'",
          "tunnelIfTable_get_first_data_point - allocated new loop context POINTER, "
          "hintMatched=true",
          "tunnelIfTableIterationHelper - iterator has another value: ifIndex=5",
          "tunnelIfTable_get_next_data_point - advancing loop context POINTER ; data context "
          "POINTER",
          "tunnelIfTableIterationHelper - iterator has another value: ifIndex=7",
          "tunnelIfTable_make_data_context - allocated data context POINTER for loop context "
          "POINTER",
          "tunnelIfTable_handler", "tunnelIfTable_handler: request mode 160",
          "tunnelIfTable_handler: request GET for column tunnelIfHopLimit, key 7",
          "tunnelIfTable_free_data_context POINTER",
          "tunnelIfTable_get_next_data_point - advancing loop context POINTER ; data context "
          "POINTER",
          "tunnelIfTableIterationHelper - iterator has another value: ifIndex=9",
          "tunnelIfTable_make_data_context - allocated data context POINTER for loop context "
          "POINTER",
          "tunnelIfTable_free_loop_context_at_end POINTER", "tunnelIfTable_handler",
          "tunnelIfTable_handler: request mode 160",
          "tunnelIfTable_handler: request GET for column tunnelIfHopLimit, key 9",
          "tunnelIfTable_free_data_context POINTER"));
}

TEST_F(IteratorTrace, OfAStepOutOfTheTableBeginsWithTheDaemonsOwnTry) {
  auto const out = getNext(instance(8, indexes_.back().first));
  auto const stock = lines(out);
  auto const asked = std::ranges::find(stock, "tunnelInetConfigTable_handler");
  std::vector<std::string> const steps(stock.begin(), asked); // the handler is not asked
  Agent::installHostIterator();
  EXPECT_THAT(lines(out), ElementsAreArray(joined({steps, stock})));
}

} // namespace
} // namespace TunnelIntfSnmp
