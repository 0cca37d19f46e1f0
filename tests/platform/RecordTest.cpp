// Records described by one list of fields: a record made up for the test, and the input records.
#include "platform/zel/Record.h"
#include "platform/Interface.h"
#include "platform/IntfSnmp.h"
#include "platform/Ipsec.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct PartValues {
  std::uint8_t size = 3;
  bool round = false;
  std::string colour;

  static constexpr auto fields() {
    return std::tuple{Zel::RecordField{"size", "U8", &PartValues::size, {0, 9, "a size, 0 to 9"}},
                      Zel::RecordField{"round", "bool", &PartValues::round},
                      Zel::RecordField{"colour", "String", &PartValues::colour}};
  }
  bool operator==(PartValues const &) const = default;
};

class Part : public Zel::Record<Part, PartValues> {
public:
  explicit Part(PartValues const & values = {}) : Record(values) {}
  static std::span<Zel::Attribute const> fieldAttributes() {
    static constexpr auto attributes = Zel::attributesOfFields<Part>();
    return attributes;
  }
};

class Ear final : public Zel::Notifiee {
public:
  void onNotification(Zel::Notification const & notification) override {
    heard.emplace_back(notification.attribute().name);
    then();
  }
  std::vector<std::string> heard;
  std::function<void()> then = [] {};
};

class Record : public testing::Test {
protected:
  Record() { ear->notifierIs(part.get()); }

  Zel::Ptr<Part> part = Zel::makePtr<Part>();
  Zel::Ptr<Ear> ear = Zel::makePtr<Ear>();
};

TEST_F(Record, BeginsWithTheDefaultsOrWithGivenValues) {
  EXPECT_EQ(part->values(), PartValues());
  EXPECT_EQ(Part({7, true, "red"}).values().colour, "red");
}

TEST_F(Record, StoresAndNotifiesOneMemberIfItDiffers) {
  part->fieldIs<&PartValues::round>(true);
  part->fieldIs<&PartValues::round>(true);
  part->fieldIs<&PartValues::size>(3);
  EXPECT_TRUE(part->values().round);
  EXPECT_THAT(ear->heard, ElementsAre("round"));
}

TEST_F(Record, NotifiesWhatDiffersOnceInTheOrderOfTheListWhenAllIsStored) {
  std::vector<PartValues> seen;
  ear->then = [&] { seen.push_back(part->values()); };
  PartValues const fresh{4, false, "red"};
  part->valuesIs(fresh);
  EXPECT_THAT(ear->heard, ElementsAre("size", "colour"));
  EXPECT_THAT(seen, ElementsAre(fresh, fresh));
  part->valuesIs(fresh);
  EXPECT_EQ(ear->heard.size(), 2u);
}

TEST_F(Record, TellsAllAttributesThoughANotifieeRaisesAndThrowsTheFirstException) {
  ear->then = [&] { throw std::runtime_error(ear->heard.back()); };
  try {
    part->valuesIs({4, true, "red"});
    ADD_FAILURE() << "nothing was thrown";
  } catch (std::runtime_error const & error) {
    EXPECT_STREQ(error.what(), "size");
  }
  EXPECT_THAT(ear->heard, ElementsAre("size", "round", "colour"));
}

TEST_F(Record, OutlivesItsLastPointerWhileItNotifies) {
  ear->then = [&] { part = nullptr; };
  part->valuesIs({4, true, ""});
  EXPECT_THAT(ear->heard, ElementsAre("size", "round"));
}

TEST_F(Record, ComparesAndCopiesSingleMembers) {
  PartValues one{1, true, "red"};
  PartValues const other{2, true, "blue"};
  EXPECT_EQ(Zel::differingFields(one, one), 0u);
  EXPECT_EQ(Zel::differingFields(one, other),
            Zel::fieldSet<&PartValues::size> | Zel::fieldSet<&PartValues::colour>);
  Zel::copyFields(one, other, Zel::fieldSet<&PartValues::colour>);
  EXPECT_EQ(one, (PartValues{1, true, "blue"}));
}

std::vector<std::string> describe(std::string_view name) {
  auto const * type = Zel::typeByName(name);
  if (type == nullptr)
    return {"no such type"};
  std::vector<std::string> texts;
  for (auto const * attribute : type->attributes)
    texts.push_back(fmt::format("{} {}{}", attribute->typeName, attribute->name,
                                attribute->get == nullptr ? " unreadable" : ""));
  return texts;
}

