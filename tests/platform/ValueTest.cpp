// Addresses, modes, SNMP values and their encodings, input records, traces.
#include "platform/Interface.h"
#include "platform/IntfSnmp.h"
#include "platform/Ipsec.h"
#include "platform/Lumo.h"
#include "platform/Snmp.h"
#include "tests/support/TestScheduler.h"
#include "tests/support/TraceRecorder.h"
#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <limits>
#include <random>
#include <sstream>
#include <utility>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Plexa::IpGenAddr address(std::string_view text) {
  return Plexa::IpGenAddr::fromString(text).value();
}

// Plexa

TEST(IpGenAddr, ReadsAndWritesBothFamiliesAndNone) {
  for (char const * text : {"10.0.0.1", "255.255.255.255", "0.0.0.0", "2001:db8::1", "::", ""})
    EXPECT_EQ(address(text).stringValue(), text);
  EXPECT_EQ(address("2001:DB8:0:0::1").stringValue(), "2001:db8::1");
}

TEST(IpGenAddr, RefusesWhatIsNoAddress) {
  for (std::string_view const text : std::initializer_list<std::string_view>{
           "10.0.0", "10.0.0.1 ", " ", "10.0.0.256", "1.2.3.4/24", ":::", "fe80::1%eth0",
           "localhost", std::string_view("1.2.3.4\0x", 9)})
    EXPECT_FALSE(Plexa::IpGenAddr::fromString(text)) << text;
}

TEST(IpGenAddr, HasTheFamilysOctetsInNetworkOrder) {
  EXPECT_THAT(address("10.0.0.1").octets(), ElementsAre(10, 0, 0, 1));
  EXPECT_EQ(address("2001:db8::1").octets().size(), 16u);
  EXPECT_EQ(address("2001:db8::1").octets()[1], 1);
  EXPECT_THAT(address("").octets(), IsEmpty());
}

TEST(IpGenAddr, IsZeroAtTheAnyAddressTheUnspecifiedOneAndNone) {
  for (char const * text : {"0.0.0.0", "::", ""})
    EXPECT_TRUE(address(text).isAddrZero()) << text;
  for (char const * text : {"0.0.0.1", "::1", "10.0.0.0"})
    EXPECT_FALSE(address(text).isAddrZero()) << text;
  EXPECT_TRUE(Plexa::IpGenAddr(Plexa::AddressFamily::ipv6).isAddrZero());
}

// Another host may know more families than the MIB has numbers for.
TEST(IpGenAddr, OfAnUnknownFamilyHasNoOctetsNoTextAndIsZero) {
  for (auto const number : {3, 7, 255}) {
    Plexa::IpGenAddr const unknown(static_cast<Plexa::AddressFamily>(number));
    EXPECT_THAT(unknown.octets(), IsEmpty()) << number;
    EXPECT_EQ(unknown.stringValue(), "") << number;
    EXPECT_EQ(valueToStrep(unknown), "") << number;
    EXPECT_TRUE(unknown.isAddrZero()) << number;
    EXPECT_TRUE(unknown.v4Addr().isAny()) << number;
    EXPECT_TRUE(unknown.v6Addr().isUnspecified()) << number;
  }
}

TEST(IpGenAddr, TellsZeroAddressesOfDifferentFamiliesApart) {
  EXPECT_NE(address("0.0.0.0"), address("::"));
  EXPECT_NE(address("0.0.0.0"), address(""));
  EXPECT_EQ(address(""), Plexa::IpGenAddr(Plexa::AddressFamily::none));
}

TEST(IpGenAddr, GivesTheAddressOfItsFamilyAndZeroOfTheOther) {
  EXPECT_TRUE(address("::1").v4Addr().isAny());
  EXPECT_TRUE(address("10.0.0.1").v6Addr().isUnspecified());
  EXPECT_FALSE(address("10.0.0.1").v4Addr().isAny());
  EXPECT_FALSE(address("::1").v6Addr().isUnspecified());
}

