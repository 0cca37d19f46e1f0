// What the control socket tells of each tunnel.
#include "agent/Tunnels.h"
#include "statedb/Publisher.h"
#include "statedb/Publishers.h"
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;

class Tunnels : public testing::Test {
protected:
  void tunnelIs(std::uint64_t intfId) {
    Interface::TunnelIntfStatusValues values;
    values.srcAddr = *Plexa::IpGenAddr::fromString("192.0.2.1");
    values.dstAddr = *Plexa::IpGenAddr::fromString("2001:db8::2");
    values.mode = Plexa::TunnelIntfMode::gre;
    values.hopLimit = 64;
    values.ipsec = true;
    publisher_.statusIs(Plexa::IntfId(intfId), values);
  }
  std::string written(int * pieces = nullptr) {
    Agent::TunnelsWriter writer(database_, links_);
    std::string out;
    int count = 1;
    for (; writer.next(out); ++count) {
    }
    if (pieces != nullptr)
      *pieces = count;
    return out;
  }

  StateDb::StateDb database_;
  StateDb::Publishers publishers_{database_, {}};
  StateDb::Publisher publisher_{publishers_};
  Sources::Links links_;
};

TEST_F(Tunnels, AreNoneWithoutAny) {
  EXPECT_EQ("[]", written());
}

TEST_F(Tunnels, HaveWhatTheInputsAndTheLinksTellOfThem) {
  tunnelIs(7);
  publisher_.ifIndexIs(Plexa::IntfId(7), 12);
  publisher_.tunnelInfoIs(Plexa::IntfId(7), {{.profileName = "hq"}});
  publisher_.connectionIs("hq", Plexa::IntfId(7), {{.connState = Ipsec::Ike::ConnState::ikeUp}});
  links_.linkIs({.intfId = Plexa::IntfId(7), .name = "gre1", .kind = "gre"});
  EXPECT_EQ(Json::parse(R"([{"intfId": 7, "interface": "gre1", "kind": "gre", "ifIndex": 12,
                             "local": "192.0.2.1", "remote": "2001:db8::2", "mode": "gre",
                             "hopLimit": 64, "ipsec": true, "profile": "hq",
                             "connState": "ikeUp"}])"),
            Json::parse(written()));
}

TEST_F(Tunnels, LeaveOutWhatThereIsNoneOf) {
  publisher_.statusIs(Plexa::IntfId(7), Interface::TunnelIntfStatusValues());
  publisher_.tunnelInfoIs(Plexa::IntfId(7), {{.profileName = "none"}});
  EXPECT_EQ(Json::parse(R"([{"intfId": 7, "local": "", "remote": "", "mode": "unknown",
                             "hopLimit": 0, "ipsec": false, "profile": "none"}])"),
            Json::parse(written()));
}

TEST_F(Tunnels, WithoutARecordAreNone) {
  publisher_.statusIs(Plexa::IntfId(7), std::nullopt);
  EXPECT_EQ("[]", written());
}

TEST_F(Tunnels, AreCutIntoPiecesWithoutLosingOne) {
  for (std::uint64_t id = 0; id != 1001; ++id)
    tunnelIs(id);
  int pieces = 0;
  auto const all = Json::parse(written(&pieces));
  EXPECT_GE(pieces, 5);
  ASSERT_EQ(1001u, all.size());
  for (std::uint64_t id = 0; id != 1001; ++id)
    EXPECT_EQ(id, all[id]["intfId"]);
}

TEST_F(Tunnels, MayComeAndGoBetweenTwoPieces) {
  for (std::uint64_t id = 0; id != 600; ++id)
    tunnelIs(id);
  Agent::TunnelsWriter writer(database_, links_);
  std::string out;
  ASSERT_TRUE(writer.next(out));
  auto const last = Json::parse(out + "]").back()["intfId"].get<std::uint64_t>();
  publisher_.statusDel(Plexa::IntfId(last)); // behind which the next piece begins
  publisher_.statusDel(Plexa::IntfId(last + 1));
  tunnelIs(700);
  while (writer.next(out)) {
  }
  auto const all = Json::parse(out);
  EXPECT_EQ(600u, all.size()) << "one went before it was written, one came";
  EXPECT_EQ(700, all.back()["intfId"]);
}

TEST_F(Tunnels, BringNoControlCharacterToATerminal) {
  tunnelIs(7);
  links_.linkIs({.intfId = Plexa::IntfId(7), .name = "a\x1b[2J", .kind = "gre"});
  publisher_.tunnelInfoIs(Plexa::IntfId(7), {{.profileName = "b\nc"}});
  auto const tunnel = Json::parse(written()).at(0);
  EXPECT_EQ("a\\x1B[2J", tunnel["interface"]);
  EXPECT_EQ("b c", tunnel["profile"]);
}

} // namespace
