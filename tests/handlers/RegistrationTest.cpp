// How tunnelMIB is announced and taken back, context by context.
#include "TunnelIntfSnmp/MibTable.h"
#include "TunnelIntfSnmp/tunnelMIB.h"
#include "TunnelIntfSnmp/velmoraTunnelMIB.h"
#include "tests/handlers/InProcessAgent.h"
#include "tests/support/TraceRecorder.h"
#include <functional>
#include <gmock/gmock.h>

#include <net-snmp/agent/agent_callbacks.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;

class Registration : public ::testing::Test {
protected:
  Registration() {
    InProcessAgent::instance();
    SnmpUtil::entityRootIs([this](std::string_view path) {
      return path == "snmp/tunnelIntf/tunnelMib" ? mounted_ : nullptr;
    });
  }
  ~Registration() override {
    unregister_tunnelMIB("");
    SnmpUtil::entityRootIs({});
  }

  Zel::Ptr<Zel::Entity> mounted_ = Zel::makePtr<TunnelMib>("tunnelMib");
};

TEST_F(Registration, ServesTheDefaultContextAndAnnouncesIt) {
  TraceRecorder traces{{"Snmp", "1,8"}};
  init_tunnelMIB("");
  auto const & registrations = tunnelMIBModule().handlerRegistrations.at("");
  ASSERT_EQ(registrations.size(), 2u);
  EXPECT_EQ(tunnelMIBModule().columnInfos.at("").size(), 2u);
  auto const * first = registrations.front();
  EXPECT_STREQ(registrations.back()->handlerName, "tunnelInetConfigTable_");
  EXPECT_STREQ(first->handlerName, "tunnelIfTable_");
  EXPECT_EQ(first->rootoid_len, 11u);
  EXPECT_EQ(first->modes & 3, HANDLER_CAN_RWRITE);
  EXPECT_EQ(first->my_reg_void, mounted_.get());
  EXPECT_EQ(first->contextName, nullptr);
  EXPECT_STREQ(first->handler->handler_name, "serialize");
  EXPECT_THAT(Snmp::mibContexts(), Contains(Pair("tunnelMIB", "")));
  EXPECT_TRUE(traces.has(
      1,
      "initialize_table_tunnelIfTable initializing oid .1.3.6.1.2.1.10.131.1.1.1 in context \"\""))
      << ::testing::PrintToString(traces.texts(1));
  EXPECT_TRUE(traces.has(8, "Initialized table tunnelIfTable in context \"\""));
}

// What net-snmp was told of one table.
struct Told {
  explicit Told(netsnmp_handler_registration * registration)
      : table(static_cast<netsnmp_iterator_info *>(
                  netsnmp_find_handler_by_name(registration, TABLE_ITERATOR_NAME)->myvoid)
                  ->table_reginfo) {}
  std::vector<unsigned> columns() const {
    auto const * list = table->valid_columns->details.list;
    return {list, list + table->valid_columns->list_count};
  }
  std::vector<int> indexTypes() const {
    std::vector<int> types;
    for (auto const * one = table->indexes; one != nullptr; one = one->next_variable)
      types.push_back(one->type);
    return types;
  }
  netsnmp_table_registration_info const * const table;
};

TEST_F(Registration, TellsNetSnmpTheColumnsAndTheIndexesOfTheInetConfigTable) {
  init_tunnelMIB("");
  auto * registration = tunnelMIBModule().handlerRegistrations.at("").back();
  EXPECT_EQ(std::vector<oid>(registration->rootoid, registration->rootoid + 11),
            (std::vector<oid>{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 3}));
  Told const told(registration);
  EXPECT_EQ(told.table->min_column, 6u);
  EXPECT_EQ(told.table->max_column, 8u);
  EXPECT_THAT(told.columns(), ElementsAre(6, 7, 8));
  EXPECT_THAT(told.indexTypes(),
              ElementsAre(ASN_INTEGER, ASN_OCTET_STR, ASN_OCTET_STR, ASN_INTEGER, ASN_INTEGER));
  EXPECT_EQ(told.table->number_indexes, 5u);
  EXPECT_EQ(told.table->valid_columns, tunnelMIBModule().columnInfos.at("").back());
}

