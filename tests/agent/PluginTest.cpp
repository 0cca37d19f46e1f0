// The real library in a bare process: loaded, registered, unregistered, unloaded, and all again.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "agent/Plugin.h"
#include "platform/Snmp.h"
#include "platform/zel/Type.h"
#include "statedb/StateDb.h"
#include <array>
#include <gmock/gmock.h>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr char const * mibPath = "snmp/tunnelIntf/tunnelMib";

/// net-snmp for the whole program, without files and without a port.
class NetSnmp : public testing::Environment {
public:
  void SetUp() override {
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    for (auto const which :
         {NETSNMP_DS_LIB_PERSISTENT_DIR, NETSNMP_DS_LIB_CONFIGURATION_DIR, NETSNMP_DS_LIB_MIBDIRS})
      netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, which, "/dev/null");
    init_agent("pluginTest");
    init_snmp("pluginTest");
  }
  void TearDown() override {
    snmp_shutdown("pluginTest");
    shutdown_agent();
  }
};
auto const * const netSnmp = testing::AddGlobalTestEnvironment(new NetSnmp);

/// True if and only if something serves tunnelIfTable in the default context.
bool tunnelIfTableRegistered() {
  std::array<oid, 11> name{1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1};
  auto const * subtree = netsnmp_subtree_find(name.data(), name.size(), nullptr, "");
  return subtree != nullptr &&
         snmp_oid_compare(subtree->name_a, subtree->namelen, name.data(), name.size()) == 0;
}

class Plugin : public testing::Test {
protected:
  Plugin() {
    SnmpUtil::entityRootIs([this](std::string_view path) { return database_.lookup(path); });
  }
  ~Plugin() override { SnmpUtil::entityRootIs({}); }

  StateDb::StateDb database_;
};

TEST_F(Plugin, MakesItsTypesKnownWhileItIsLoaded) {
  {
    Agent::Plugin const plugin(PLUGIN_FILE);
    EXPECT_NE(nullptr, Zel::typeByName("TunnelIntfSnmp::TunnelMib"));
    EXPECT_NE(nullptr, Zel::typeByName("TunnelIntfSnmp::Root"));
    EXPECT_EQ(2u, Snmp::handlerRegistrations().size());
  }
  EXPECT_EQ(nullptr, Zel::typeByName("TunnelIntfSnmp::TunnelMib"));
  EXPECT_THAT(Snmp::handlerRegistrations(), IsEmpty());
}

TEST_F(Plugin, RegistersUnregistersAndRegistersAgain) {
  Agent::Plugin plugin(PLUGIN_FILE);
  database_.create(mibPath, "TunnelIntfSnmp::TunnelMib");
  for (int round = 0; round != 3; ++round) {
    plugin.registerMibs();
    EXPECT_THAT(Snmp::mibContexts(),
                UnorderedElementsAre(Pair("tunnelMIB", ""), Pair("velmoraTunnelMIB", "")));
    EXPECT_TRUE(tunnelIfTableRegistered());
    plugin.unregisterMibs();
    EXPECT_THAT(Snmp::mibContexts(), IsEmpty());
    EXPECT_FALSE(tunnelIfTableRegistered());
  }
  database_.unmount(mibPath);
}

TEST_F(Plugin, CanBeLoadedAgainAfterItWasUnloaded) {
  auto const before = Zel::modules();
  for (int round = 0; round != 3; ++round) {
    Agent::Plugin plugin(PLUGIN_FILE);
    database_.create(mibPath, "TunnelIntfSnmp::TunnelMib");
    plugin.registerMibs();
    EXPECT_TRUE(tunnelIfTableRegistered());
    plugin.unregisterMibs();
    database_.unmount(mibPath);
  }
  EXPECT_EQ(Zel::modules(), before);
}

TEST_F(Plugin, RunsItsMachinesForAsLongAsTheRootIsMounted) {
  Agent::Plugin const plugin(PLUGIN_FILE);
  constexpr char const * rootPath = "snmp/tunnelIntf/root";
  auto const mib = database_.create(mibPath, "TunnelIntfSnmp::TunnelMib");
  auto root = database_.create(rootPath, "TunnelIntfSnmp::Root");
  {
    std::array<Zel::Ptr<Zel::PtrInterface>, 4> const inputs{
        mib, database_.tunnelIntfStatusDir(), database_.ifMib(), database_.ikeStatus()};
    EXPECT_NE(nullptr, Zel::attributeIs(*root, "tunnelIntfSnmpAgent", inputs));
  }
  auto const listeners = !database_.ifMib()->notifieesEmpty();
  EXPECT_TRUE(listeners);
  root = nullptr;
  database_.unmount(rootPath);
  EXPECT_TRUE(database_.ifMib()->notifieesEmpty());
  const_cast<Zel::Ptr<Zel::Entity> &>(mib) = nullptr;
  database_.unmount(mibPath);
}

using PluginDeathTest = Plugin;

TEST_F(PluginDeathTest, EndsTheProcessWhenItsEntityIsMissing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Agent::Plugin plugin(PLUGIN_FILE);
  EXPECT_DEATH(plugin.registerMibs(), "Can not getEntityRelative\\( snmp/tunnelIntf/tunnelMib \\)");
}

std::string whatLoadingSays(std::string const & file) {
  try {
    Agent::Plugin const plugin(file);
  } catch (std::runtime_error const & error) {
    return error.what();
  }
  return "";
}

TEST(PluginFile, ThatIsMissingIsNamed) {
  auto const says = whatLoadingSays("/nowhere/plugin.so");
  EXPECT_THAT(says, HasSubstr("/nowhere/plugin.so"));
  EXPECT_THAT(says, HasSubstr("--plugin"));
  EXPECT_EQ(std::string::npos, says.find('\n'));
}

TEST(PluginFile, WithoutAFolderIsNotSearchedForInTheSystem) {
  // The C library is there for the dynamic linker by this very name.
  EXPECT_THAT(whatLoadingSays("libc.so.6"), HasSubstr("./libc.so.6"));
}

TEST(PluginFile, ThatIsNoLibraryIsNamed) {
  auto const says = whatLoadingSays(NO_LIBRARY);
  EXPECT_THAT(says, HasSubstr(NO_LIBRARY));
  EXPECT_THAT(says, Not(HasSubstr("No such file")));
}

TEST(PluginFile, OfAnotherKindDefinesNoTypes) {
  Agent::Plugin const other(OTHER_LIBRARY);
  StateDb::StateDb database;
  EXPECT_THROW(database.create(mibPath, "TunnelIntfSnmp::TunnelMib"), Zel::GenericAccessError);
}

} // namespace
