// velmoraIpsecTunnelIfTable as a manager sees it, and its module's registration.
#include "TunnelIntfSnmp/MibTable.h"
#include "TunnelIntfSnmp/velmoraTunnelMIB.h"
#include "tests/handlers/TableFixture.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::Pair;

Oid const tableOid{1, 3, 6, 1, 4, 1, VELMORA_ENTERPRISE_NUMBER, 3, 34, 1, 1};
std::string const table = "velmoraIpsecTunnelIfTable";

Oid instance(oid column, oid ifIndex) {
  auto name = tableOid;
  name.insert(name.end(), {1, column, ifIndex});
  return name;
}

class VelmoraTable : public TableFixture {
protected:
  static constexpr Netsnmp_Node_Handler * handler = velmoraIpsecTunnelIfTable_handler;

  VelmoraTable() : TableFixture(init_velmoraTunnelMIB, unregister_velmoraTunnelMIB) {}
  static netsnmp_handler_registration * registration() {
    return velmoraTunnelMIBModule().handlerRegistrations.at("").front();
  }

  // A row whose interface is in the state `state` of profile "p".
  void add(std::uint32_t ifIndex, Ipsec::Ike::ConnState state) {
    Plexa::IntfId const id(ifIndex);
    mib_->ipsecTunnelIfTableIs(ifIndex, Zel::makePtr<Interface::TunnelIntfStatus>(id), ike_);
    setState(id, state);
  }
  void setState(Plexa::IntfId id, Ipsec::Ike::ConnState state) {
    auto info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
    info->profileNameIs("p");
    ike_->ipsecTunnelInfoIs(id, info);
    if (ike_->appliedProfiles().empty())
      ike_->appliedProfilesIs("p", profile_);
    auto applied = Zel::makePtr<Ipsec::Ike::IpsecTunnelProfileInfo>();
    applied->connStateIs(state);
    profile_->appliedIntfIdIs(id, applied);
  }

  Zel::Ptr<Ipsec::Ike::Status> ike_ = Zel::makePtr<Ipsec::Ike::Status>("ikeStatus");
  Zel::Ptr<Ipsec::Ike::IpsecProfileConnectionMap> profile_ =
      Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
};

TEST_F(VelmoraTable, AnswersEachGetAndEachGetNextOfTheOrderedListOfInstances) {
  using Ipsec::Ike::ConnState;
  std::pair<std::uint32_t, ConnState> const rows[] = {{9, ConnState::closing},
                                                      {2, ConnState::up},
                                                      {5, ConnState::unknown},
                                                      {2147483647, ConnState::down}};
  for (auto const & [ifIndex, state] : rows)
    add(ifIndex, state);
  std::vector<Varbind> const list{{instance(1, 2), ASN_INTEGER, 4, ""},
                                  {instance(1, 5), ASN_INTEGER, 0, ""},
                                  {instance(1, 9), ASN_INTEGER, 6, ""},
                                  {instance(1, 2147483647), ASN_INTEGER, 1, ""}};
  EXPECT_EQ(agent_.walk(tableOid), list);
  auto previous = tableOid;
  for (auto const & one : list) {
    EXPECT_THAT(agent_.get({one.name}).varbinds, ElementsAre(one));
    EXPECT_THAT(agent_.getNext({previous}).varbinds, ElementsAre(one));
    previous = one.name;
  }
  for (int const repetitions : {1, 10, 1000})
    EXPECT_EQ(agent_.getBulk({tableOid}, 0, repetitions).varbinds.front(), list.front());
}

TEST_F(VelmoraTable, FollowsTheIkeRecordsAtTheMomentOfReading) {
  add(2, Ipsec::Ike::ConnState::up);
  auto const read = [&] { return agent_.get({instance(1, 2)}).varbinds.at(0).integer; };
  EXPECT_EQ(read(), 4);
  profile_->appliedIntfId()
      .find(Plexa::IntfId(2))
      ->get()
      ->connStateIs(Ipsec::Ike::ConnState::connecting);
  EXPECT_EQ(read(), 2);
  TraceRecorder traces{{"TunnelIntfSnmp", "5"}};
  profile_->appliedIntfIdDel(Plexa::IntfId(2));
  EXPECT_EQ(read(), 0);
  ike_->appliedProfilesDel("p");
  EXPECT_EQ(read(), 0);
  ike_->ipsecTunnelInfoDel(Plexa::IntfId(2));
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(traces.texts(), ElementsAre("No appliedIntfId tunnelProfileInfo for intfId 2",
                                          "No appliedProfile profileConnectionMap for profile p",
                                          "No tunnelInfo for 2"));
  ike_->appliedProfilesIs("renamed", profile_);
  setState(Plexa::IntfId(2), Ipsec::Ike::ConnState::rekeying);
  ike_->ipsecTunnelInfo().find(Plexa::IntfId(2))->get()->profileNameIs("renamed");
  EXPECT_EQ(read(), 5);
}

TEST_F(VelmoraTable, ServesNoOtherColumnAndNoMissingRow) {
  add(2, Ipsec::Ike::ConnState::up);
  EXPECT_EQ(agent_.get({instance(2, 2)}).varbinds.at(0).type, SNMP_NOSUCHOBJECT);
  EXPECT_EQ(agent_.get({instance(1, 3)}).varbinds.at(0).type, SNMP_NOSUCHINSTANCE);
}