TEST(IntfId, IsComparedHashedAndPrintedAsANumber) {
  Plexa::IntfId const large(std::numeric_limits<std::uint64_t>::max());
  EXPECT_LT(Plexa::IntfId(2), Plexa::IntfId(10));
  EXPECT_EQ(large.stringValue(), "18446744073709551615");
  EXPECT_EQ(valueToStrep(large), large.stringValue());
  EXPECT_EQ(fmt::format("{}", large), large.stringValue());
  EXPECT_NE(Plexa::IntfId(1).hash(0), Plexa::IntfId(1ull << 32).hash(0));
}

TEST(TunnelIntfMode, HasANameForEachKnownKind) {
  for (unsigned mode = 0; mode != 10; ++mode) {
    auto const known = static_cast<Plexa::TunnelIntfMode>(mode);
    EXPECT_EQ(Plexa::tunnelIntfModeFromString(valueToStrep(known)), known);
  }
  EXPECT_EQ(valueToStrep(Plexa::TunnelIntfMode::gre), "gre");
  EXPECT_EQ(valueToStrep(static_cast<Plexa::TunnelIntfMode>(200)), "200");
  EXPECT_FALSE(Plexa::tunnelIntfModeFromString("200"));
}

// Snmp

Snmp::Bytes bytes(std::vector<std::uint8_t> const & octets) {
  return Snmp::Bytes(octets);
}

TEST(SnmpBytes, OrderByLengthAndThenByUnsignedOctet) {
  std::vector<Snmp::Bytes> const ascending{bytes({}),     bytes({0}),      bytes({127}),
                                           bytes({128}),  bytes({0, 0}),   bytes({0, 255}),
                                           bytes({1, 0}), bytes({0, 0, 0})};
  for (std::size_t i = 0; i != ascending.size(); ++i)
    for (std::size_t j = 0; j != ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] < ascending[j], i < j);
      EXPECT_EQ(ascending[i] == ascending[j], i == j);
      EXPECT_EQ(ascending[i].hash(0) == ascending[j].hash(0), i == j);
    }
}

TEST(SnmpBytes, AreTheSameWhateverTheirLengthAndStaySoWhenCopied) {
  std::mt19937 random(testSeed());
  auto const draw = [&] {
    std::vector<std::uint8_t> octets(random() % 20); // on both sides of what an object holds itself
    for (auto & octet : octets)
      octet = random() % 3 == 0 ? 255 : random() % 2;
    return octets;
  };
  for (int round = 0; round != 5000; ++round) {
    auto const left = draw();
    auto const right = draw();
    auto copy = bytes(left);
    EXPECT_TRUE(std::ranges::equal(copy.span(), left));
    EXPECT_EQ(copy <=> bytes(right),
              std::tuple(left.size(), left) <=> std::tuple(right.size(), right));
    copy = bytes(right);
    EXPECT_EQ(copy, bytes(right));
    auto const second = copy;
    copy = bytes(left);
    EXPECT_TRUE(std::ranges::equal(second.span(), right));
    auto const & itself = copy;
    copy = itself;
    EXPECT_TRUE(std::ranges::equal(copy.span(), left));
    EXPECT_EQ(copy.hash(7), Zel::Hash(7).mix(std::span(left)).result());
  }
}

TEST(SnmpBytes, PrintAsHexadecimalAndParse) {
  EXPECT_EQ(valueToStrep(bytes({0, 10, 255})), "'000aff'");
  EXPECT_EQ(Zel::strepToValue<Snmp::Bytes>("'000aff'"), bytes({0, 10, 255}));
  EXPECT_EQ(Zel::strepToValue<Snmp::Bytes>("''"), bytes({}));
  std::ostringstream out;
  out << bytes({1});
  EXPECT_EQ(out.str(), "'01'");
  for (char const * broken : {"", "'", "0a", "'0'", "'0g'", "'0A'", "'0a", "'0a' "})
    EXPECT_THROW(Zel::strepToValue<Snmp::Bytes>(broken), Zel::StrepError) << broken;
}

