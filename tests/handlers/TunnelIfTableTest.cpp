// tunnelIfTable as a manager sees it: registration, walks, answers, refusals, and their traces.
#include "TunnelIntfSnmp/MibTable.h"
#include "TunnelIntfSnmp/tunnelMIB.h"
#include "tests/handlers/TableFixture.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

Oid const tableOid{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1};
constexpr unsigned servedColumns[] = {3, 4, 5, 6, 8, 9, 10};

Oid instance(oid column, oid ifIndex) {
  auto name = tableOid;
  name.insert(name.end(), {1, column, ifIndex});
  return name;
}

Plexa::IpGenAddr address(char const * text) {
  return *Plexa::IpGenAddr::fromString(text);
}

class TunnelIfTable : public TableFixture {
protected:
  static constexpr Netsnmp_Node_Handler * handler = tunnelIfTable_handler;

  TunnelIfTable() : TableFixture(init_tunnelMIB, unregister_tunnelMIB) {}
  static netsnmp_handler_registration * registration() {
    return tunnelMIBModule().handlerRegistrations.at("").front();
  }

  Zel::Ptr<Interface::TunnelIntfStatus> add(std::uint32_t ifIndex, char const * source = "10.0.0.1",
                                            char const * destination = "10.0.0.2") {
    auto status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(ifIndex));
    status->srcAddrIs(address(source));
    status->dstAddrIs(address(destination));
    status->modeIs(Plexa::TunnelIntfMode::gre);
    status->hopLimitIs(64);
    status->tosIs(46);
    mib_->tunnelIfTableIs(ifIndex, status);
    return status;
  }

  // Every instance that the rows call for, in order.
  std::vector<Varbind> expected() const {
    std::vector<Varbind> all;
    for (auto const column : servedColumns)
      for (auto const & [ifIndex, row] : mib_->tunnelIfTable())
        all.push_back(cell(column, ifIndex, *row->tunnelIntfStatus()));
    return all;
  }

  static Varbind cell(unsigned column, std::uint32_t ifIndex,
                      Interface::TunnelIntfStatus const & status) {
    auto const name = instance(column, ifIndex);
    auto const integer = [&](long value) { return Varbind{name, ASN_INTEGER, value, ""}; };
    auto const octets = [&](Plexa::IpGenAddr const & from) {
      return Varbind{name, ASN_OCTET_STR, 0, {from.octets().begin(), from.octets().end()}};
    };
    switch (column) {
    case 3:
      return integer(status.mode() == Plexa::TunnelIntfMode::gre      ? 3
                     : status.mode() == Plexa::TunnelIntfMode::direct ? 2
                                                                      : 1);
    case 4:
      return integer(status.hopLimit());
    case 5:
      return integer(status.ipsec() ? 2 : 1);
    case 6:
      return integer(status.tos());
    case 8:
      return integer(static_cast<long>(status.srcAddr().family() != Plexa::AddressFamily::none
                                           ? status.srcAddr().family()
                                           : status.dstAddr().family()));
    case 9:
      return octets(status.srcAddr());
    default:
      return octets(status.dstAddr());
    }
  }
};

// As one ordered list