TEST_F(VelmoraTable, RefusesEverySetThroughTheInvalidColumn) {
  add(2, Ipsec::Ike::ConnState::up);
  TraceRecorder traces{{"Snmp", "0,2"}};
  EXPECT_EQ(agent_.set({instance(1, 2)}).errorStatus, SNMP_ERR_NOTWRITABLE);
  EXPECT_EQ(agent_.set({instance(1, 99)}).errorStatus, SNMP_ERR_NOTWRITABLE);
  EXPECT_TRUE(traces.has(0, table + " invalid column 1"));
  for (auto const & text : traces.texts())
    EXPECT_THAT(text, Not(::testing::HasSubstr("SET is not configured")));
}

using VelmoraSteps = WithEachFinder<VelmoraTable>;
INSTANTIATE_TEST_SUITE_P(Finders, VelmoraSteps, eachFinder, finderName);

TEST_P(VelmoraSteps, AreTracedInOrder) {
  add(2, Ipsec::Ike::ConnState::up);
  TraceRecorder traces{{"Snmp", "2"}};
  agent_.get({instance(1, 2)});
  auto const pointer = std::string("0x[0-9a-f]+");
  std::vector<std::string> const lines{
      table + "_get_first_data_point - \\*hint = " + pointer + ", number_indexes = 1",
      "hint component ifIndex is '2'",
      table + "_get_first_data_point - allocated new loop context " + pointer +
          ", hintMatched=true",
      table + "IterationHelper - iterator has another value: ifIndex=2",
      table + "_make_data_context - allocated data context " + pointer + " for loop context " +
          pointer,
      table + "_free_loop_context_at_end " + pointer,
      table + "_handler",
      table + "_handler: request mode 160",
      table + "_handler: request GET for column velmoraIpsecTunnelIfConnState, key 2",
      table + "_free_data_context " + pointer};
  auto const texts = traces.texts();
  ASSERT_EQ(texts.size(), lines.size());
  for (std::size_t i = 0; i != lines.size(); ++i)
    EXPECT_THAT(texts[i], MatchesRegex(lines[i]));
}

TEST_F(VelmoraTable, TracesUnusableHintsAndMissesByItsOwnName) {
  add(2, Ipsec::Ike::ConnState::up);
  TraceRecorder traces{{"Snmp", "0,2"}};
  agent_.get({instance(1, 3)});
  agent_.get({instance(1, 4294967295)});
  EXPECT_TRUE(traces.has(2, table + "_get_first_data_point - key '3' not found in table"));
  EXPECT_TRUE(traces.has(2, table + "IterationHelper - iterator is at end"));
  EXPECT_TRUE(traces.has(0, "hint for index ifIndex of " + table +
                                " is out of range! 4294967295 does not fit into 32 bits with a "
                                "sign"));
}

using VelmoraHandler = WithHandler<VelmoraTable>;

TEST_F(VelmoraHandler, TracesAStateThatCannotBeEncoded) {
  add(2, Ipsec::Ike::ConnState::up);
  EXPECT_EQ(fault(1, "U32ToAsnUnsigned"),
            "handle_velmoraIpsecTunnelIfTable - U32ToAsnUnsigned failed for: connState");
}

TEST_F(VelmoraTable, IsRegisteredForTheDefaultContextOnly) {
  auto const & module = velmoraTunnelMIBModule();
  ASSERT_EQ(module.handlerRegistrations.at("").size(), 1u);
  auto const * registration = module.handlerRegistrations.at("").front();
  EXPECT_STREQ(registration->handlerName, "velmoraIpsecTunnelIfTable_");
  EXPECT_EQ(Oid(registration->rootoid, registration->rootoid + registration->rootoid_len),
            tableOid);
  auto const * columns = module.columnInfos.at("").front();
  ASSERT_EQ(columns->list_count, 1);
  EXPECT_EQ(columns->details.list[0], 1u);
  EXPECT_THAT(Snmp::mibContexts(), Contains(Pair("velmoraTunnelMIB", "")));
  TraceRecorder traces{{"Snmp", "1,2,8"}};
  init_velmoraTunnelMIB("vrf1");
  EXPECT_FALSE(module.handlerRegistrations.contains("vrf1"));
  EXPECT_TRUE(traces.has(2, "initialize_table_velmoraIpsecTunnelIfTable in context \"vrf1\" "
                            "hivePathWithContext not specified"));
  unregister_velmoraTunnelMIB("vrf1");
  EXPECT_TRUE(traces.has(2, "Unregistering velmoraTunnelMIB in context \"vrf1\""));
  unregister_velmoraTunnelMIB("");
  EXPECT_THAT(agent_.walk(tableOid), IsEmpty());
  init_velmoraTunnelMIB("");
  EXPECT_TRUE(traces.has(8, "Initialized table velmoraIpsecTunnelIfTable in context \"\""));
}

TEST_F(VelmoraTable, IsInitialisedByTheObjectThatTheAgentFinds) {
  unregister_velmoraTunnelMIB("");
  for (auto * registration : Snmp::handlerRegistrations())
    registration->initHandler("vrf7");
  EXPECT_THAT(Snmp::mibContexts(), Contains(Pair("velmoraTunnelMIB", "vrf7")));
  EXPECT_THAT(Snmp::mibContexts(), Contains(Pair("tunnelMIB", "vrf7")));
  Snmp::unregisterMibContext("velmoraTunnelMIB", "vrf7");
  Snmp::unregisterMibContext("tunnelMIB", "vrf7");
}

} // namespace
} // namespace TunnelIntfSnmp
