// Where a walk of tunnelInetConfigTable starts, what the iterator's callbacks do with hints that no
// manager can make, and every trace line of the table's handler.
#include "tests/handlers/InetConfigFixture.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

std::string const pointer = "0x[0-9a-f]+";
std::string const keyText =
    "Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** {'localInetAddr': "
    "Value('Snmp::InetAddress', ** {'addressType': 1, 'address': '0a000001'}), "
    "'remoteAddrBytes': '0a000002', 'encapsMethod': 3, 'configId': 1})";
Oid const firstIndex{1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 2, 3, 1};
Oid const secondIndex{1, 4, 10, 0, 0, 1, 4, 10, 0, 0, 3, 3, 1};

class TunnelInetConfigTrace : public InetConfigFixture {
protected:
  TunnelInetConfigTrace() {
    add(5, "10.0.0.1", "10.0.0.2");
    add(6, "10.0.0.1", "10.0.0.3");
  }
};

// Text of a trace to a regular expression that matches exactly it.
std::string exactly(std::string const & text) {
  std::string escaped;
  for (auto const c : text) {
    if (std::string("()[]{}*+?.\\|^$").find(c) != std::string::npos)
      escaped += '\\';
    escaped += c;
  }
  return escaped;
}

using TunnelInetConfigSteps = WithEachFinder<TunnelInetConfigTrace>;
INSTANTIATE_TEST_SUITE_P(Finders, TunnelInetConfigSteps, eachFinder, finderName);

TEST_P(TunnelInetConfigSteps, AreTracedInOrder) {
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(agent_.get({instance(6, firstIndex)}).varbinds.at(0).integer, 5);
  std::string const another = "tunnelInetConfigTableIterationHelper - iterator has another value: ";
  std::vector<std::string> const expected{
      "tunnelInetConfigTable_get_first_data_point - \\*hint = " + pointer + ", number_indexes = 5",
      "hint component tunnelInetConfigAddressType is '1'",
      "hint component tunnelInetConfigLocalAddress is ''0a000001''",
      "hint component tunnelInetConfigRemoteAddress is ''0a000002''",
      "hint component tunnelInetConfigEncapsMethod is '3'",
      "hint component tunnelInetConfigID is '1'",
      "tunnelInetConfigTable_get_first_data_point - allocated new loop context " + pointer +
          ", hintMatched=true",
      another + "addrType=1",
      another + "localAddr='0a000001'",
      another + "remoteAddr='0a000002'",
      another + "encapsMethod=3",
      another + "configId=1",
      "tunnelInetConfigTable_make_data_context - allocated data context " + pointer +
          " for loop context " + pointer,
      "tunnelInetConfigTable_free_loop_context_at_end " + pointer,
      "tunnelInetConfigTable_handler",
      "tunnelInetConfigTable_handler: request mode 160",
      "tunnelInetConfigTable_handler: request GET for column tunnelInetConfigIfIndex, key " +
          exactly(keyText),
      "tunnelInetConfigTable_free_data_context " + pointer};
  auto const texts = traces.texts();
  ASSERT_EQ(texts.size(), expected.size());
  for (std::size_t i = 0; i != texts.size(); ++i)
    EXPECT_THAT(texts[i], MatchesRegex(expected[i]));
  EXPECT_THAT(traces.texts(0), IsEmpty());
}

TEST_F(TunnelInetConfigTrace, NamesEachColumnAndTheRowsKey) {
  TraceRecorder traces{{"Snmp", "2"}};
  agent_.walk(tableOid);
  for (char const * name :
       {"tunnelInetConfigIfIndex", "tunnelInetConfigStatus", "tunnelInetConfigStorageType"})
    EXPECT_TRUE(
        traces.has(2, std::string("tunnelInetConfigTable_handler: request GET for column ") + name +
                          ", key " + keyText));
}

// Where a walk starts

