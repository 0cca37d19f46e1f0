// What strongSwan lists, as values. Some of it a real one said.
#include "sources/vici/Listing.h"
#include "platform/Lumo.h"
#include "tests/sources/vici/Recordings.h"
#include "tests/sources/vici/ViciBytes.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace Sources;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using ViciBytes::Message;
using ViciBytes::octets;

std::vector<Ike::IkeSa> sas(std::string const & message) {
  return Vici::decodeSas(octets(message));
}
/// The only one.
Ike::IkeSa sa(std::string const & message) {
  auto const all = sas(message);
  EXPECT_THAT(all, SizeIs(1));
  return all.at(0);
}
Ike::ChildSa child(std::vector<std::pair<std::string, std::string>> const & values) {
  return sa(ViciBytes::sa("c", "ESTABLISHED", {{"k", "INSTALLED", values}})).children.at(0);
}
Ike::Connection connection(std::string const & message) {
  auto const all = Vici::decodeConnections(octets(message));
  EXPECT_THAT(all, SizeIs(1));
  return all.at(0);
}
Plexa::IpGenAddr address(char const * text) {
  return *Plexa::IpGenAddr::fromString(text);
}
Ike::Selector selector(char const * text) {
  return *Ike::selectorFromText(text);
}

TEST(ViciSa, HasWhatTheDaemonSays) {
  auto const decoded = sa(ViciBytes::sa("office", "ESTABLISHED",
                                        {{"gre",
                                          "INSTALLED",
                                          {{"if-id-in", "0000002a"},
                                           {"if-id-out", "0000002b"},
                                           {"mark-in", "00000009"},
                                           {"mark-out", "ffffffff"}},
                                          "10.0.0.1/32[gre]",
                                          "10.0.0.2/32[47]"}},
                                        12));
  Ike::ChildSa const gre{.name = "gre",
                         .uniqueId = 7,
                         .state = Ike::ChildState::installed,
                         .mode = Ike::Mode::tunnel,
                         .ifIdIn = 0x2a,
                         .ifIdOut = 0x2b,
                         .markIn = 9,
                         .markOut = 0xffffffff,
                         .local = {selector("10.0.0.1/32[gre]")},
                         .remote = {selector("10.0.0.2/32[gre]")}};
  EXPECT_EQ(decoded, (Ike::IkeSa{.connection = "office",
                                 .uniqueId = 12,
                                 .state = Ike::IkeState::established,
                                 .local = address("10.0.0.1"),
                                 .remote = address("10.0.0.2"),
                                 .children = {gre}}));
}

TEST(ViciSa, HasItsStateByItsWord) {
  using enum Ike::IkeState;
  std::pair<char const *, Ike::IkeState> const words[] = {
      {"CREATED", created},   {"CONNECTING", connecting}, {"ESTABLISHED", established},
      {"PASSIVE", passive},   {"REKEYING", rekeying},     {"REKEYED", rekeyed},
      {"DELETING", deleting}, {"DESTROYING", destroying}, {"DREAMING", unknown},
      {"", unknown},          {"established", unknown}};
  for (auto const & [word, state] : words)
    EXPECT_EQ(sa(ViciBytes::sa("c", word, {})).state, state) << word;
}

TEST(ViciSa, HasItsChildrensStatesByTheirWords) {
  using enum Ike::ChildState;
  std::pair<char const *, Ike::ChildState> const words[] = {
      {"CREATED", created},     {"ROUTED", routed},         {"INSTALLING", installing},
      {"INSTALLED", installed}, {"UPDATING", updating},     {"REKEYING", rekeying},
      {"REKEYED", rekeyed},     {"RETRYING", retrying},     {"DELETING", deleting},
      {"DELETED", deleted},     {"DESTROYING", destroying}, {"NO SUCH", unknown}};
  for (auto const & [word, state] : words) {
    auto const decoded = sa(ViciBytes::sa("c", "ESTABLISHED", {{"k", word}}));
    EXPECT_EQ(decoded.children.at(0).state, state) << word;
    EXPECT_EQ(decoded.state, Ike::IkeState::established) << word;
  }
}

