// The rows as objects of the framework: made by their factories, read by the names of their
// attributes.
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include <fmt/format.h>
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;

struct ToText {
  std::string operator()(std::monostate) const { return "null"; }
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(std::uint64_t value) const { return std::to_string(value); }
  std::string operator()(std::string const & value) const { return value; }
  std::string operator()(Zel::Ptr<Zel::PtrInterface const> const & object) const {
    return std::string(object->type().name);
  }
  std::string operator()(Zel::Value::Collection const & entries) const {
    return fmt::format("{} entries", entries.size());
  }
};

// Every attribute that can be read, in order, with its value.
std::vector<std::string> readByName(Zel::PtrInterface const & row) {
  std::vector<std::string> all;
  for (auto const * attribute : row.type().attributes)
    all.push_back(fmt::format("{}={}", attribute->name,
                              std::visit(ToText(), Zel::attribute(row, attribute->name).is)));
  return all;
}

// Every value differs from every other, as far as they can.
Zel::Ptr<Interface::TunnelIntfStatus> status() {
  auto made = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(70));
  made->modeIs(Plexa::TunnelIntfMode::gre);
  made->hopLimitIs(64);
  made->tosIs(46);
  made->ipsecIs(true);
  made->srcAddrIs(*Plexa::IpGenAddr::fromString("10.0.0.1"));
  made->dstAddrIs(*Plexa::IpGenAddr::fromString("10.0.0.2"));
  return made;
}

Zel::Ptr<Ipsec::Ike::Status> ikeStatus() {
  auto made = Zel::makePtr<Ipsec::Ike::Status>("ike");
  auto const info = Zel::makePtr<Ipsec::Ike::TunnelInfo>();
  info->profileNameIs("p");
  made->ipsecTunnelInfoIs(Plexa::IntfId(70), info);
  auto const applied = Zel::makePtr<Ipsec::Ike::IpsecTunnelProfileInfo>();
  applied->connStateIs(Ipsec::Ike::ConnState::closing);
  auto const connections = Zel::makePtr<Ipsec::Ike::IpsecProfileConnectionMap>();
  connections->appliedIntfIdIs(Plexa::IntfId(70), applied);
  made->appliedProfilesIs("p", connections);
  return made;
}

TunnelInetConfigTableKey key() {
  std::uint8_t const local[] = {10, 0, 0, 1}, remote[] = {10, 0, 0, 2};
  return {Snmp::InetAddress(1, Snmp::Bytes(local)), Snmp::Bytes(remote), 3, 4};
}
constexpr char const * keyText =
    "Value('TunnelIntfSnmp::TunnelInetConfigTableKey', ** {'localInetAddr': "
    "Value('Snmp::InetAddress', ** {'addressType': 1, 'address': '0a000001'}), "
    "'remoteAddrBytes': '0a000002', 'encapsMethod': 3, 'configId': 4})";

TEST(Row, OfTunnelIfTableIsReadByTheNamesOfItsAttributes) {
  EXPECT_THAT(readByName(*tunnelIfTableEntryFactory(7, status())),
              ElementsAre("ifIndex=7", "tunnelIntfStatus=Interface::TunnelIntfStatus",
                          "encapsMethod=3", "hopLimit=64", "security=2", "tos=46", "addrType=1",
                          "localAddr=10.0.0.1", "remoteAddr=10.0.0.2"));
}

TEST(Row, OfIpsecTunnelIfTableIsReadByTheNamesOfItsAttributes) {
  EXPECT_THAT(readByName(*ipsecTunnelIfTableEntryFactory(7, status(), ikeStatus())),
              ElementsAre("ifIndex=7", "tunnelIntfStatus=Interface::TunnelIntfStatus",
                          "ikeStatus=Ipsec::Ike::Status", "connState=6"));
}

