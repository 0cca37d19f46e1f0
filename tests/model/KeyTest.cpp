// The index of tunnelInetConfigTable as a value: order, hash, text form.
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include <gmock/gmock.h>
#include <sstream>
#include <vector>

namespace TunnelIntfSnmp {
namespace {

using Key = TunnelInetConfigTableKey;

Snmp::Bytes bytes(std::vector<std::uint8_t> const & octets) {
  return Snmp::Bytes(octets);
}

Snmp::InetAddress inet(char const * text) {
  return Snmp::InetAddress::fromIpGenAddrOrUnknown(*Plexa::IpGenAddr::fromString(text));
}

std::string const text = "Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** {'localInetAddr': "
                         "Value('Snmp::InetAddress', ** {'addressType': 1, 'address': "
                         "'0a000001'}), 'remoteAddrBytes': '0a000002', 'encapsMethod': 3, "
                         "'configId': 4294967295})";
Key const sample(inet("10.0.0.1"), inet("10.0.0.2").address(), 3, 4294967295);

TEST(TunnelInetConfigTableKey, ComparesFieldByFieldInOrder) {
  // Ascending; each differs from the one before in an earlier or equal field.
  std::vector<Key> const ascending{
      {Snmp::InetAddress(), bytes({}), 0, 0},
      {Snmp::InetAddress(), bytes({}), 0, 1},
      {Snmp::InetAddress(), bytes({}), 1, 0},
      {Snmp::InetAddress(), bytes({9}), 0, 0},
      {inet("10.0.0.1"), bytes({255}), 9, 9},
      {inet("10.0.0.1"), bytes({0, 0}), 0, 0}, // the shorter one first
      {inet("10.0.0.2"), bytes({}), 0, 0},
      {inet("200.0.0.1"), bytes({}), 2147483648u, 0}, // octets are unsigned
      {inet("::1"), bytes({}), 0, 0}};
  for (std::size_t i = 0; i != ascending.size(); ++i)
    for (std::size_t j = 0; j != ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] < ascending[j], i < j) << i << " " << j;
      EXPECT_EQ(ascending[i] == ascending[j], i == j) << i << " " << j;
    }
}

TEST(TunnelInetConfigTableKey, IsFalseOnlyAtItsDefault) {
  EXPECT_FALSE(Key());
  EXPECT_TRUE(Key(Snmp::InetAddress(), Snmp::Bytes(), 0, 1));
}

TEST(TunnelInetConfigTableKey, HashesAllFieldsFromTheSeed) {
  auto const hash = sample.hash(1);
  EXPECT_EQ(Key(sample).hash(1), hash);
  EXPECT_NE(sample.hash(2), hash);
  EXPECT_NE(Key(inet("10.0.0.9"), inet("10.0.0.2").address(), 3, 4294967295).hash(1), hash);
  EXPECT_NE(Key(inet("10.0.0.1"), inet("10.0.0.9").address(), 3, 4294967295).hash(1), hash);
  EXPECT_NE(Key(inet("10.0.0.1"), inet("10.0.0.2").address(), 2, 4294967295).hash(1), hash);
  EXPECT_NE(Key(inet("10.0.0.1"), inet("10.0.0.2").address(), 3, 1).hash(1), hash);
}

TEST(TunnelInetConfigTableKey, PrintsAndParsesItsTextForm) {
  EXPECT_EQ(Zel::valueToStrep(sample), text);
  std::ostringstream out;
  out << sample;
  EXPECT_EQ(out.str(), text);
  auto const parsed = Zel::strepToValue<Key>(text);
  EXPECT_EQ(parsed, sample);
  EXPECT_EQ(parsed.hash(0), sample.hash(0));
  EXPECT_EQ(Zel::strepToValue<Key>(Zel::valueToStrep(Key())), Key());
}

TEST(TunnelInetConfigTableKey, IsParsedFromTheFrontOfALongerText) {
  Zel::StrepReader in(std::string_view("Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** "
                                       "{'localInetAddr': Value('Snmp::InetAddress', ** "
                                       "{'addressType': 0, 'address': ''}), 'remoteAddrBytes': "
                                       "'', 'encapsMethod': 0, 'configId': 1}) and more"));
  EXPECT_EQ(Key(in).configId(), 1u);
  in.require(" and more");
}

std::string failureOf(std::string const & broken) {
  try {
    Zel::strepToValue<Key>(broken);
  } catch (Zel::DeserialisationError const & error) {
    return error.attribute();
  } catch (Zel::StrepError const &) {
    return "text";
  }
  return "";
}

std::string with(std::string const & part, std::string const & instead) {
  auto changed = text;
  return changed.replace(changed.find(part), part.size(), instead);
}

TEST(TunnelInetConfigTableKey, NamesTheFieldThatCannotBeParsed) {
  EXPECT_EQ(failureOf(with("'0a000001'", "'0a00000'")), "localInetAddr");
  EXPECT_EQ(failureOf(with("'0a000001'", "'0A000001'")), "localInetAddr");
  EXPECT_EQ(failureOf(with("'addressType': 1", "'addressType': x")), "localInetAddr");
  EXPECT_EQ(failureOf(with("'0a000002'", "0a000002")), "remoteAddrBytes");
  EXPECT_EQ(failureOf(with("'encapsMethod': 3", "'encapsMethod': -3")), "encapsMethod");
  EXPECT_EQ(failureOf(with("4294967295", "4294967296")), "configId");
  EXPECT_EQ(failureOf(with("4294967295", "04")), "configId");
}

TEST(TunnelInetConfigTableKey, MissesEachLiteral) {
  for (char const * literal :
       {"Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** {",
        "'localInetAddr': ", ", 'remoteAddrBytes': ", ", 'encapsMethod': ", ", 'configId': "})
    EXPECT_EQ(failureOf(with(literal, " ")), "text") << literal;
  EXPECT_EQ(failureOf(text.substr(0, text.size() - 2)), "text");
  EXPECT_EQ(failureOf(text + " "), "text") << "something is left over";
  EXPECT_EQ(failureOf(""), "text");
}

} // namespace
} // namespace TunnelIntfSnmp