TEST(ViciSa, HasItsChildrensModes) {
  using enum Ike::Mode;
  std::pair<char const *, Ike::Mode> const words[] = {
      {"TUNNEL", tunnel}, {"TRANSPORT", transport}, {"BEET", beet}, {"PASS", other}};
  for (auto const & [word, mode] : words)
    EXPECT_EQ(child({{"mode", word}}).mode, mode) << word;
}

TEST(ViciSa, HasNoNumbersWhereNoneAreSet) {
  auto const none = child({});
  EXPECT_EQ(none.ifIdIn, std::nullopt);
  EXPECT_EQ(none.ifIdOut, std::nullopt);
  EXPECT_EQ(none.markIn, std::nullopt);
  EXPECT_EQ(none.markOut, std::nullopt);
}

TEST(ViciSa, HasMarksWithOrWithoutAMask) {
  EXPECT_EQ(child({{"mark-out", "00000009/ffffffff"}}).markOut, 9u);
  EXPECT_EQ(child({{"mark-in", "0000000a/000000ff"}}).markIn, 10u);
  EXPECT_EQ(child({{"mark-in", "0000000a/"}}).state, Ike::ChildState::unknown);
}

TEST(ViciSa, IsUnknownWhereAFieldCannotBeRead) {
  auto const before = Lumo::counter("vici-fields-unreadable");
  for (auto const & wrong : {"0x2a"s, ""s, "123456789"s, "g"s, "-1"s, " 1"s, "2a\0"s}) {
    auto const decoded = child({{"if-id-out", wrong}, {"state", "INSTALLED"}});
    EXPECT_EQ(decoded.state, Ike::ChildState::unknown) << wrong;
    EXPECT_EQ(decoded.ifIdOut, std::nullopt) << wrong;
  }
  EXPECT_EQ(child({{"uniqueid", "4294967296"}}).state, Ike::ChildState::unknown);
  EXPECT_EQ(Lumo::counter("vici-fields-unreadable"), before + 8);
}

TEST(ViciSa, IsUnknownAlsoWhereTheStateFollowsTheFieldThatCannotBeRead) {
  for (auto const * key : {"uniqueid", "local-host", "remote-host"}) {
    auto const decoded = sa(Message()
                                .section("c")
                                .value(key, "what?")
                                .value("state", "ESTABLISHED")
                                .section("child-sas")
                                .section("k-1")
                                .value("state", "INSTALLED")
                                .end()
                                .end()
                                .end());
    EXPECT_EQ(decoded.state, Ike::IkeState::unknown) << key;
    EXPECT_EQ(decoded.children.at(0).state, Ike::ChildState::installed) << key;
  }
}

TEST(ViciSa, HasHostsOfBothFamiliesAndNoneYet) {
  auto const hosts = [](std::string const & local, std::string const & remote) {
    return sa(Message()
                  .section("c")
                  .value("state", "CONNECTING")
                  .value("local-host", local)
                  .value("remote-host", remote)
                  .end());
  };
  EXPECT_EQ(hosts("2001:db8::1", "10.0.0.2").local, address("2001:db8::1"));
  EXPECT_EQ(hosts("%any", "%any6"), hosts("%any", "%any"));
  EXPECT_EQ(hosts("%any", "10.0.0.2").local, Plexa::IpGenAddr());
  EXPECT_EQ(hosts("%any", "10.0.0.2").state, Ike::IkeState::connecting);
  for (auto const & wrong : {""s, "10.0.0"s, "10.0.0.1\0"s, "host.example"s})
    EXPECT_EQ(hosts(wrong, "10.0.0.2").state, Ike::IkeState::unknown) << wrong;
}

TEST(ViciSa, OfNoConnectionYetIsLeftOut) {
  EXPECT_THAT(sas(ViciBytes::sa("(unnamed)", "CONNECTING", {})), IsEmpty());
  EXPECT_THAT(sas(""), IsEmpty());
}