TEST_F(TunnelInetConfigTrace, StartsAtTheRowThatTheIndexNamesExactly) {
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(agent_.get({instance(6, secondIndex)}).varbinds.at(0).integer, 6);
  EXPECT_THAT(traces.texts(), Contains(MatchesRegex(".*hintMatched=true")));
  EXPECT_FALSE(traces.has(
      2,
      "tunnelInetConfigTableIterationHelper - iterator has another value: remoteAddr='0a000002'"))
      << "the row before is not visited";
}

TEST_F(TunnelInetConfigTrace, StartsAtTheFirstRowWhenNoRowIsNamedExactly) {
  TraceRecorder traces{{"Snmp", "2"}};
  auto missing = secondIndex;
  missing.back() = 0;
  EXPECT_EQ(agent_.getNext({instance(6, missing)}).varbinds.at(0).name, instance(6, secondIndex));
  EXPECT_TRUE(traces.has(
      2, "tunnelInetConfigTable_get_first_data_point - key "
         "'Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** {'localInetAddr': "
         "Value('Snmp::InetAddress', ** {'addressType': 1, 'address': '0a000001'}), "
         "'remoteAddrBytes': '0a000003', 'encapsMethod': 3, 'configId': 0})' not found in table"));
  EXPECT_THAT(traces.texts(), Contains(MatchesRegex(".*hintMatched=false")));
  EXPECT_TRUE(traces.has(2, "tunnelInetConfigTableIterationHelper - iterator has another value: "
                            "remoteAddr='0a000002'"));
}

TEST_F(TunnelInetConfigTrace, SaysHowManyComponentsAHintOfFewerPartsHad) {
  TraceRecorder traces{{"Snmp", "0,2"}};
  auto partial = firstIndex;
  partial.pop_back();
  EXPECT_EQ(agent_.getNext({instance(6, partial)}).varbinds.at(0).name, instance(6, firstIndex));
  EXPECT_THAT(traces.texts().at(0), MatchesRegex(".*number_indexes = 4"));
  EXPECT_EQ(traces.texts().at(1),
            "tunnelInetConfigTable_get_first_data_point - needed 5 components, found only 0")
      << "none of them is read";
}

TEST_F(TunnelInetConfigTrace, DropsAHintWithANumberThatIsOutOfRange) {
  std::pair<std::size_t, char const *> const numbers[] = {{0, "tunnelInetConfigAddressType"},
                                                          {11, "tunnelInetConfigEncapsMethod"},
                                                          {12, "tunnelInetConfigID"}};
  for (auto const & [part, name] : numbers) {
    auto index = firstIndex;
    index[part] = 4294967295;
    TraceRecorder traces{{"Snmp", "0,2"}};
    agent_.get({instance(6, index)});
    EXPECT_EQ(traces.texts(0),
              std::vector<std::string>{std::string("hint for index ") + name +
                                       " of tunnelInetConfigTable is out of range! 4294967295 "
                                       "does not fit into 32 bits with a sign"});
    EXPECT_TRUE(traces.has(
        2, "tunnelInetConfigTable_get_first_data_point - needed 5 components, found only 4"));
  }
}

// Callbacks, asked directly for what no manager can make the iterator ask

class TunnelInetConfigCallbacks : public WithHandler<TunnelInetConfigTrace> {
protected:
  // The five parts of the second row, but `wrong`, counted from 0, of the other type.
  void hintWithWrongType(int wrong) {
    Octets const local{10, 0, 0, 1}, remote{10, 0, 0, 3};
    for (int part = 0; part != 5; ++part) {
      auto const octets = part == 1 || part == 2;
      if (octets != (part == wrong))
        hintPart(part == 1 ? local : remote);
      else
        hintPart(part == 3 ? 3L : 1L);
    }
  }
  // The five parts of the second row, but those numbers.
  void hintWithNumbers(long type, long encapsMethod, long configId) {
    hintPart(type);
    hintPart(Octets{10, 0, 0, 1});
    hintPart(Octets{10, 0, 0, 3});
    hintPart(encapsMethod);
    hintPart(configId);
  }
  // The last octet of the remote address at which the walk starts or goes on; -1 at its end.
  int lastOctet(netsnmp_variable_list const * answer) const {
    EXPECT_TRUE(answer == nullptr || answer == index_);
    if (answer == nullptr)
      return -1;
    auto const * remote = answer->next_variable->next_variable;
    return remote->val.string[remote->val_len - 1];
  }
  int first() { return lastOctet(firstRow()); }
  int firstWithHint() {
    loop_ = &hint_;
    return first();
  }
  int next() { return lastOctet(nextRow()); }
};

