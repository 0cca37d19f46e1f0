// tunnelInetConfigTable as a manager sees it: instances and their order, answers, refusals. What
// the iterator's callbacks do with hints, and the traces, are in TunnelInetConfigTraceTest.cpp.
#include "tests/handlers/InetConfigFixture.h"
#include <algorithm>
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

// Rows of every kind: IPv4, IPv6, families mixed, addresses empty or of odd lengths, numbers at
// their limits.
class TunnelInetConfigTable : public InetConfigFixture {
protected:
  void addEveryKind() {
    add(5, "10.0.0.1", "10.0.0.2");
    add(3, "10.0.0.1", "10.0.0.10");
    add(4, "10.0.0.1", "10.0.0.2", 2);
    add(1, "10.0.0.1", "2001:db8::2");
    add(9, "200.0.0.1", "10.0.0.2");
    add(2, "2001:db8::1", "2001:db8::2");
    add(6, "2001:db8::1", "10.0.0.2");
    add(2147483647, "2001:db8::1", "fe80::1", 2147483647, 2147483647);
    put(7, 0, {}, {}, 1, 1);
    put(8, 0, {}, {10, 0, 0, 2}, 3, 1);
    put(10, 1, {255}, {0, 0, 0}, 3, 1);
    put(11, 1, {10, 0, 0, 1}, {}, 3, 1);
    put(12, 16, {0}, {0, 0}, 1, 0);
  }
  // The instances in the order of their OIDs: what a manager has to see.
  std::vector<Varbind> expected() const {
    std::vector<Varbind> all;
    for (auto const & [index, ifIndex] : indexes_)
      for (auto const & [column, value] : {std::pair<oid, long>{6, ifIndex}, {7, 1}, {8, 5}})
        all.push_back({instance(column, index), ASN_INTEGER, value, ""});
    std::ranges::sort(all, {}, &Varbind::name);
    return all;
  }
  // What GETNEXT has to answer: the first instance behind `name`, or something behind the table.
  void expectNextIsRight(Oid const & name, std::vector<Varbind> const & list) {
    auto const answer = agent_.getNext({name}).varbinds.at(0);
    auto const next = std::ranges::upper_bound(list, name, {}, &Varbind::name);
    if (next != list.end())
      EXPECT_EQ(answer, *next) << "behind " << ::testing::PrintToString(name);
    else
      EXPECT_TRUE(isBehindTheTable(answer)) << ::testing::PrintToString(name);
  }
  static bool isBehindTheTable(Varbind const & answer) {
    return answer.type == SNMP_ENDOFMIBVIEW ||
           (answer.name > tableOid &&
            !std::equal(tableOid.begin(), tableOid.end(), answer.name.begin()));
  }
};

// Golden OIDs

TEST_F(TunnelInetConfigTable, IndexesIpv4TunnelsByLengthPrefixedOctets) {
  add(5, "10.0.0.1", "10.0.0.2");
  EXPECT_THAT(agent_.walk(tableOid),
              ElementsAre(Varbind{{1, 3, 6,  1, 2, 1, 10, 131, 1, 1, 3, 1, 6, //
                                   1, 4, 10, 0, 0, 1, 4,  10,  0, 0, 2, 3, 1},
                                  ASN_INTEGER,
                                  5,
                                  ""},
                          Varbind{{1, 3, 6,  1, 2, 1, 10, 131, 1, 1, 3, 1, 7, //
                                   1, 4, 10, 0, 0, 1, 4,  10,  0, 0, 2, 3, 1},
                                  ASN_INTEGER,
                                  1,
                                  ""},
                          Varbind{{1, 3, 6,  1, 2, 1, 10, 131, 1, 1, 3, 1, 8, //
                                   1, 4, 10, 0, 0, 1, 4,  10,  0, 0, 2, 3, 1},
                                  ASN_INTEGER,
                                  5,
                                  ""}));
}

TEST_F(TunnelInetConfigTable, IndexesIpv6TunnelsByLengthPrefixedOctets) {
  add(5, "2001:db8::1", "fe80::ff", 2);
  EXPECT_EQ(agent_.getNext({tableOid}).varbinds.at(0).name,
            (Oid{1,  3,   6,   1,  2,   1, 10, 131, 1, 1, 3, 1, 6,               //
                 2,                                                              //
                 16, 32,  1,   13, 184, 0, 0,  0,   0, 0, 0, 0, 0, 0, 0, 0, 1,   //
                 16, 254, 128, 0,  0,   0, 0,  0,   0, 0, 0, 0, 0, 0, 0, 0, 255, //
                 2,  1}));
}