TEST(Row, OfTunnelInetConfigTableIsReadByTheNamesOfItsAttributes) {
  EXPECT_THAT(readByName(*tunnelInetConfigTableEntryFactory(key(), 17)),
              ElementsAre(std::string("key=") + keyText, "addrType=1", "localAddr='0a000001'",
                          "remoteAddr='0a000002'", "encapsMethod=3", "configId=4", "ifIndex=17",
                          "rowStatus=1", "storageType=5"));
}

TEST(Row, IsMadeByItsFactoryAndItsOwnOperation) {
  auto const record = status();
  auto const ike = ikeStatus();
  for (auto const & row : {tunnelIfTableEntryFactory(7, record),
                           TunnelIfTableEntry::TunnelIfTableEntryIs(7, record)}) {
    EXPECT_EQ(row->ifIndex(), 7u);
    EXPECT_EQ(row->tunnelIntfStatus(), record);
  }
  for (auto const & row : {ipsecTunnelIfTableEntryFactory(7, record, ike),
                           IpsecTunnelIfTableEntry::IpsecTunnelIfTableEntryIs(7, record, ike)}) {
    EXPECT_EQ(row->ifIndex(), 7u);
    EXPECT_EQ(row->tunnelIntfStatus(), record);
    EXPECT_EQ(row->ikeStatus(), ike);
  }
  for (auto const & entry : {tunnelInetConfigTableEntryFactory(key(), 17),
                             TunnelInetConfigTableEntry::TunnelInetConfigTableEntryIs(key(), 17)}) {
    EXPECT_EQ(entry->key(), key());
    EXPECT_EQ(entry->ifIndex(), 17u);
    for (auto const & wrapper :
         {mibEntryWrapperFactory(entry), MibEntryWrapper::MibEntryWrapperIs(entry)})
      EXPECT_EQ(wrapper->mibEntry(), entry);
  }
}

TEST(MibEntryWrapper, IsReadByTheNameOfItsAttribute) {
  auto const entry = tunnelInetConfigTableEntryFactory(key(), 17);
  EXPECT_THAT(readByName(*mibEntryWrapperFactory(entry)),
              ElementsAre("mibEntry=TunnelIntfSnmp::TunnelInetConfigTableEntry"));
}

// Text forms

using EntryPtr = Zel::Ptr<TunnelInetConfigTableEntry const>;
std::string const entryText =
    std::string("Value('TunnelIntfSnmp::TunnelInetConfigTableEntry', ** {'key': ") + keyText +
    ", 'ifIndex': 17})";

TEST(TunnelInetConfigTableEntryText, IsReadBack) {
  EXPECT_EQ(Zel::valueToStrep(*tunnelInetConfigTableEntryFactory(key(), 17)), entryText);
  auto const entry = Zel::strepToValue<EntryPtr>(entryText);
  EXPECT_EQ(entry->key(), key());
  EXPECT_EQ(entry->ifIndex(), 17u);
}

TEST(TunnelInetConfigTableEntryText, IsRefusedWhereItIsNotWhole) {
  for (std::size_t length = 0; length != entryText.size(); ++length)
    EXPECT_THROW(Zel::strepToValue<EntryPtr>(entryText.substr(0, length)), Zel::StrepError)
        << length;
  EXPECT_THROW(Zel::strepToValue<EntryPtr>(entryText + " "), Zel::StrepError);
}

TEST(TunnelInetConfigTableEntryText, NamesTheFieldThatIsWrong) {
  auto const wrongField = [](std::string const & text) {
    try {
      Zel::strepToValue<EntryPtr>(text);
    } catch (Zel::DeserialisationError const & error) {
      return error.attribute();
    }
    return std::string("none");
  };
  auto text = entryText;
  EXPECT_EQ(wrongField(text.replace(text.find("17"), 2, "x")), "ifIndex");
  text = entryText;
  EXPECT_EQ(wrongField(text.replace(text.find("'configId': 4"), 13, "'configId': x")), "key");
}

} // namespace
} // namespace TunnelIntfSnmp