TEST_F(TunnelInetConfigCallbacks, FillTheFiveIndexesInTheirTypes) {
  EXPECT_EQ(first(), 2);
  auto const * part = index_;
  EXPECT_EQ(part->type, ASN_INTEGER);
  EXPECT_EQ(*part->val.integer, 1);
  for (std::uint8_t const last : {1, 2}) {
    part = part->next_variable;
    EXPECT_EQ(part->type, ASN_OCTET_STR);
    EXPECT_EQ(Octets(part->val.string, part->val.string + part->val_len), (Octets{10, 0, 0, last}));
  }
  for (long const number : {3, 1}) {
    part = part->next_variable;
    EXPECT_EQ(part->type, ASN_INTEGER);
    EXPECT_EQ(*part->val.integer, number);
  }
}

TEST_F(TunnelInetConfigCallbacks, TakeANullSlotForNoHint) {
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(first(), 2);
  EXPECT_EQ(traces.texts().at(0),
            "tunnelInetConfigTable_get_first_data_point - *hint = 0x0, number_indexes = 0");
  EXPECT_EQ(traces.texts().at(1),
            "tunnelInetConfigTable_get_first_data_point - needed 5 components, found only 0");
}

TEST_F(TunnelInetConfigCallbacks, ReplaceTheHintOnAnEmptyTableToo) {
  mib_->tunnelInetConfigTableDelAll();
  EXPECT_EQ(firstWithHint(), -1);
  EXPECT_NE(loop_, &hint_);
  EXPECT_NE(loop_, nullptr);
}

TEST_F(TunnelInetConfigCallbacks, StartAtTheRowThatAGoodHintNames) {
  hintWithNumbers(1, 3, 1);
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(firstWithHint(), 3);
  EXPECT_THAT(traces.texts(0), IsEmpty());
}

TEST_F(TunnelInetConfigCallbacks, TraceAHintThatPromisesMoreIndexesThanItHas) {
  hintPart(1);
  hintPart(Octets{10, 0, 0, 1});
  hint_.number_indexes = 5;
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(firstWithHint(), 2);
  EXPECT_TRUE(traces.has(
      2, "tunnelInetConfigTable_get_first_data_point - needed 5 components, found only 2"));
  EXPECT_THAT(traces.texts(0), IsEmpty());
}

TEST_F(TunnelInetConfigCallbacks, DropAHintOfMoreThanFiveParts) {
  hintWithNumbers(1, 3, 1);
  hintPart(1);
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(firstWithHint(), 2);
  EXPECT_TRUE(traces.has(
      2, "tunnelInetConfigTable_get_first_data_point - needed 5 components, found only 0"));
}

class TunnelInetConfigHintType
    : public TunnelInetConfigCallbacks,
      public ::testing::WithParamInterface<std::pair<int, char const *>> {};
INSTANTIATE_TEST_SUITE_P(Components, TunnelInetConfigHintType,
                         ::testing::Values(std::pair{0, "tunnelInetConfigAddressType"},
                                           std::pair{1, "tunnelInetConfigLocalAddress"},
                                           std::pair{2, "tunnelInetConfigRemoteAddress"},
                                           std::pair{3, "tunnelInetConfigEncapsMethod"},
                                           std::pair{4, "tunnelInetConfigID"}));