TEST(SnmpInetAddress, OrdersByTypeAndThenAsBytes) {
  auto const inet = [](char const * text) {
    return Snmp::InetAddress::fromIpGenAddrOrUnknown(address(text));
  };
  EXPECT_LT(inet(""), inet("0.0.0.0"));
  EXPECT_LT(inet("255.255.255.255"), inet("::"));
  EXPECT_LT(inet("10.0.0.1"), inet("10.0.0.2"));
  EXPECT_LT(inet("10.0.0.1"), inet("200.0.0.1"));
}

TEST(SnmpInetAddress, HashesItsTypeAndItsOctets) {
  Snmp::Bytes const octets(std::array<std::uint8_t, 4>{10, 0, 0, 1});
  Snmp::Bytes const others(std::array<std::uint8_t, 4>{10, 0, 0, 2});
  EXPECT_NE(Snmp::InetAddress(1, octets).hash(0), Snmp::InetAddress(3, octets).hash(0));
  EXPECT_NE(Snmp::InetAddress(1, octets).hash(0), Snmp::InetAddress(1, others).hash(0));
}

TEST(SnmpInetAddress, ComesFromAnAddress) {
  auto const v4 = Snmp::InetAddress::fromIpGenAddr(address("10.0.0.1"));
  EXPECT_EQ(v4.addressType(), 1u);
  EXPECT_EQ(v4.address(), bytes({10, 0, 0, 1}));
  auto const v6 = Snmp::InetAddress::fromIpGenAddr(address("::1"));
  EXPECT_EQ(v6.addressType(), 2u);
  EXPECT_EQ(v6.address().size(), 16u);
  EXPECT_EQ(Snmp::InetAddress::fromIpGenAddrOrUnknown(address("")), Snmp::InetAddress());
  EXPECT_EQ(Snmp::InetAddress().addressType(), 0u);
}

TEST(SnmpInetAddress, IsUnknownWithoutOctetsForAnAddressOfAnUnknownFamily) {
  for (auto const number : {3, 7, 255}) {
    Plexa::IpGenAddr const unknown(static_cast<Plexa::AddressFamily>(number));
    EXPECT_EQ(Snmp::InetAddress::fromIpGenAddrOrUnknown(unknown), Snmp::InetAddress()) << number;
    std::uint8_t buffer[16];
    EXPECT_EQ(Snmp::PlexaIpGenAddrToAsnOctetString(unknown, buffer, sizeof buffer), 0) << number;
  }
}

TEST(SnmpInetAddressDeathTest, DiesOfAnAddressOfNoKnownFamilyWhereOneIsNeeded) {
  for (auto const number : {0, 3, 255})
    EXPECT_DEATH(Snmp::InetAddress::fromIpGenAddr(
                     Plexa::IpGenAddr(static_cast<Plexa::AddressFamily>(number))),
                 "an address of no known family has no InetAddressType");
}

TEST(SnmpInetAddress, PrintsAndParses) {
  auto const sample = Snmp::InetAddress::fromIpGenAddr(address("10.0.0.1"));
  std::string const text =
      "Value('Snmp::InetAddress', ** {'addressType': 1, 'address': '0a000001'})";
  EXPECT_EQ(valueToStrep(sample), text);
  EXPECT_EQ(Zel::strepToValue<Snmp::InetAddress>(text), sample);
}

TEST(SnmpEncoding, WritesIntegersAsTheMachinesOwnLong) {
  std::uint8_t buffer[1024];
  for (std::uint32_t const value : {0u, 1u, 2147483648u, 4294967295u}) {
    ASSERT_EQ(Snmp::U32ToAsnUnsigned(value, buffer, sizeof buffer), int{sizeof(long)});
    long written;
    std::memcpy(&written, buffer, sizeof written);
    EXPECT_EQ(written, static_cast<long>(value));
  }
  ASSERT_EQ(Snmp::S32ToAsnInteger(-1, buffer, sizeof buffer), int{sizeof(long)});
  long written;
  std::memcpy(&written, buffer, sizeof written);
  EXPECT_EQ(written, -1);
}