TEST_F(Registration, GivesNetSnmpTheColumnsAndTheIndex) {
  init_tunnelMIB("");
  auto const * columns = tunnelMIBModule().columnInfos.at("").front();
  EXPECT_EQ(columns->isRange, 0);
  EXPECT_THAT(
      std::vector<unsigned>(columns->details.list, columns->details.list + columns->list_count),
      ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
  auto * registration = tunnelMIBModule().handlerRegistrations.at("").front();
  auto const * info = static_cast<netsnmp_iterator_info *>(
      netsnmp_find_handler_by_name(registration, TABLE_ITERATOR_NAME)->myvoid);
  EXPECT_EQ(info->table_reginfo->min_column, 1u);
  EXPECT_EQ(info->table_reginfo->max_column, 11u);
  EXPECT_EQ(info->table_reginfo->number_indexes, 1u);
  EXPECT_EQ(info->table_reginfo->indexes->type, ASN_INTEGER);
}

// The texts of the tables that `init` makes; while they come, the module is not announced.
std::vector<std::string> tablesBeforeAnnouncement(std::string const & module,
                                                  void (*init)(Zel::String)) {
  std::vector<std::string> tables;
  auto const before = Lumo::traceSinkIs([&](Lumo::TraceMessage const & message) {
    tables.emplace_back(message.text);
    EXPECT_THAT(Snmp::mibContexts(), Not(Contains(Pair(module, "")))) << message.text;
  });
  Lumo::traceLevelsIs("Snmp", Lumo::parseLevels("8"));
  init("");
  Lumo::traceLevelsIs("Snmp", 0);
  Lumo::traceSinkIs(before);
  EXPECT_THAT(Snmp::mibContexts(), Contains(Pair(module, "")));
  return tables;
}

TEST_F(Registration, AnnouncesAModuleWhenItsTablesAreThere) {
  EXPECT_THAT(tablesBeforeAnnouncement("tunnelMIB", &init_tunnelMIB),
              ElementsAre("Initialized table tunnelIfTable in context \"\"",
                          "Initialized table tunnelInetConfigTable in context \"\""));
  EXPECT_THAT(tablesBeforeAnnouncement("velmoraTunnelMIB", &init_velmoraTunnelMIB),
              ElementsAre("Initialized table velmoraIpsecTunnelIfTable in context \"\""));
  unregister_velmoraTunnelMIB("");
}

TEST_F(Registration, RefusesANamedContextButAnnouncesIt) {
  TraceRecorder traces{{"Snmp", "2"}};
  init_tunnelMIB("vrf1");
  EXPECT_FALSE(tunnelMIBModule().handlerRegistrations.contains("vrf1"));
  EXPECT_FALSE(tunnelMIBModule().columnInfos.contains("vrf1"));
  EXPECT_THAT(traces.texts(2),
              ElementsAre("initialize_table_tunnelIfTable in context \"vrf1\" "
                          "hivePathWithContext not specified",
                          "initialize_table_tunnelInetConfigTable in context \"vrf1\" "
                          "hivePathWithContext not specified"));
  EXPECT_THAT(Snmp::mibContexts(), Contains(Pair("tunnelMIB", "vrf1")));
  unregister_tunnelMIB("vrf1");
  EXPECT_THAT(Snmp::mibContexts(), Not(Contains(Pair("tunnelMIB", "vrf1"))));
}

TEST_F(Registration, TakesItsTablesBackInTheOrderInWhichTheyCame) {
  init_tunnelMIB("");
  std::vector<oid> tables;
  auto const note = [](int, int, void * told, void * to) {
    auto const & gone = *static_cast<register_parameters const *>(told);
    static_cast<std::vector<oid> *>(to)->push_back(gone.name[gone.namelen - 1]);
    return SNMPERR_SUCCESS;
  };
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_UNREGISTER_OID, note, &tables);
  unregister_tunnelMIB("");
  snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_UNREGISTER_OID, note, &tables,
                           1);
  EXPECT_THAT(tables, ElementsAre(1, 3));
}