TEST_F(TunnelIfTable, IsEmptyToAWalkWhileThereAreNoRows) {
  EXPECT_THAT(agent_.walk(tableOid), IsEmpty());
  EXPECT_EQ(agent_.get({instance(4, 1)}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
}

TEST_F(TunnelIfTable, AnswersEachGetAndEachGetNextOfTheOrderedListOfInstances) {
  add(7)->modeIs(Plexa::TunnelIntfMode::direct);
  add(5, "2001:db8::1", "2001:db8::2")->ipsecIs(true);
  add(9, "", "2001:db8::9")->modeIs(Plexa::TunnelIntfMode::vti);
  add(2147483647, "", "");
  auto const list = expected();
  ASSERT_EQ(list.size(), 28u);
  for (auto const & one : list)
    EXPECT_THAT(agent_.get({one.name}).varbinds, ElementsAre(one));
  auto previous = tableOid;
  for (auto const & one : list) {
    EXPECT_THAT(agent_.getNext({previous}).varbinds, ElementsAre(one));
    previous = one.name;
  }
  auto const behind = agent_.getNext({previous}).varbinds.at(0);
  EXPECT_TRUE(behind.type == SNMP_ENDOFMIBVIEW ||
              !std::equal(tableOid.begin(), tableOid.end(), behind.name.begin()));
  EXPECT_EQ(agent_.walk(tableOid), list);
}

TEST_F(TunnelIfTable, DeliversEveryServedColumnOnceToBulkWalksOfAnySize) {
  for (std::uint32_t ifIndex = 1; ifIndex <= 20; ++ifIndex)
    add(ifIndex * 3);
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

TEST_F(TunnelIfTable, WalksInSnmpVersion1AsWell) {
  add(4);
  auto const answer = agent_.getNext({tableOid}, SNMP_VERSION_1);
  EXPECT_THAT(answer.varbinds, ElementsAre(expected().front()));
}

TEST_F(TunnelIfTable, FollowsTheStatusRecordWithoutBeingWrittenAgain) {
  auto const status = add(4);
  status->hopLimitIs(9);
  EXPECT_EQ(agent_.get({instance(4, 4)}).varbinds.at(0).integer, 9);
}

TEST_F(TunnelIfTable, ServesNeitherColumn1Nor2Nor7Nor11) {
  add(4);
  TraceRecorder traces{{"Snmp", "0"}};
  for (unsigned const column : {1, 2, 7, 11}) {
    EXPECT_EQ(agent_.get({instance(column, 4)}).varbinds.at(0).type, SNMP_NOSUCHOBJECT) << column;
    EXPECT_TRUE(traces.has(0, "tunnelIfTable invalid column " + std::to_string(column)));
  }
  EXPECT_EQ(agent_.get({instance(12, 4)}).varbinds.at(0).type, SNMP_NOSUCHOBJECT);
  EXPECT_EQ(agent_.get({instance(1, 5)}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE)
      << "of a missing row";
  EXPECT_EQ(agent_.get({instance(1, 4)}, SNMP_VERSION_1).errorStatus, SNMP_ERR_NOSUCHNAME);
}

TEST_F(TunnelIfTable, AnswersSeveralVarbindsOnDifferentRowsInAnyOrder) {
  for (std::uint32_t const ifIndex : {2, 4, 6})
    add(ifIndex)->hopLimitIs(static_cast<std::uint8_t>(ifIndex));
  auto const answer = agent_.get({instance(4, 6), instance(4, 2), instance(4, 4)});
  EXPECT_EQ(answer.varbinds.at(0).integer, 6);
  EXPECT_EQ(answer.varbinds.at(1).integer, 2);
  EXPECT_EQ(answer.varbinds.at(2).integer, 4);
}

TEST_F(TunnelIfTable, SurvivesEveryUnusableIndex) {
  add(5);
  auto tooLong = instance(4, 5);
  tooLong.push_back(1);
  auto tooShort = instance(4, 5);
  tooShort.pop_back();
  EXPECT_EQ(agent_.get({tooLong}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
  EXPECT_EQ(agent_.get({tooShort}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
  EXPECT_EQ(agent_.get({instance(4, 4294967295)}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
  EXPECT_EQ(agent_.getNext({instance(4, 4294967295)}).varbinds.at(0).name, instance(5, 5));
  EXPECT_EQ(agent_.getNext({tooLong}).varbinds.at(0).name, instance(5, 5));
}

TEST_F(TunnelIfTable, KeepsARowReadableThatGoesWhileItIsAsked) {
  add(5);
  add(7);
  // The row goes between the iterator's finding it and the end of the PDU: two varbinds, and the
  // trace of the first one deletes.
  auto const before = Lumo::traceSinkIs([this](Lumo::TraceMessage const & message) {
    if (message.text.find("request GET for column") != std::string_view::npos)
      mib_->tunnelIfTableDel(5);
  });
  Lumo::traceLevelsIs("Snmp", Lumo::parseLevels("2"));
  auto const answer = agent_.get({instance(4, 5), instance(4, 7)});
  Lumo::traceLevelsIs("Snmp", 0);
  Lumo::traceSinkIs(before);
  EXPECT_EQ(answer.varbinds.at(0).integer, 64);
  EXPECT_EQ(answer.varbinds.at(1).integer, 64);
  EXPECT_FALSE(mib_->tunnelIfTable(5));
}

// Where a walk starts

TEST_F(TunnelIfTable, StartsAtTheRowThatTheIndexNamesExactly) {
  for (std::uint32_t const ifIndex : {5, 7, 9})
    add(ifIndex);
  TraceRecorder traces{{"Snmp", "2"}};
  agent_.get({instance(4, 7)});
  auto const texts = traces.texts();
  EXPECT_TRUE(traces.has(2, "hint component ifIndex is '7'"));
  EXPECT_TRUE(
      traces.has(2, "tunnelIfTableIterationHelper - iterator has another value: ifIndex=7"));
  EXPECT_FALSE(
      traces.has(2, "tunnelIfTableIterationHelper - iterator has another value: ifIndex=5"));
  EXPECT_THAT(texts, ::testing::Contains(::testing::ContainsRegex(
                         "^tunnelIfTable_get_first_data_point - allocated new loop context "
                         "0x[0-9a-f]+, hintMatched=true$")));
}

TEST_F(TunnelIfTable, StartsAtTheFirstRowWhenNoRowIsNamedExactly) {
  for (std::uint32_t const ifIndex : {5, 7, 9})
    add(ifIndex);
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(agent_.getNext({instance(4, 6)}).varbinds.at(0).name, instance(4, 7));
  EXPECT_TRUE(traces.has(2, "tunnelIfTable_get_first_data_point - key '6' not found in table"));
  EXPECT_TRUE(
      traces.has(2, "tunnelIfTableIterationHelper - iterator has another value: ifIndex=5"));
}

TEST_F(TunnelIfTable, DropsAHintThatDoesNotFitIntoASignedNumber) {
  add(5);
  TraceRecorder traces{{"Snmp", "0"}};
  agent_.get({instance(4, 4294967295)});
  EXPECT_TRUE(traces.has(0, "hint for index ifIndex of tunnelIfTable is out of range! 4294967295 "
                            "does not fit into 32 bits with a sign"));
}

using TunnelIfTableSteps = WithEachFinder<TunnelIfTable>;
INSTANTIATE_TEST_SUITE_P(Finders, TunnelIfTableSteps, eachFinder, finderName);

TEST_P(TunnelIfTableSteps, AreTracedInOrder) {
  add(5);
  TraceRecorder traces{{"Snmp", "2"}};
  agent_.get({instance(3, 5)});
  auto const pointer = std::string("0x[0-9a-f]+");
  std::vector<std::string> const expectedLines{
      "tunnelIfTable_get_first_data_point - \\*hint = " + pointer + ", number_indexes = 1",
      "hint component ifIndex is '5'",
      "tunnelIfTable_get_first_data_point - allocated new loop context " + pointer +
          ", hintMatched=true",
      "tunnelIfTableIterationHelper - iterator has another value: ifIndex=5",
      "tunnelIfTable_make_data_context - allocated data context " + pointer + " for loop context " +
          pointer,
      "tunnelIfTable_free_loop_context_at_end " + pointer,
      "tunnelIfTable_handler",
      "tunnelIfTable_handler: request mode 160",
      "tunnelIfTable_handler: request GET for column tunnelIfEncapsMethod, key 5",
      "tunnelIfTable_free_data_context " + pointer};
  auto const texts = traces.texts();
  ASSERT_EQ(texts.size(), expectedLines.size());
  for (std::size_t i = 0; i != texts.size(); ++i)
    EXPECT_THAT(texts[i], ::testing::MatchesRegex(expectedLines[i]));
}

TEST_F(TunnelIfTable, NamesEachServedColumnInItsTrace) {
  add(5);
  TraceRecorder traces{{"Snmp", "2"}};
  agent_.walk(tableOid);
  for (char const * name :
       {"tunnelIfEncapsMethod", "tunnelIfHopLimit", "tunnelIfSecurity", "tunnelIfTOS",
        "tunnelIfAddressType", "tunnelIfLocalInetAddress", "tunnelIfRemoteInetAddress"})
    EXPECT_TRUE(traces.has(2, std::string("tunnelIfTable_handler: request GET for column ") + name +
                                  ", key 5"));
}

// Callbacks, asked directly for what no manager can make the iterator ask

class TunnelIfTableCallbacks : public WithCallbacks<TunnelIfTable> {
protected:
  static long ifIndex(netsnmp_variable_list const * row) {
    return row == nullptr ? -1 : *row->val.integer;
  }
  long first() { return ifIndex(firstRow()); }
  long next() { return ifIndex(nextRow()); }
};

TEST_F(TunnelIfTableCallbacks, TakeANullSlotForNoHint) {
  add(5);
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(first(), 5);
  EXPECT_TRUE(
      traces.has(2, "tunnelIfTable_get_first_data_point - *hint = 0x0, number_indexes = 0"));
}

TEST_F(TunnelIfTableCallbacks, ReplaceTheHintOnAnEmptyTableToo) {
  loop_ = &hint_;
  EXPECT_EQ(first(), -1);
  EXPECT_NE(loop_, &hint_);
  EXPECT_NE(loop_, nullptr);
}

TEST_F(TunnelIfTableCallbacks, TraceAHintThatPromisesAnIndexAndHasNone) {
  add(5);
  hint_.number_indexes = 1;
  loop_ = &hint_;
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(first(), 5);
  EXPECT_TRUE(
      traces.has(2, "tunnelIfTable_get_first_data_point - needed 1 components,found only 0"));
}

TEST_F(TunnelIfTableCallbacks, TraceAHintOfTheWrongType) {
  add(5);
  hintPart(std::vector<std::uint8_t>{'x'});
  loop_ = &hint_;
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(first(), 5);
  EXPECT_TRUE(traces.has(0, "hint for ifIndex has incorrect type! Expecting 2 but got 4"));
  EXPECT_TRUE(
      traces.has(2, "tunnelIfTable_get_first_data_point - needed 1 components,found only 0"));
}

TEST_F(TunnelIfTableCallbacks, MakeNothingOfAHintOfTwoParts) {
  add(5);
  add(7);
  hintPart(7);
  hintPart(1);
  loop_ = &hint_;
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(first(), 5) << "the first row";
  EXPECT_THAT(traces.texts(), ElementsAre(MatchesRegex(".* number_indexes = 2"),
                                          MatchesRegex(".* hintMatched=false"),
                                          MatchesRegex(".* another value: ifIndex=5")));
}

TEST_F(TunnelIfTableCallbacks, GoOnBehindARowThatWasDeletedUnderTheWalk) {
  for (std::uint32_t const ifIndex : {5, 7, 9})
    add(ifIndex);
  EXPECT_EQ(first(), 5);
  EXPECT_EQ(next(), 7);
  mib_->tunnelIfTableDel(7);
  mib_->tunnelIfTableDel(5);
  add(8);
  EXPECT_EQ(next(), 8);
  EXPECT_EQ(next(), 9);
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(next(), -1);
  EXPECT_TRUE(traces.has(2, "tunnelIfTableIterationHelper - iterator is at end"));
  EXPECT_EQ(next(), -1);
  EXPECT_THAT(traces.texts().back(),
              ::testing::MatchesRegex(
                  "tunnelIfTable_get_next_data_point - at end of loop context 0x[0-9a-f]+"));
}

TEST_F(TunnelIfTableCallbacks, PromiseSortedRowsAndOwnTheirInfo) {
  EXPECT_EQ(info_->flags & 3, NETSNMP_ITERATOR_FLAG_SORTED | NETSNMP_HANDLER_OWNS_IINFO);
  EXPECT_EQ(info_->free_loop_context, nullptr);
  EXPECT_EQ(info_->myvoid, mib_.get());
}

TEST_F(TunnelIfTableCallbacks, AnswerARowWithoutStatusFromEmptyValues) {
  mib_->tunnelIfTableIs(3, nullptr);
  for (unsigned const column : {4, 6})
    EXPECT_EQ(agent_.get({instance(column, 3)}).varbinds.at(0).integer, 0);
  for (unsigned const column : {9, 10}) {
    auto const answer = agent_.get({instance(column, 3)}).varbinds.at(0);
    EXPECT_EQ(answer.type, ASN_OCTET_STR);
    EXPECT_EQ(answer.octets, "");
  }
}

// The handler, asked directly

using TunnelIfTableHandler = WithHandler<TunnelIfTable>;

TEST_F(TunnelIfTableHandler, PassesOverARequestThatIsProcessed) {
  chain_.requests[0].processed = 1;
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(call(), SNMP_ERR_NOERROR);
  EXPECT_THAT(
      traces.texts().back(),
      ::testing::MatchesRegex("tunnelIfTable_handler: request 0x[0-9a-f]+ already processed"));
  chain_.agent.mode = MODE_SET_RESERVE1;
  EXPECT_EQ(call(), SNMP_ERR_NOERROR);
  EXPECT_EQ(chain_.requests[0].status, 0);
}

TEST_F(TunnelIfTableHandler, StopsAtARequestWithoutARow) {
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(call(), SNMP_ERR_NOERROR);
  EXPECT_EQ(traces.texts().back(), "tunnelIfTable_handler: null data context in request");
  EXPECT_EQ(chain_.varbinds[0]->type, ASN_NULL);
}

TEST_F(TunnelIfTableHandler, TracesAValueThatCannotBeEncoded) {
  add(5);
  std::pair<unsigned, std::string> const integers[] = {
      {3, "encapsMethod"}, {4, "hopLimit"}, {5, "security"}, {6, "tos"}, {8, "addrType"}};
  for (auto const & [column, name] : integers)
    EXPECT_EQ(fault(column, "U32ToAsnUnsigned"),
              "handle_tunnelIfTable - U32ToAsnUnsigned failed for: " + name);
  for (auto const & [column, name] : {std::pair{9u, "localAddr"}, {10u, "remoteAddr"}})
    EXPECT_EQ(fault(column, "PlexaIpGenAddrToAsnOctetString"),
              std::string("handle_tunnelIfTable - PlexaIpGenAddrToAsnOctetString failed for: ") +
                  name);
}

TEST_F(TunnelIfTableHandler, TracesAnAddressThatIsTooLong) {
  add(5);
  auto config = Zel::makePtr<Snmp::Config>();
  config->systemName = "branch-7";
  SnmpUtil::snmpConfigIs(config);
  for (auto const & [column, name] : {std::pair{9u, "localAddr"}, {10u, "remoteAddr"}})
    EXPECT_EQ(fault(column, "PlexaIpGenAddrToAsnOctetString", 256),
              std::string("handle_tunnelIfTable - entity /branch-7/snmp/tunnelIntf/tunnelMib "
                          "length out of range: ") +
                  name + " (256)");
}

TEST_F(TunnelIfTableCallbacks, SayThatTheyGoOn) {
  add(5);
  add(7);
  first();
  TraceRecorder traces{{"Snmp", "2"}};
  EXPECT_EQ(next(), 7);
  EXPECT_THAT(traces.texts().front(),
              ::testing::MatchesRegex("tunnelIfTable_get_next_data_point - advancing loop context "
                                      "0x[0-9a-f]+ ; data context 0x0"));
}

// Several requests in one call, as without the serialize handler

class SeveralRequests : public WithHandler<TunnelIfTable> {
protected:
  SeveralRequests() {
    add(5);
    firstRow();
    row5_ = info_->make_data_context(loop_, info_);
  }
  ~SeveralRequests() override { info_->free_data_context(row5_, info_); }

  void * row5_;
};

TEST_F(SeveralRequests, GiveTheEncodersTheRoomThatAValueMayTake) {
  Chain chain(2);
  chain.found(0, row5_, 3);
  chain.found(1, row5_, 9);
  EXPECT_EQ(call(chain), SNMP_ERR_NOERROR);
  EXPECT_EQ(lastCapacityOf("U32ToAsnUnsigned"), 1024u);
  EXPECT_EQ(lastCapacityOf("PlexaIpGenAddrToAsnOctetString"), 255u);
}

TEST_F(SeveralRequests, TakeAnAddressOfAsManyOctetsAsThereIsRoomFor) {
  Chain chain(1);
  chain.found(0, row5_, 9);
  FailingEncoder const full("PlexaIpGenAddrToAsnOctetString", 255);
  EXPECT_EQ(call(chain), SNMP_ERR_NOERROR);
  EXPECT_EQ(chain.varbinds[0]->val_len, 255u);
}

TEST_F(SeveralRequests, GiveTheFirstOneTheErrorOfWhicheverFailed) {
  Chain chain(3);
  chain.found(0, row5_, 3);
  chain.found(1, row5_, 9);
  chain.found(2, row5_, 3);
  FailingEncoder const failing("PlexaIpGenAddrToAsnOctetString", -1);
  EXPECT_EQ(call(chain), SNMP_ERR_GENERR);
  EXPECT_EQ(chain.requests[0].status, SNMP_ERR_GENERR);
  EXPECT_EQ(chain.requests[1].status, 0);
  EXPECT_EQ(chain.varbinds[2]->type, ASN_NULL) << "not answered";
}

TEST_F(SeveralRequests, EndAtARequestWithoutRow) {
  Chain chain(3);
  chain.found(0, row5_, 3);
  chain.found(1, nullptr, 3);
  chain.found(2, row5_, 3);
  EXPECT_EQ(call(chain), SNMP_ERR_NOERROR);
  EXPECT_EQ(chain.varbinds[0]->type, ASN_INTEGER);
  EXPECT_EQ(chain.varbinds[2]->type, ASN_NULL);
}

TEST_F(SeveralRequests, EndAtAColumnThatIsNotServed) {
  Chain chain(3);
  chain.found(0, row5_, 3);
  chain.found(1, row5_, 7);
  chain.found(2, row5_, 3);
  EXPECT_EQ(call(chain), SNMP_ERR_NOERROR);
  EXPECT_EQ(chain.varbinds[1]->type, SNMP_NOSUCHOBJECT);
  EXPECT_EQ(chain.varbinds[2]->type, ASN_NULL);
}

TEST_F(SeveralRequests, RefuseTheFirstSetThatNobodyAnswered) {
  Chain chain(3, MODE_SET_RESERVE1);
  for (std::size_t i = 0; i != 3; ++i)
    chain.found(i, nullptr, 4);
  chain.requests[0].processed = 1;
  EXPECT_EQ(call(chain), SNMP_ERR_NOERROR);
  EXPECT_EQ(chain.requests[0].status, 0);
  EXPECT_EQ(chain.requests[1].status, SNMP_ERR_NOTWRITABLE);
  EXPECT_EQ(chain.requests[2].status, 0);
}

TEST_F(TunnelIfTable, WalksOnPastAnIfIndexBeyondInterfaceIndex) {
  for (std::uint32_t const ifIndex : {5u, 3000000000u, 4294967295u})
    add(ifIndex);
  EXPECT_EQ(agent_.walk(tableOid), expected());
  EXPECT_EQ(agent_.get({instance(4, 3000000000u)}).varbinds.at(0).integer, 64);
}

// SET

TEST_F(TunnelIfTable, RefusesEverySetAndNamesTheColumnWhereItShould) {
  add(4);
  std::pair<unsigned, std::string> const named[] = {
      {4, "tunnelIfHopLimit"},         {6, "tunnelIfTOS"},
      {7, "tunnelIfFlowLabel"},        {8, "tunnelIfAddressType"},
      {9, "tunnelIfLocalInetAddress"}, {10, "tunnelIfRemoteInetAddress"},
      {11, "tunnelIfEncapsLimit"}};
  for (auto const & [column, name] : named) {
    TraceRecorder traces{{"Snmp", "0,2"}};
    auto const answer = agent_.set({instance(column, 4)});
    EXPECT_EQ(answer.errorStatus, SNMP_ERR_NOTWRITABLE) << column;
    EXPECT_EQ(answer.errorIndex, 1);
    EXPECT_TRUE(traces.has(2, "tunnelIfTable_handler: SET is not configured for column " + name));
    EXPECT_THAT(traces.texts(0), IsEmpty());
  }
  for (unsigned const column : {1, 2, 3, 5}) {
    TraceRecorder traces{{"Snmp", "0,2"}};
    EXPECT_EQ(agent_.set({instance(column, 4)}).errorStatus, SNMP_ERR_NOTWRITABLE) << column;
    EXPECT_TRUE(traces.has(0, "tunnelIfTable invalid column " + std::to_string(column)));
  }
}

TEST_F(TunnelIfTable, RefusesTheSetOfAMissingRow) {
  add(4);
  EXPECT_EQ(agent_.set({instance(4, 9)}).errorStatus, SNMP_ERR_NOTWRITABLE);
}

TEST_F(TunnelIfTable, RefusesASetOfSeveralAndChangesNothing) {
  add(4);
  auto const answer = agent_.set({instance(4, 4), instance(6, 4)});
  EXPECT_EQ(answer.errorStatus, SNMP_ERR_NOTWRITABLE);
  EXPECT_EQ(answer.errorIndex, 1);
  EXPECT_EQ(agent_.walk(tableOid), expected());
}

} // namespace
} // namespace TunnelIntfSnmp