TEST_P(TunnelInetConfigHintType, DropsTheComponentAndReadsTheOthers) {
  auto const & [part, name] = GetParam();
  hintWithWrongType(part);
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(firstWithHint(), 2) << "the first row";
  auto const octets = part == 1 || part == 2;
  EXPECT_EQ(traces.texts(0),
            std::vector<std::string>{std::string("hint for ") + name +
                                     " has incorrect type! Expecting " + (octets ? "4" : "2") +
                                     " but got " + (octets ? "2" : "4")});
  EXPECT_THAT(traces.texts(2),
              Not(Contains(StartsWith(std::string("hint component ") + name + " is"))));
  EXPECT_TRUE(traces.has(
      2, "tunnelInetConfigTable_get_first_data_point - needed 5 components, found only 4"));
}

TEST_F(TunnelInetConfigCallbacks, DropAComponentWhoseOctetsAreOutOfRangeAndReadTheOthers) {
  for (auto const & [first, name] :
       {std::pair<std::uint8_t, std::string>{1, "Local"}, {2, "Remote"}}) {
    snmp_free_varbind(std::exchange(hint_.indexes, nullptr));
    hint_.number_indexes = 0;
    hintPart(1);
    hintPart(Octets{1, 0, 0, 1});
    hintPart(Octets{2, 0, 0, 3});
    hintPart(3);
    hintPart(1);
    OctetsOutOfRange const refused(first);
    TraceRecorder traces{{"Snmp", "0,2"}};
    EXPECT_EQ(firstWithHint(), 2) << "the first row";
    EXPECT_EQ(traces.texts(0),
              std::vector<std::string>{"hint for index tunnelInetConfig" + name +
                                       "Address of tunnelInetConfigTable is out of range! octets "
                                       "of a test"});
    EXPECT_TRUE(traces.has(2, "hint component tunnelInetConfigID is '1'"));
    EXPECT_TRUE(traces.has(
        2, "tunnelInetConfigTable_get_first_data_point - needed 5 components, found only 4"));
    leave();
  }
}

TEST_F(TunnelInetConfigCallbacks, TraceANegativeNumberAsUnsigned) {
  hintWithNumbers(1, -2, 1);
  TraceRecorder traces{{"Snmp", "2"}};
  firstWithHint();
  EXPECT_TRUE(traces.has(2, "hint component tunnelInetConfigEncapsMethod is '4294967294'"));
}

TEST_F(TunnelInetConfigCallbacks, GiveTheEncodersTheRoomThatAnIndexMayTake) {
  first();
  EXPECT_EQ(lastCapacityOf("U32ToAsnUnsigned"), 1024u);
  EXPECT_EQ(lastCapacityOf("BytesToAsnOctetString"), 255u);
}

TEST_F(TunnelInetConfigCallbacks, SetNoOctetsWhereTheyDoNotFit) {
  FailingEncoder const failing("BytesToAsnOctetString", -1);
  auto const * answer = firstRow();
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->next_variable->val_len, 0u);
}

TEST_F(TunnelInetConfigCallbacks, TraceNumbersThatFormNoKey) {
  std::tuple<long, long, long> const negative[] = {{-1, 3, 1}, {1, -2, 1}, {1, 3, -2147483648}};
  for (auto const & [type, encapsMethod, configId] : negative) {
    snmp_free_varbind(std::exchange(hint_.indexes, nullptr));
    hint_.number_indexes = 0;
    hintWithNumbers(type, encapsMethod, configId);
    TraceRecorder traces{{"Snmp", "0,2"}};
    EXPECT_EQ(firstWithHint(), 2);
    ASSERT_EQ(traces.texts(0).size(), 1u);
    EXPECT_THAT(traces.texts(0)[0],
                MatchesRegex("Bad hint for tunnelInetConfigTable: "
                             "TunnelIntfSnmp::TunnelInetConfigTableKey ctor threw exception: .+"));
    EXPECT_THAT(traces.texts(2), Contains(MatchesRegex(".*hintMatched=false")));
    leave();
  }
}