TEST(InputRecords, AreKnownToTheFrameworkWithTheirAttributesInOrder) {
  EXPECT_THAT(describe("Interface::TunnelIntfStatus"),
              ElementsAre("Plexa::IntfId intfId", "Plexa::IpGenAddr srcAddr",
                          "Plexa::IpGenAddr dstAddr", "Plexa::TunnelIntfMode mode", "U8 hopLimit",
                          "U8 tos", "bool ipsec"));
  EXPECT_THAT(describe("Interface::TunnelIntfStatusDir"),
              ElementsAre("Zel::HashMap2018 intfStatus"));
  EXPECT_THAT(describe("IntfSnmp::IfMib"), ElementsAre("Zel::HashMap2018 ifIndexByIntfId"));
  EXPECT_THAT(describe("Ipsec::Ike::Status"),
              ElementsAre("Zel::HashMap2018 ipsecTunnelInfo", "Zel::HashMap2018 appliedProfiles"));
  EXPECT_THAT(describe("Ipsec::Ike::TunnelInfo"), ElementsAre("String profileName"));
  EXPECT_THAT(describe("Ipsec::Ike::IpsecProfileConnectionMap"),
              ElementsAre("Zel::HashMap2018 appliedIntfId"));
  EXPECT_THAT(describe("Ipsec::Ike::IpsecTunnelProfileInfo"),
              ElementsAre("Ipsec::Ike::ConnState connState"));
}

TEST(InputRecords, AreOfTheTypesThatTheyAreKnownBy) {
  EXPECT_EQ(&Interface::TunnelIntfStatus(Plexa::IntfId(5)).type(),
            Zel::typeByName("Interface::TunnelIntfStatus"));
  EXPECT_EQ(&Interface::TunnelIntfStatusDir("d").type(),
            Zel::typeByName("Interface::TunnelIntfStatusDir"));
  EXPECT_EQ(&IntfSnmp::IfMib("i").type(), Zel::typeByName("IntfSnmp::IfMib"));
  EXPECT_EQ(&Ipsec::Ike::Status("s").type(), Zel::typeByName("Ipsec::Ike::Status"));
  EXPECT_EQ(&Ipsec::Ike::TunnelInfo().type(), Zel::typeByName("Ipsec::Ike::TunnelInfo"));
  EXPECT_EQ(&Ipsec::Ike::IpsecProfileConnectionMap().type(),
            Zel::typeByName("Ipsec::Ike::IpsecProfileConnectionMap"));
  EXPECT_EQ(&Ipsec::Ike::IpsecTunnelProfileInfo().type(),
            Zel::typeByName("Ipsec::Ike::IpsecTunnelProfileInfo"));
}

/// Each attribute type of a module is one of its types, of its outside types, or a plain one.
TEST(InputRecords, HaveAttributesOfTypesThatTheirModulesName) {
  std::vector<std::string> unknown;
  for (auto const * module : Zel::modules())
    for (auto const * type : module->types)
      for (auto const * attribute : type->attributes) {
        auto const name = attribute->typeName;
        auto const plain = name == "U8" || name == "bool" || name == "String";
        auto const & outside = module->outsideTypes;
        if (!plain && Zel::typeByName(name) == nullptr &&
            std::find(outside.begin(), outside.end(), name) == outside.end())
          unknown.push_back(fmt::format("{} {}", type->name, attribute->name));
      }
  EXPECT_THAT(unknown, IsEmpty());
}

TEST(InputRecords, AreReadByName) {
  Interface::TunnelIntfStatus const status(Plexa::IntfId(5), {.hopLimit = 64, .tos = 46});
  EXPECT_EQ(std::get<std::string>(Zel::attribute(status, "intfId").is), "5");
  EXPECT_EQ(std::get<std::uint64_t>(Zel::attribute(status, "hopLimit").is), 64u);
  EXPECT_EQ(std::get<std::uint64_t>(Zel::attribute(status, "tos").is), 46u);
  EXPECT_EQ(std::get<std::string>(
                Zel::attribute(Ipsec::Ike::IpsecTunnelProfileInfo({Ipsec::Ike::ConnState::up}),
                               "connState")
                    .is),
            "up");
}

TEST(InputRecords, NotifyTheAttributesThatTheyDescribe) {
  auto const status = Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(5));
  auto const ear = Zel::makePtr<Ear>();
  ear->notifierIs(status.get());
  status->ipsecIs(true);
  status->srcAddrIs(Plexa::IpGenAddr(Plexa::AddressFamily::ipv4));
  status->hopLimitIs(64);
  status->tosIs(5);
  status->modeIs(Plexa::TunnelIntfMode::gre);
  status->dstAddrIs(Plexa::IpGenAddr(Plexa::AddressFamily::ipv6));
  EXPECT_THAT(ear->heard, ElementsAre("ipsec", "srcAddr", "hopLimit", "tos", "mode", "dstAddr"));
  EXPECT_EQ(&Interface::TunnelIntfStatus::ipsecAttribute(), status->type().attributes[6]);
}

TEST(InputRecords, AdvanceTheDirectoryRevisionWithTheProfileName) {
  Ipsec::Ike::TunnelInfo info;
  auto const before = Ipsec::Ike::directoryRevision();
  info.profileNameIs("a");
  auto const one = Ipsec::Ike::directoryRevision();
  info.valuesIs({"b"});
  auto const two = Ipsec::Ike::directoryRevision();
  info.valuesIs({"b"});
  EXPECT_LT(before, one);
  EXPECT_LT(one, two);
  EXPECT_EQ(two, Ipsec::Ike::directoryRevision());
}

} // namespace