TEST_F(TunnelInetConfigTable, TakesTheTypeOfMixedFamiliesFromTheLocalAddress) {
  add(5, "10.0.0.1", "2001:db8::2");
  add(6, "2001:db8::1", "10.0.0.2");
  EXPECT_EQ(agent_.getNext({tableOid}).varbinds.at(0).name,
            (Oid{1,  3,  6,  1,  2,   1, 10, 131, 1, 1, 3, 1, 6, //
                 1,  4,  10, 0,  0,   1,                         //
                 16, 32, 1,  13, 184, 0, 0,  0,   0, 0, 0, 0, 0, 0, 0, 0, 2, 3, 1}));
  EXPECT_EQ(agent_
                .get({{1, 3,  6,  1, 2,  1,   10, 131, 1, 1, 3, 1, 6,                //
                       2, 16, 32, 1, 13, 184, 0,  0,   0, 0, 0, 0, 0, 0, 0, 0, 0, 1, //
                       4, 10, 0,  0, 2,  3,   1}})
                .varbinds.at(0)
                .integer,
            6);
}

// As one ordered list

TEST_F(TunnelInetConfigTable, IsEmptyToAWalkWhileThereAreNoRows) {
  EXPECT_THAT(agent_.walk(tableOid), IsEmpty());
  EXPECT_EQ(
      agent_.get({instance(6, {1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 1})}).varbinds.at(0).type,
      SNMP_NOSUCHINSTANCE);
}

TEST_F(TunnelInetConfigTable, AnswersEachGetAndEachGetNextOfTheOrderedListOfInstances) {
  addEveryKind();
  auto const list = expected();
  ASSERT_EQ(list.size(), 39u);
  for (auto const & one : list)
    EXPECT_THAT(agent_.get({one.name}).varbinds, ElementsAre(one));
  auto previous = tableOid;
  for (auto const & one : list) {
    EXPECT_THAT(agent_.getNext({previous}).varbinds, ElementsAre(one));
    previous = one.name;
  }
  EXPECT_TRUE(isBehindTheTable(agent_.getNext({previous}).varbinds.at(0)));
  EXPECT_EQ(agent_.walk(tableOid), list);
}

TEST_F(TunnelInetConfigTable, DeliversEveryInstanceOnceToBulkWalksOfAnySize) {
  addEveryKind();
  auto const list = expected();
  for (int const repetitions : {1, 3, 10, 50, 1000}) {
    std::vector<Varbind> seen;
    for (auto name = tableOid; seen.size() < list.size();) {
      auto const some = agent_.getBulk({name}, 0, repetitions).varbinds;
      ASSERT_FALSE(some.empty());
      for (auto const & one : some)
        if (seen.size() < list.size())
          seen.push_back(one);
      name = seen.back().name;
    }
    EXPECT_EQ(seen, list) << repetitions;
  }
}

TEST_F(TunnelInetConfigTable, WalksInSnmpVersion1AsWell) {
  addEveryKind();
  auto const list = expected();
  auto name = tableOid;
  for (auto const & one : list) {
    EXPECT_THAT(agent_.getNext({name}, SNMP_VERSION_1).varbinds, ElementsAre(one));
    name = one.name;
  }
}

TEST_F(TunnelInetConfigTable, AnswersSeveralVarbindsOnDifferentRowsInAnyOrder) {
  addEveryKind();
  auto list = expected();
  std::ranges::reverse(list);
  for (std::size_t from = 0; from != list.size(); from += 13) {
    std::vector<Varbind> const some(list.begin() + static_cast<std::ptrdiff_t>(from),
                                    list.begin() + static_cast<std::ptrdiff_t>(from + 13));
    std::vector<Oid> names;
    std::ranges::transform(some, std::back_inserter(names), &Varbind::name);
    EXPECT_THAT(agent_.get(names).varbinds, ElementsAreArray(some));
  }
}

// Indexes that name no row

TEST_F(TunnelInetConfigTable, FindsTheNextInstanceBehindEveryPartOfAnIndex) {
  addEveryKind();
  auto const list = expected();
  for (auto const & one : list)
    for (auto name = one.name; name.size() > tableOid.size(); name.pop_back()) {
      expectNextIsRight(name, list);
      if (name != one.name) {
        EXPECT_NE(agent_.get({name}).varbinds.at(0).type, ASN_INTEGER);
      }
    }
}