TEST(SnmpEncoding, RefusesWhatDoesNotFitAndLeavesTheBufferAlone) {
  std::uint8_t buffer[16] = {9, 9, 9, 9};
  EXPECT_LT(Snmp::U32ToAsnUnsigned(1, buffer, sizeof(long) - 1), 0);
  EXPECT_LT(Snmp::S32ToAsnInteger(1, buffer, 0), 0);
  EXPECT_LT(Snmp::PlexaIpGenAddrToAsnOctetString(address("::1"), buffer, 15), 0);
  EXPECT_LT(Snmp::BytesToAsnOctetString(bytes({1, 2, 3}), buffer, 2), 0);
  EXPECT_EQ(buffer[0], 9);
}

TEST(SnmpEncoding, WritesOctetsInNetworkOrder) {
  std::uint8_t buffer[255];
  EXPECT_EQ(Snmp::PlexaIpGenAddrToAsnOctetString(address("1.2.3.4"), buffer, sizeof buffer), 4);
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(Snmp::PlexaIpGenAddrToAsnOctetString(address("::1"), buffer, sizeof buffer), 16);
  EXPECT_EQ(buffer[15], 1);
  EXPECT_EQ(Snmp::PlexaIpGenAddrToAsnOctetString(address(""), buffer, sizeof buffer), 0);
  EXPECT_EQ(Snmp::BytesToAsnOctetString(bytes({7, 8}), buffer, 2), 2);
  EXPECT_EQ(buffer[1], 8);
}

TEST(SnmpDecoding, RefusesIntegersBeyondThirtyTwoBits) {
  EXPECT_EQ(Snmp::AsnIntegerToS32(2147483647), 2147483647);
  EXPECT_EQ(Snmp::AsnIntegerToS32(-2147483648L), std::numeric_limits<std::int32_t>::min());
  if (sizeof(long) > 4) {
    EXPECT_THROW(Snmp::AsnIntegerToS32(2147483648L), Zel::RangeException);
    EXPECT_THROW(Snmp::AsnIntegerToS32(-2147483649L), Zel::RangeException);
  }
}

TEST(SnmpDecoding, TakesOctetsOfAnyLength) {
  std::uint8_t const octets[] = {1, 2};
  EXPECT_EQ(Snmp::AsnOctetStringToSnmpBytes(octets, 2), bytes({1, 2}));
  EXPECT_EQ(Snmp::AsnOctetStringToSnmpBytes(nullptr, 0), bytes({}));
}

TEST(SnmpModules, AreEnrolledForAsLongAsTheyLive) {
  struct Module : Snmp::HandlerRegistration {
    void initHandler(Zel::String) override {}
  } module;
  auto const before = Snmp::handlerRegistrations().size();
  {
    Snmp::AutoRegistree const enrolled(&module);
    EXPECT_EQ(Snmp::handlerRegistrations().back(), &module);
  }
  EXPECT_EQ(Snmp::handlerRegistrations().size(), before);
}

TEST(SnmpModules, AnnounceEachContextOnce) {
  Snmp::registerMibContext("m", "c");
  Snmp::registerMibContext("m", "c");
  EXPECT_THAT(Snmp::mibContexts(), ElementsAre(std::pair<std::string, std::string>("m", "c")));
  Snmp::unregisterMibContext("m", "c");
  EXPECT_THAT(Snmp::mibContexts(), IsEmpty());
}

TEST(SnmpUtil, ResolvesEntitiesAsTheHostSays) {
  EXPECT_EQ(SnmpUtil::getEntityRelative("a/b"), nullptr);
  auto const entity = Zel::makePtr<Zel::Entity>("b");
  SnmpUtil::entityRootIs(
      [&](std::string_view path) { return path == "a/b" ? entity : Zel::Ptr<Zel::Entity>(); });
  EXPECT_EQ(SnmpUtil::getEntityRelative("a/b"), entity);
  EXPECT_EQ(SnmpUtil::getEntityRelative("a"), nullptr);
  SnmpUtil::entityRootIs({});
  EXPECT_NE(SnmpUtil::getSnmpConfig(), nullptr);
}