TEST(ViciSa, LeavesOutSelectorsThatCannotBeRead) {
  auto const before = Lumo::counter("vici-selectors-left-out");
  Message message;
  message.section("c").value("state", "ESTABLISHED").section("child-sas").section("k-1");
  message.value("state", "INSTALLED").list("local-ts", {"10.0.0.1/32[tcp/http]", "10.0.0.1/32"});
  auto const decoded = sa(message.list("remote-ts", {"what?"}).end().end().end());
  EXPECT_THAT(decoded.children.at(0).local, ElementsAre(selector("10.0.0.1/32")));
  EXPECT_THAT(decoded.children.at(0).remote, IsEmpty());
  EXPECT_EQ(decoded.children.at(0).state, Ike::ChildState::installed);
  EXPECT_EQ(Lumo::counter("vici-selectors-left-out"), before + 2);
}

TEST(ViciSa, TakesABoundedNumberOfSelectors) {
  std::vector<std::string> const many(Vici::mostSelectors, "10.0.0.0/8");
  Message message;
  message.section("c").section("child-sas").section("k-1").list("local-ts", many);
  auto const decoded = sa(message.list("remote-ts", {"10.0.0.0/8"}).end().end().end());
  EXPECT_THAT(decoded.children.at(0).local, SizeIs(Vici::mostSelectors));
  EXPECT_THAT(decoded.children.at(0).remote, IsEmpty());
}

TEST(ViciSa, PassesOverWhatNobodyAsksFor) {
  Message message;
  message.value("state", "DELETING")
      .section("c")
      .value("nobody", "knows")
      .value("state", "PASSIVE");
  message.section("other").section("k-1").value("state", "INSTALLED").end().end();
  message.section("child-sas").value("state", "x").list("local-ts", {"x"}).section("k-1");
  message.section("old").value("state", "INSTALLED").list("local-ts", {"x"}).end();
  auto const decoded = sa(message.value("state", "ROUTED").end().end().end());
  EXPECT_EQ(decoded.state, Ike::IkeState::passive);
  ASSERT_THAT(decoded.children, SizeIs(1));
  EXPECT_EQ(decoded.children[0].state, Ike::ChildState::routed);
  EXPECT_EQ(decoded.children[0].name, "k-1") << "it says no other";
}

TEST(ViciSa, HasNamesThatCanBeShown) {
  std::string const longest(255, 'n');
  EXPECT_EQ(sa(ViciBytes::sa(longest, "PASSIVE", {})).connection, longest);
  EXPECT_EQ(sa(ViciBytes::sa("a\0b\n\xff"s, "PASSIVE", {})).connection, "a\\x00b\\x0A\\xFF");
  EXPECT_EQ(child({{"name", "k\x1b"}}).name, "k\\x1B");
  EXPECT_EQ(child({{"name", std::string(65535, 'n')}}).name, longest);
}

TEST(ViciSa, IsRefusedWhenTheMessageIsMalformed) {
  auto const whole = ViciBytes::sa("c", "ESTABLISHED", {{"k"}});
  EXPECT_THROW(sas(whole.substr(0, whole.size() - 1)), Vici::Malformed);
}

TEST(ViciSa, OfARealDaemonCanBeReadInEveryField) {
  auto const unreadable = Lumo::counter("vici-fields-unreadable");
  auto const leftOut = Lumo::counter("vici-selectors-left-out");
  std::size_t children = 0;
  for (auto const & file : std::filesystem::directory_iterator(RECORDINGS)) {
    if (file.path().extension() != ".txt")
      continue;
    for (auto const & message : ViciBytes::recordedEvents(file.path(), "list-sa"))
      for (auto const & one : sas(message)) {
        EXPECT_EQ(one.local, address("10.9.0.1"));
        EXPECT_NE(one.state, Ike::IkeState::unknown);
        for (auto const & each : one.children) {
          EXPECT_NE(each.state, Ike::ChildState::unknown);
          EXPECT_EQ(each.mode, Ike::Mode::tunnel);
          EXPECT_THAT(each.local, SizeIs(1));
          EXPECT_THAT(each.remote, SizeIs(1));
          ++children;
        }
      }
  }
  EXPECT_GE(children, 10u);
  EXPECT_EQ(Lumo::counter("vici-fields-unreadable"), unreadable);
  EXPECT_EQ(Lumo::counter("vici-selectors-left-out"), leftOut);
}