TEST_F(TunnelInetConfigCallbacks, GoOnBehindARowThatWasDeletedUnderTheWalk) {
  add(7, "10.0.0.1", "10.0.0.5");
  EXPECT_EQ(first(), 2);
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(next(), 3);
  EXPECT_THAT(traces.texts().at(0),
              MatchesRegex("tunnelInetConfigTable_get_next_data_point - advancing loop context " +
                           pointer + " ; data context 0x0"));
  auto const & rows = mib_->tunnelInetConfigTable();
  mib_->tunnelInetConfigTableDel(rows.begin());
  mib_->tunnelInetConfigTableDel(rows.begin());
  add(8, "10.0.0.1", "10.0.0.4");
  add(9, "10.0.0.1", "10.0.0.1");
  EXPECT_EQ(next(), 4);
  EXPECT_EQ(next(), 5);
  EXPECT_EQ(next(), -1);
  EXPECT_EQ(traces.texts().back(), "tunnelInetConfigTableIterationHelper - iterator is at end");
  EXPECT_EQ(next(), -1);
  EXPECT_THAT(traces.texts().back(),
              MatchesRegex("tunnelInetConfigTable_get_next_data_point - at end of loop context " +
                           pointer));
}

TEST_F(TunnelInetConfigCallbacks, PromiseSortedRowsAndOwnTheirInfo) {
  EXPECT_EQ(info_->flags & 3, NETSNMP_ITERATOR_FLAG_SORTED | NETSNMP_HANDLER_OWNS_IINFO);
  EXPECT_EQ(info_->free_loop_context, nullptr);
  EXPECT_EQ(info_->myvoid, mib_.get());
}

// The handler, asked directly

using TunnelInetConfigHandler = TunnelInetConfigCallbacks;

TEST_F(TunnelInetConfigHandler, PassesOverARequestThatIsProcessed) {
  chain_.requests[0].processed = 1;
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(call(), SNMP_ERR_NOERROR);
  EXPECT_THAT(traces.texts().back(), MatchesRegex("tunnelInetConfigTable_handler: request " +
                                                  pointer + " already processed"));
  chain_.agent.mode = MODE_SET_RESERVE1;
  EXPECT_EQ(call(), SNMP_ERR_NOERROR);
  EXPECT_EQ(chain_.requests[0].status, 0);
}

TEST_F(TunnelInetConfigHandler, StopsAtARequestWithoutARow) {
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(call(), SNMP_ERR_NOERROR);
  EXPECT_EQ(traces.texts().back(), "tunnelInetConfigTable_handler: null data context in request");
  EXPECT_EQ(chain_.varbinds[0]->type, ASN_NULL);
}

TEST_F(TunnelInetConfigHandler, TracesAValueThatCannotBeEncoded) {
  for (auto const & [column, name] :
       {std::pair{6u, "ifIndex"}, {7u, "rowStatus"}, {8u, "storageType"}})
    EXPECT_EQ(fault(column, "S32ToAsnInteger"),
              std::string("handle_tunnelInetConfigTable - S32ToAsnInteger failed for: ") + name);
  EXPECT_EQ(lastCapacityOf("S32ToAsnInteger"), 1024u);
}

// SET

TEST_F(TunnelInetConfigTrace, NamesTheColumnOfARefusedSetWhereItShould) {
  for (auto const & [column, name] : {std::pair<oid, std::string>{7, "tunnelInetConfigStatus"},
                                      {8, "tunnelInetConfigStorageType"}}) {
    TraceRecorder traces{{"Snmp", "0,2"}};
    EXPECT_EQ(agent_.set({instance(column, firstIndex)}).errorStatus, SNMP_ERR_NOTWRITABLE);
    EXPECT_TRUE(
        traces.has(2, "tunnelInetConfigTable_handler: SET is not configured for column " + name));
    EXPECT_THAT(traces.texts(0), IsEmpty());
  }
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(agent_.set({instance(6, firstIndex)}).errorStatus, SNMP_ERR_NOTWRITABLE);
  EXPECT_TRUE(traces.has(0, "tunnelInetConfigTable invalid column 6"));
}

} // namespace
} // namespace TunnelIntfSnmp