// Input records

class Told : public Zel::Notifiee {
public:
  explicit Told(Zel::PtrInterface const & object) { notifierIs(&object); }
  void onNotification(Zel::Notification const & change) override {
    attributes.emplace_back(change.attribute().name);
  }
  std::vector<std::string> attributes;
};

TEST(TunnelIntfStatus, NotifiesEachAttributeThatReallyChanges) {
  auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(1));
  auto const told = Zel::makePtr<Told>(*status);
  for (int round = 0; round != 2; ++round) {
    status->srcAddrIs(address("10.0.0.1"));
    status->dstAddrIs(address("10.0.0.2"));
    status->modeIs(Plexa::TunnelIntfMode::gre);
    status->hopLimitIs(3);
    status->tosIs(4);
    status->ipsecIs(true);
  }
  EXPECT_THAT(told->attributes,
              ElementsAre("srcAddr", "dstAddr", "mode", "hopLimit", "tos", "ipsec"));
}

TEST(TunnelIntfStatusDir, NotifiesAnotherRecordButNotTheSame) {
  auto const dir = Zel::makePtr<Interface::TunnelIntfStatusDir>("d");
  auto const told = Zel::makePtr<Told>(*dir);
  auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(1));
  dir->intfStatusDel(Plexa::IntfId(1));
  dir->intfStatusIs(Plexa::IntfId(1), status);
  dir->intfStatusIs(Plexa::IntfId(1), status);
  EXPECT_EQ(told->attributes.size(), 1u);
  dir->intfStatusIs(Plexa::IntfId(1), nullptr);
  dir->intfStatusIs(Plexa::IntfId(1), nullptr);
  EXPECT_EQ(told->attributes.size(), 2u);
  dir->intfStatusDel(Plexa::IntfId(1));
  EXPECT_EQ(told->attributes.size(), 3u);
}

TEST(IfMib, NotifiesAnotherIfIndexButNotTheSame) {
  auto const ifMib = Zel::makePtr<IntfSnmp::IfMib>("i");
  auto const told = Zel::makePtr<Told>(*ifMib);
  ifMib->ifIndexByIntfIdIs(Plexa::IntfId(1), 5);
  ifMib->ifIndexByIntfIdIs(Plexa::IntfId(1), 5);
  ifMib->ifIndexByIntfIdIs(Plexa::IntfId(1), 6);
  ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1));
  ifMib->ifIndexByIntfIdDel(Plexa::IntfId(1));
  EXPECT_EQ(told->attributes.size(), 3u);
}

TEST(IkeStatus, NotifiesEachOfItsCollectionsAndRecords) {
  auto const ike = Zel::makePtr<Ipsec::Ike::Status>("ike");
  auto const told = Zel::makePtr<Told>(*ike);
  auto const info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
  auto const map = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
  auto const applied = Zel::makePtr<Ipsec::Ike::IpsecTunnelProfileInfo>();
  ike->ipsecTunnelInfoIs(Plexa::IntfId(1), info);
  ike->appliedProfilesIs("p", map);
  ike->appliedProfilesDel("p");
  ike->appliedProfilesDel("p");
  ike->ipsecTunnelInfoDel(Plexa::IntfId(1));
  ike->ipsecTunnelInfoDel(Plexa::IntfId(1));
  EXPECT_THAT(told->attributes, ElementsAre("ipsecTunnelInfo", "appliedProfiles", "appliedProfiles",
                                            "ipsecTunnelInfo"));
  auto const toldByInfo = Zel::makePtr<Told>(*info);
  auto const toldByMap = Zel::makePtr<Told>(*map);
  auto const toldByApplied = Zel::makePtr<Told>(*applied);
  info->profileNameIs("p");
  map->appliedIntfIdIs(Plexa::IntfId(1), applied);
  map->appliedIntfIdDel(Plexa::IntfId(1));
  applied->connStateIs(Ipsec::Ike::ConnState::up);
  EXPECT_THAT(toldByInfo->attributes, ElementsAre("profileName"));
  EXPECT_THAT(toldByMap->attributes, ElementsAre("appliedIntfId", "appliedIntfId"));
  EXPECT_THAT(toldByApplied->attributes, ElementsAre("connState"));
  EXPECT_EQ(Ipsec::Ike::connStateFromString("up"), Ipsec::Ike::ConnState::up);
  EXPECT_EQ(valueToStrep(static_cast<Ipsec::Ike::ConnState>(9)), "9");
}