TEST_F(Registration, TakesBackAContextThatNeverWas) {
  Snmp::registerMibContext("tunnelMIB", "ghost");
  TraceRecorder traces{{"Snmp", "2"}};
  unregister_tunnelMIB("ghost");
  EXPECT_TRUE(traces.has(2, "Unregistering tunnelMIB in context \"ghost\""));
  EXPECT_FALSE(tunnelMIBModule().handlerRegistrations.contains("ghost"));
  EXPECT_FALSE(tunnelMIBModule().columnInfos.contains("ghost"));
  EXPECT_THAT(Snmp::mibContexts(), Not(Contains(Pair("tunnelMIB", "ghost"))));
}

TEST_F(Registration, CanBeMadeAgainAfterItWasTakenBack) {
  Oid const table{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1};
  dynamic_cast<TunnelMib &>(*mounted_).tunnelIfTableIs(
      4, Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(4)));
  for (int round = 0; round != 3; ++round) {
    init_tunnelMIB("");
    EXPECT_EQ(InProcessAgent::instance().walk(table).size(), 7u);
    unregister_tunnelMIB("");
    EXPECT_THAT(InProcessAgent::instance().walk(table), IsEmpty());
    EXPECT_THAT(tunnelMIBModule().handlerRegistrations, IsEmpty());
    EXPECT_THAT(tunnelMIBModule().columnInfos, IsEmpty());
  }
}

TEST_F(Registration, IsOfferedToTheAgentWhenTheLibraryIsLoaded) {
  ASSERT_FALSE(Snmp::handlerRegistrations().empty());
  Snmp::handlerRegistrations().front()->initHandler("");
  EXPECT_THAT(Snmp::mibContexts(), Contains(Pair("tunnelMIB", "")));
}

// net-snmp's debug output of what `initialise` does, under that token and "trace".
std::string debugOutput(std::string const & token, std::function<void()> const & initialise) {
  snmp_set_do_debugging(1);
  debug_register_tokens((token + ",trace").data());
  snmp_enable_stderrlog();
  ::testing::internal::CaptureStderr();
  initialise();
  auto const output = ::testing::internal::GetCapturedStderr();
  snmp_disable_stderrlog();
  debug_disable_token_logs(token.data());
  snmp_set_do_debugging(0);
  return output;
}

TEST_F(Registration, TellsNetSnmpsDebugOutputWhichContextItInitialises) {
  auto const output = debugOutput("tunnelMIB", [] { init_tunnelMIB("vrf2"); });
  EXPECT_THAT(output, HasSubstr("tunnelMIB: Initializing in context \"vrf2\"\n"));
  EXPECT_THAT(output, HasSubstr("trace: init_tunnelMIB(): "));
  unregister_tunnelMIB("vrf2");
}

TEST_F(Registration, TellsItForTheVendorModuleUnderItsOwnToken) {
  auto const output = debugOutput("velmoraTunnelMIB", [] { init_velmoraTunnelMIB("vrf2"); });
  EXPECT_THAT(output, HasSubstr("velmoraTunnelMIB: Initializing in context \"vrf2\"\n"));
  EXPECT_THAT(output, HasSubstr("trace: init_velmoraTunnelMIB(): "));
  unregister_velmoraTunnelMIB("vrf2");
}

using RegistrationDeathTest = Registration;

TEST_F(RegistrationDeathTest, EndsTheProcessWhenNothingIsMounted) {
  mounted_ = nullptr;
  EXPECT_DEATH(init_tunnelMIB(""),
               "^Can not getEntityRelative\\( snmp/tunnelIntf/tunnelMib \\) for table "
               "tunnelIfTable. Is this path correct\\?\nfatal: e: ");
}

TEST_F(RegistrationDeathTest, EndsTheProcessWhenSomethingElseIsMounted) {
  mounted_ = Zel::makePtr<Zel::Entity>("tunnelMib");
  EXPECT_DEATH(init_tunnelMIB(""), "^snmp/tunnelIntf/tunnelMib does not appear to be of type "
                                   "TunnelIntfSnmp::TunnelMib.\nfatal: ptr: ");
}

TEST_F(RegistrationDeathTest, EndsTheProcessWhenAContextIsInitialisedTwice) {
  init_tunnelMIB("");
  EXPECT_DEATH(init_tunnelMIB(""), "fatal: result == 0: ");
}

} // namespace
} // namespace TunnelIntfSnmp