TEST(ViciConnection, OfARealDaemonHasItsAddressesAndChildren) {
  auto const messages = ViciBytes::recordedEvents(RECORDINGS "/list-conns.txt", "list-conn");
  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_EQ(connection(messages[0]),
            (Ike::Connection{.name = "site",
                             .local = {address("10.9.0.1")},
                             .remote = {address("10.9.0.2")},
                             .children = {{.name = "vx",
                                           .mode = Ike::Mode::tunnel,
                                           .local = {selector("10.8.0.1/32")},
                                           .remote = {selector("10.8.0.2/32")}}}}));
}

TEST(ViciConnection, HasWhatTheDaemonSays) {
  Ike::ChildConfig const gre{.name = "gre",
                             .mode = Ike::Mode::transport,
                             .local = {selector("dynamic[gre]")},
                             .remote = {selector("dynamic[gre]")}};
  Message message;
  message.section("office").list("local_addrs", {"10.0.0.1", "2001:db8::1"});
  message.list("remote_addrs", {"10.0.0.2"}).value("version", "IKEv2");
  message.section("local-1").value("mode", "TUNNEL").list("local-ts", {"x"}).end();
  message.section("children").section("gre").value("mode", "TRANSPORT");
  message.list("local-ts", {"dynamic[gre]"}).list("remote-ts", {"dynamic[gre]"}).end();
  EXPECT_EQ(connection(message.section("other").end().end().end()),
            (Ike::Connection{.name = "office",
                             .local = {address("10.0.0.1"), address("2001:db8::1")},
                             .remote = {address("10.0.0.2")},
                             .children = {gre, {.name = "other"}}}));
}

TEST(ViciConnection, HasSingleAddressesOnly) {
  std::vector<std::string> const others{
      "%any", "%any6", "10.0.0.0/24", "0.0.0.0", "::", "gw.example.org", "", "10.0.0.1-10.0.0.9"};
  Message message;
  message.section("c").list("local_addrs", others).list("remote_addrs", others);
  auto const decoded = connection(message.end());
  EXPECT_THAT(decoded.local, IsEmpty());
  EXPECT_THAT(decoded.remote, IsEmpty());
}

TEST(ViciAnswer, TellsTheVersion) {
  auto const version = [](std::string const & text) {
    std::string const answer = Message().value("daemon", "charon").value("version", text);
    return Vici::decodeVersion(octets(answer));
  };
  EXPECT_EQ(version("5.9.8"), "strongSwan 5.9.8");
  EXPECT_EQ(version("5.9.8\n\x1b[2J"), "strongSwan 5.9.8 \\x1B[2J");
  EXPECT_EQ(version(std::string(65535, '5')).size(), 211u);
  EXPECT_EQ(Vici::decodeVersion({}), "strongSwan");
}

TEST(ViciAnswer, TellsWhatIsWrong) {
  auto const error = [](std::string const & message) { return Vici::decodeError(octets(message)); };
  EXPECT_EQ(error(""), "");
  EXPECT_EQ(error(Message().value("success", "yes").value("errmsg", "x")), "");
  EXPECT_EQ(error(Message().value("success", "no").value("errmsg", "not\nnow")), "not now");
  EXPECT_EQ(error(Message().value("success", "no")), "it does not say why");
  EXPECT_EQ(error(Message().section("s").value("success", "no").end()), "") << "not at the top";
}

} // namespace
