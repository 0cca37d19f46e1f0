// What the framework is told of the library's types when it is loaded: the module records, whole
// and in order.
#include "TunnelIntfSnmp/TunnelIntfSnmpAgent.h"
#include <algorithm>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <set>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Zel::Module const & module(std::string_view name) {
  for (auto const * one : Zel::modules())
    if (one->name == name)
      return *one;
  throw std::invalid_argument("no such module");
}

std::vector<std::string> dump(Zel::Module const & module) {
  std::vector<std::string> lines;
  for (auto const * type : module.types) {
    lines.push_back(fmt::format("{}{}", type->name, type->factory == nullptr ? "" : " (by name)"));
    for (auto const * attribute : type->attributes)
      lines.push_back(fmt::format("  {}: {}", attribute->name, attribute->typeName));
  }
  for (auto const & type : module.outsideTypes)
    lines.push_back(fmt::format("outside {}", type));
  return lines;
}

// True if and only if the module is one of the library's, and not of the framework or of an input.
bool isOurs(Zel::Module const & module) {
  return std::ranges::any_of(
      module.types, [](auto const * type) { return type->name.starts_with("TunnelIntfSnmp::"); });
}

TEST(ModuleRecords, AreThoseOfTheFiveUnitsInTheirOrder) {
  std::vector<std::string_view> names;
  for (auto const * one : Zel::modules())
    if (isOurs(*one)) {
      names.push_back(one->name);
      EXPECT_EQ(one->namespacePrefix, "ns-") << one->name;
    }
  EXPECT_THAT(names,
              ElementsAre("IpsecTunnelIfTableSm", "TunnelIfTableSm", "TunnelInetConfigTableSm",
                          "TunnelIntfSnmp", "TunnelIntfSnmpAgent"));
}

TEST(ModuleRecords, DescribeTheModel) {
  EXPECT_THAT(
      dump(module("TunnelIntfSnmp")),
      ElementsAre("TunnelIntfSnmp::TunnelIfTableEntry", //
                  "  ifIndex: U32", "  tunnelIntfStatus: Interface::TunnelIntfStatus",
                  "  encapsMethod: U32", "  hopLimit: U8", "  security: U32", "  tos: U8",
                  "  addrType: U32", "  localAddr: Plexa::IpGenAddr",
                  "  remoteAddr: Plexa::IpGenAddr",
                  "TunnelIntfSnmp::IpsecTunnelIfTableEntry", //
                  "  ifIndex: U32", "  tunnelIntfStatus: Interface::TunnelIntfStatus",
                  "  ikeStatus: Ipsec::Ike::Status", "  connState: U32",
                  "TunnelIntfSnmp::TunnelInetConfigTableEntry", //
                  "  key: TunnelIntfSnmp::TunnelInetConfigTableKey", "  addrType: U32",
                  "  localAddr: Snmp::Bytes", "  remoteAddr: Snmp::Bytes", "  encapsMethod: U32",
                  "  configId: U32", "  ifIndex: U32", "  rowStatus: U32", "  storageType: U32",
                  "TunnelIntfSnmp::MibEntryWrapper", //
                  "  mibEntry: TunnelIntfSnmp::TunnelInetConfigTableEntry",
                  "TunnelIntfSnmp::TunnelInetConfigTableKey", //
                  "  localInetAddr: Snmp::InetAddress", "  remoteAddrBytes: Snmp::Bytes",
                  "  encapsMethod: U32", "  configId: U32",
                  "TunnelIntfSnmp::TunnelMib (by name)", //
                  "  name: String", "  tunnelIfTable: Zel::RbTreeMap",
                  "  tunnelInetConfigTable: Zel::RbTreeMap",
                  "  ipsecTunnelIfTable: Zel::RbTreeMap", //
                  "outside Interface::TunnelIntfStatus", "outside Ipsec::Ike::Status",
                  "outside Plexa::IpGenAddr", "outside Snmp::Bytes", "outside Snmp::InetAddress"));
}

TEST(ModuleRecords, DescribeTheRootAndTheAgent) {
  EXPECT_THAT(
      dump(module("TunnelIntfSnmpAgent")),
      ElementsAre(
          "TunnelIntfSnmp::Root (by name)", //
          "  name: String", "  tunnelIntfSnmpAgent: TunnelIntfSnmp::TunnelIntfSnmpAgent",
          "TunnelIntfSnmp::TunnelIntfSnmpAgent", //
          "  tunnelMib: TunnelIntfSnmp::TunnelMib",
          "  tunnelIntfStatusDir: Interface::TunnelIntfStatusDir", "  ifMib: IntfSnmp::IfMib",
          "  ikeStatus: Ipsec::Ike::Status", "  smControl: Flowa::SmControl",
          "  tunnelIfTableSm: TunnelIntfSnmp::TunnelIfTableSm",
          "  tunnelInetConfigTableSm: TunnelIntfSnmp::TunnelInetConfigTableSm",
          "  ipsecTunnelIfTableSm: TunnelIntfSnmp::IpsecTunnelIfTableSm", //
          "outside TunnelIntfSnmp::TunnelMib", "outside TunnelIntfSnmp::TunnelIfTableSm",
          "outside TunnelIntfSnmp::TunnelInetConfigTableSm",
          "outside TunnelIntfSnmp::IpsecTunnelIfTableSm", "outside Interface::TunnelIntfStatusDir",
          "outside IntfSnmp::IfMib", "outside Ipsec::Ike::Status", "outside Flowa::SmControl"));
}

// A type of the unit itself, one that it says it takes from elsewhere, or one of the framework's
// own.
bool isNamed(Zel::Module const & module, std::string_view typeName) {
  static std::set<std::string_view> const basic{
      "bool", "U8", "U32", "U64", "String", "Zel::RbTreeMap", "Zel::HashMap2018"};
  auto const isIt = [&](Zel::Type const * type) { return type->name == typeName; };
  return basic.contains(typeName) || std::ranges::any_of(module.types, isIt) ||
         std::ranges::find(module.outsideTypes, typeName) != module.outsideTypes.end();
}

class ModuleRecord : public ::testing::TestWithParam<std::string_view> {};
INSTANTIATE_TEST_SUITE_P(Units, ModuleRecord,
                         ::testing::Values("IpsecTunnelIfTableSm", "TunnelIfTableSm",
                                           "TunnelInetConfigTableSm", "TunnelIntfSnmp",
                                           "TunnelIntfSnmpAgent"),
                         [](auto const & unit) { return std::string(unit.param); });

TEST_P(ModuleRecord, NamesTheTypeOfEveryAttribute) {
  auto const & unit = module(GetParam());
  std::vector<std::string> unknown;
  for (auto const * type : unit.types)
    for (auto const * attribute : type->attributes)
      if (!isNamed(unit, attribute->typeName))
        unknown.push_back(
            fmt::format("{}.{}: {}", type->name, attribute->name, attribute->typeName));
  EXPECT_THAT(unknown, IsEmpty());
}

TEST_P(ModuleRecord, RefersToEveryOutsideTypeItLists) {
  auto const & unit = module(GetParam());
  std::set<std::string_view> used;
  for (auto const * type : unit.types)
    for (auto const * attribute : type->attributes)
      used.insert(attribute->typeName);
  for (auto const & type : unit.outsideTypes)
    EXPECT_TRUE(used.contains(type)) << type;
}

} // namespace
} // namespace TunnelIntfSnmp