// Lumo

TEST(TraceLevels, ReadAndWriteLists) {
  for (char const * text : {"none", "all", "0", "6-9", "0,2,7-9"})
    EXPECT_EQ(Lumo::levelsText(Lumo::parseLevels(text)), text);
  EXPECT_EQ(Lumo::parseLevels("0-9"), Lumo::parseLevels("all"));
  EXPECT_EQ(Lumo::levelsText(Lumo::parseLevels("1,2,3")), "1-3");
}

TEST(TraceLevels, SayWhatIsWrong) {
  for (char const * text : {"", "10", "a", "6-", "-6", "9-6", "6,,7", "6-7-8"})
    EXPECT_THROW(Lumo::parseLevels(text), std::invalid_argument) << text;
}

TEST(Trace, FormatsOnlyWhatIsEnabled) {
  auto const handler = Lumo::Platform::getDebugHandler("TraceTest", false);
  EXPECT_EQ(Lumo::Platform::getDebugHandler("TraceTest", true), handler);
  int evaluated = 0;
  TraceRecorder traces{{"TraceTest", "3"}};
  LUMO_TRACE(*handler, 2, "{}", ++evaluated);
  LUMO_TRACE(*handler, 3, "value {}", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(traces.texts(), ElementsAre("value 1"));
}

TEST(Trace, StartsAHandlerWithTheLevelsThatItsNameWasGiven) {
  Lumo::traceLevelsIs("LateHandler", Lumo::parseLevels("4"));
  EXPECT_TRUE(Lumo::Platform::getDebugHandler("LateHandler", false)->enabled(4));
  EXPECT_TRUE(Lumo::Platform::getDebugHandler("EnabledHandler", true)->enabled(9));
}

TEST(Trace, NamesTheFileAndTheLineOfTheCall) {
  auto const handler = Lumo::Platform::getDebugHandler("TraceTest", false);
  std::string line;
  TraceRecorder traces{{"TraceTest", "7"}};
  auto const before = Lumo::traceSinkIs(
      [&line](Lumo::TraceMessage const & message) { line = Lumo::traceLine(message); });
  auto const here = std::source_location::current().line() + 1;
  LUMO_TRACE(*handler, 7, "the message ");
  Lumo::traceSinkIs(before);
  EXPECT_EQ(line, fmt::format("TraceTest/7 ValueTest.cpp:{} TestBody: the message ", here));
}

TEST(Trace, NamesTheObjectThatTracesWhereThereAreSeveral) {
  auto const handler = Lumo::Platform::getDebugHandler("TraceTest", false);
  auto const place = std::source_location::current();
  EXPECT_EQ(Lumo::traceLine({*handler, 7, place, "Child", "function", "text"}),
            fmt::format("TraceTest/7 ValueTest.cpp:{} Child::function: text", place.line()));
}

TEST(Counters, AreKnownByNameWhileTheyLive) {
  {
    Lumo::Counter counter("test-counter");
    counter.inc();
    EXPECT_EQ(Lumo::counter("test-counter"), 1u);
  }
  EXPECT_EQ(Lumo::counter("test-counter"), 0u);
}

} // namespace