TEST_F(TunnelInetConfigTable, FindsTheNextInstanceBehindAnIndexThatIsTooLong) {
  addEveryKind();
  auto const list = expected();
  for (auto const & one : list)
    for (oid const extra : {0ul, 1ul, 4294967295ul}) {
      auto name = one.name;
      name.push_back(extra);
      EXPECT_EQ(agent_.get({name}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
      expectNextIsRight(name, list);
    }
}

TEST_F(TunnelInetConfigTable, FindsTheNextInstanceBetweenRowsAndPastTheEnd) {
  addEveryKind();
  auto const list = expected();
  for (auto const & one : list)
    for (std::size_t part = tableOid.size() + 2; part != one.name.size(); ++part) {
      auto name = one.name;
      ++name[part];
      expectNextIsRight(name, list);
      if (!std::ranges::binary_search(list, name, {}, &Varbind::name)) {
        EXPECT_EQ(agent_.get({name}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
      }
    }
  expectNextIsRight(instance(8, {4294967295}), list);
}

TEST_F(TunnelInetConfigTable, FindsTheNextInstanceBehindPartsOfTheWrongType) {
  add(5, "10.0.0.1", "10.0.0.2");
  add(6, "10.0.0.9", "10.0.0.2");
  auto const list = expected();
  // No octet is over 255, no length reaches past the OID, no number is over 2^31 - 1.
  Oid const wrong[] = {{1, 4, 10, 0, 0, 256, 4, 10, 0, 0, 2, 3, 1},
                       {1, 200, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 1},
                       {1, 4, 10, 0, 0, 1, 4294967295, 10, 0, 0, 2, 3, 1},
                       {4294967295, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 1},
                       {1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 4294967295, 1},
                       {1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 4294967295}};
  for (auto const & index : wrong) {
    EXPECT_EQ(agent_.get({instance(6, index)}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
    expectNextIsRight(instance(6, index), list);
    EXPECT_NE(agent_.set({instance(7, index)}).errorStatus, SNMP_ERR_NOERROR);
  }
}

// Columns

TEST_F(TunnelInetConfigTable, ServesNoneOfTheIndexColumnsAndNoneBehindTheLast) {
  add(5, "10.0.0.1", "10.0.0.2");
  Oid const index{1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 1};
  for (oid const column : {0, 1, 2, 3, 4, 5, 9}) {
    EXPECT_EQ(agent_.get({instance(column, index)}).varbinds.at(0).type, SNMP_NOSUCHOBJECT)
        << column;
    EXPECT_EQ(agent_.get({instance(column, index)}, SNMP_VERSION_1).errorStatus,
              SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(agent_.set({instance(column, index)}).errorStatus, SNMP_ERR_NOTWRITABLE) << column;
  }
  for (oid const column : {1, 2, 3, 4, 5})
    EXPECT_EQ(agent_.getNext({instance(column, index)}).varbinds.at(0).name, instance(6, index));
}

TEST_F(TunnelInetConfigTable, ReadsActiveAndReadOnlyForEveryRow) {
  addEveryKind();
  for (auto const & [index, ifIndex] : indexes_) {
    EXPECT_EQ(agent_.get({instance(7, index)}).varbinds.at(0).integer, 1);
    EXPECT_EQ(agent_.get({instance(8, index)}).varbinds.at(0).integer, 5);
  }
}

// SET

TEST_F(TunnelInetConfigTable, RefusesTheSetOfEveryColumnOfExistingAndMissingRows) {
  add(5, "10.0.0.1", "10.0.0.2");
  auto const before = agent_.walk(tableOid);
  for (Oid const & index :
       {Oid{1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 1}, Oid{1, 4, 10, 0, 0, 9, 4, 10, 0, 0, 2, 3, 1}})
    for (oid const column : {6, 7, 8}) {
      auto const answer = agent_.set({instance(column, index)});
      EXPECT_EQ(answer.errorStatus, SNMP_ERR_NOTWRITABLE) << column;
      EXPECT_EQ(answer.errorIndex, 1);
    }
  EXPECT_EQ(agent_.walk(tableOid), before);
}

TEST_F(TunnelInetConfigTable, RefusesASetOfSeveralAndChangesNothing) {
  add(5, "10.0.0.1", "10.0.0.2");
  auto const before = agent_.walk(tableOid);
  auto const answer = agent_.set({before.at(1).name, before.at(2).name});
  EXPECT_EQ(answer.errorStatus, SNMP_ERR_NOTWRITABLE);
  EXPECT_EQ(answer.errorIndex, 1);
  EXPECT_EQ(agent_.walk(tableOid), before);
}

// Rows that come and go

TEST_F(TunnelInetConfigTable, LosesOnlyTheRowsThatGoDuringAWalk) {
  addEveryKind();
  auto const list = expected();
  auto name = tableOid;
  for (std::size_t i = 0; i != 13; ++i) {
    auto const answer = agent_.getNext({name}).varbinds.at(0);
    ASSERT_EQ(answer, list[i]) << "the row of the previous answer is gone";
    name = answer.name;
    mib_->tunnelInetConfigTableDel(mib_->tunnelInetConfigTable().begin());
  }
  EXPECT_TRUE(isBehindTheTable(agent_.getNext({name}).varbinds.at(0)));
}

TEST_F(TunnelInetConfigTable, KeepsARowReadableThatGoesWhileItIsAsked) {
  add(5, "10.0.0.1", "10.0.0.2");
  add(6, "10.0.0.1", "10.0.0.3");
  // The trace of the answer deletes every row.
  auto const before = Lumo::traceSinkIs([this](Lumo::TraceMessage const & message) {
    if (message.text.find("request GET for column") != std::string_view::npos)
      mib_->tunnelInetConfigTableDelAll();
  });
  Lumo::traceLevelsIs("Snmp", Lumo::parseLevels("2"));
  auto const answer = agent_.get({instance(6, {1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 1})});
  Lumo::traceLevelsIs("Snmp", 0);
  Lumo::traceSinkIs(before);
  EXPECT_EQ(answer.varbinds.at(0).integer, 5);
  EXPECT_TRUE(mib_->tunnelInetConfigTable().empty());
}

} // namespace
} // namespace TunnelIntfSnmp
