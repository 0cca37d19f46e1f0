// The messages of AgentX against octets that were written down by hand from the layouts of RFC 2741
// sections 5 and 6, in both byte orders, and against octets that are no message.
#include "agent/agentx/Pdu.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sstream>

namespace {

using namespace Agent::AgentX;
using testing::HasSubstr;
using Octets = std::vector<std::uint8_t>;

/// "01 0d" as octets.
Octets octets(std::string const & text) {
  std::istringstream in(text);
  Octets all;
  for (unsigned octet = 0; in >> std::hex >> octet;)
    all.push_back(static_cast<std::uint8_t>(octet));
  return all;
}

Octets encoded(Header const & header, Body const & body) {
  std::string out;
  encode(out, header, body);
  return {out.begin(), out.end()};
}

std::variant<Frame, Malformed> headerOf(Octets const & message) {
  return decodeHeader(std::span(message).first<headerSize>());
}

/// Decodes a whole message; the text of the fault is a failure of the test.
std::pair<Header, Body> decoded(Octets const & message) {
  auto const frame = headerOf(message);
  if (auto const * fault = std::get_if<Malformed>(&frame)) {
    ADD_FAILURE() << fault->reason;
    return {};
  }
  auto const & header = std::get<Frame>(frame).header;
  EXPECT_EQ(message.size() - headerSize, std::get<Frame>(frame).payloadSize);
  auto const body = decodeBody(header, std::span(message).subspan(headerSize));
  if (auto const * fault = std::get_if<Malformed>(&body)) {
    ADD_FAILURE() << fault->reason;
    return {};
  }
  return {header, std::get<Body>(body)};
}

/// Why the payload is refused; empty when it is not.
std::string refusal(Type type, std::string const & payload, bool hasContext = false) {
  Header header;
  header.type = type;
  header.hasContext = hasContext;
  auto const body = decodeBody(header, octets(payload));
  auto const * fault = std::get_if<Malformed>(&body);
  return fault == nullptr ? "" : fault->reason;
}

struct Layout {
  char const * name;
  Header header;
  Body body;
  std::string octets;
};
void PrintTo(Layout const & one, std::ostream * out) {
  *out << one.name;
}

/// Session 7, transaction 8, packet 9.
Header header(Type type, ByteOrder order = ByteOrder::big) {
  return {.type = type, .order = order, .session = 7, .transaction = 8, .packet = 9};
}
Header withContext(Header one) {
  one.hasContext = true;
  return one;
}
Header ofInstance(Header one) {
  one.isInstance = true;
  return one;
}

Oid const tunnelMib{1, 3, 6, 1, 2, 1, 10, 131};
std::string const ids = "00 00 00 07  00 00 00 08  00 00 00 09 ";
std::string const idsSwapped = "07 00 00 00  08 00 00 00  09 00 00 00 ";

VarBind bound(Oid name, ValueType type, decltype(VarBind::value) value = {}) {
  return {std::move(name), type, std::move(value)};
}

std::vector<Layout> layouts() {
  return {
      {"Open", header(Type::open), Open{5, {1, 3, 6, 1, 4, 1}, "tun"},
       "01 01 10 00 " + ids +
           "00 00 00 14"
           " 05 00 00 00"               // the timeout
           " 01 04 00 00 00 00 00 01"   // 1.3.6.1 . 4 in one octet, then 1
           " 00 00 00 03 74 75 6e 00"}, // "tun", padded
      {"Close", header(Type::close), Close{CloseReason::shutdown},
       "01 02 10 00 " + ids + "00 00 00 04 05 00 00 00"},
      {"Register", header(Type::registration), Registration{0, {"", tunnelMib, 127, 0, 0}},
       "01 03 10 00 " + ids +
           "00 00 00 14"
           " 00 7f 00 00" // timeout, priority, range, reserved
           " 03 02 00 00 00 00 00 01 00 00 00 0a 00 00 00 83"},
      {"RegisterRangeInContext", withContext(header(Type::registration)),
       Registration{3, {"red", {1, 3}, 1, 2, 9}},
       "01 03 18 00 " + ids +
           "00 00 00 1c"
           " 00 00 00 03 72 65 64 00" // the context
           " 03 01 02 00"
           " 02 00 00 00 00 00 00 01 00 00 00 03" // too short for a prefix
           " 00 00 00 09"},                       // up to here
      {"RegisterInstance", ofInstance(header(Type::registration)),
       Registration{0, {"", {1}, 127, 0, 0}},
       "01 03 11 00 " + ids + "00 00 00 0c 00 7f 00 00 01 00 00 00 00 00 00 01"},
      {"Unregister", header(Type::unregistration), Unregistration{{"", {1}, 127, 0, 0}},
       "01 04 10 00 " + ids + "00 00 00 0c 00 7f 00 00 01 00 00 00 00 00 00 01"},
      {"Get", header(Type::get), Get{"", {{tunnelMib, false, {}}}},
       "01 05 10 00 " + ids +
           "00 00 00 14"
           " 03 02 00 00 00 00 00 01 00 00 00 0a 00 00 00 83"
           " 00 00 00 00"}, // no end
      {"GetNextThatIncludesItsStart", header(Type::getNext), GetNext{"", {{{1}, true, {2}}}},
       "01 06 10 00 " + ids +
           "00 00 00 10"
           " 01 00 01 00 00 00 00 01  01 00 00 00 00 00 00 02"},
      {"GetNextLittle", header(Type::getNext, ByteOrder::little),
       GetNext{"", {{{1, 258}, false, {}}}},
       "01 06 00 00 " + idsSwapped +
           "10 00 00 00"
           " 02 00 00 00 01 00 00 00 02 01 00 00  00 00 00 00"},
      {"GetBulk", header(Type::getBulk), GetBulk{"", 1, 258, {{{1}, false, {}}}},
       "01 07 10 00 " + ids + "00 00 00 10 00 01 01 02  01 00 00 00 00 00 00 01  00 00 00 00"},
      {"GetBulkLittle", header(Type::getBulk, ByteOrder::little), GetBulk{"", 1, 258, {}},
       "01 07 00 00 " + idsSwapped + "04 00 00 00 01 00 02 01"},
      {"TestSet", header(Type::testSet),
       TestSet{"", {bound({1}, ValueType::integer, std::uint32_t{0xFFFFFFFF})}},
       "01 08 10 00 " + ids + "00 00 00 10 00 02 00 00  01 00 00 00 00 00 00 01  ff ff ff ff"},
      {"CommitSet", header(Type::commitSet), CommitSet{}, "01 09 10 00 " + ids + "00 00 00 00"},
      {"UndoSet", header(Type::undoSet), UndoSet{}, "01 0a 10 00 " + ids + "00 00 00 00"},
      {"CleanupSet", header(Type::cleanupSet), CleanupSet{}, "01 0b 10 00 " + ids + "00 00 00 00"},
      {"Ping", header(Type::ping), Ping{}, "01 0d 10 00 " + ids + "00 00 00 00"},
      {"PingInContext", withContext(header(Type::ping)), Ping{"blue"},
       "01 0d 18 00 " + ids + "00 00 00 08 00 00 00 04 62 6c 75 65"},
      {"ResponseOfEachType", header(Type::response),
       Response{256,
                Error::none,
                2,
                {bound({1}, ValueType::octetString, std::string("abcde")),
                 bound({1}, ValueType::null), bound({1}, ValueType::objectIdentifier, Oid{2}),
                 bound({1}, ValueType::ipAddress, std::string("\x7f\0\0\1", 4)),
                 bound({1}, ValueType::counter32, std::uint32_t{1}),
                 bound({1}, ValueType::gauge32, std::uint32_t{2}),
                 bound({1}, ValueType::timeTicks, std::uint32_t{3}),
                 bound({1}, ValueType::opaque, std::string("x")),
                 bound({1}, ValueType::counter64, std::uint64_t{0x0102030405060708}),
                 bound({1}, ValueType::noSuchObject), bound({1}, ValueType::noSuchInstance),
                 bound({1}, ValueType::endOfMibView)}},
       "01 12 10 00 " + ids +
           "00 00 00 d0"
           " 00 00 01 00  00 00 00 02"
           " 00 04 00 00 01 00 00 00 00 00 00 01  00 00 00 05 61 62 63 64 65 00 00 00"
           " 00 05 00 00 01 00 00 00 00 00 00 01"
           " 00 06 00 00 01 00 00 00 00 00 00 01  01 00 00 00 00 00 00 02"
           " 00 40 00 00 01 00 00 00 00 00 00 01  00 00 00 04 7f 00 00 01"
           " 00 41 00 00 01 00 00 00 00 00 00 01  00 00 00 01"
           " 00 42 00 00 01 00 00 00 00 00 00 01  00 00 00 02"
           " 00 43 00 00 01 00 00 00 00 00 00 01  00 00 00 03"
           " 00 44 00 00 01 00 00 00 00 00 00 01  00 00 00 01 78 00 00 00"
           " 00 46 00 00 01 00 00 00 00 00 00 01  01 02 03 04 05 06 07 08"
           " 00 80 00 00 01 00 00 00 00 00 00 01"
           " 00 81 00 00 01 00 00 00 00 00 00 01"
           " 00 82 00 00 01 00 00 00 00 00 00 01"},
      {"ResponseLittle", header(Type::response, ByteOrder::little),
       Response{1,
                Error::duplicateRegistration,
                0,
                {bound({1}, ValueType::counter64, std::uint64_t{0x0102030405060708})}},
       "01 12 00 00 " + idsSwapped +
           "1c 00 00 00"
           " 01 00 00 00  07 01 00 00"
           " 46 00 00 00 01 00 00 00 01 00 00 00  08 07 06 05 04 03 02 01"},
  };
}

class PduLayout : public testing::TestWithParam<Layout> {};

TEST_P(PduLayout, IsWrittenAsTheRfcSays) {
  EXPECT_EQ(octets(GetParam().octets), encoded(GetParam().header, GetParam().body));
}

TEST_P(PduLayout, IsReadAsTheRfcSays) {
  auto const [header, body] = decoded(octets(GetParam().octets));
  EXPECT_EQ(GetParam().header, header);
  EXPECT_EQ(GetParam().body, body);
}

// Of every layout, each shorter payload is told apart from a whole one, except where the cut falls
// between two elements of a list: what is left is a shorter list then.
TEST_P(PduLayout, IsNeverReadBeyondItsEnd) {
  auto const whole = octets(GetParam().octets);
  auto const & header = GetParam().header;
  for (std::size_t size = headerSize; size < whole.size(); ++size) {
    auto const cut = Octets(whole.begin() + headerSize, whole.begin() + static_cast<long>(size));
    auto const body = decodeBody(header, cut);
    if (auto const * read = std::get_if<Body>(&body)) {
      EXPECT_NE(GetParam().body, *read) << "cut to " << size;
      auto const again = encoded(header, *read);
      EXPECT_EQ(cut, Octets(again.begin() + headerSize, again.end())) << "cut to " << size;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Messages, PduLayout, testing::ValuesIn(layouts()),
                         [](auto const & one) { return std::string(one.param.name); });

TEST(Pdu, ReadsThePrefixOfAName) {
  auto const [header, body] =
      decoded(octets("01 05 10 00 " + ids + "00 00 00 08 00 02 00 00 00 00 00 00"));
  EXPECT_EQ((Oid{1, 3, 6, 1, 2}), std::get<Get>(body).ranges.at(0).start);
}

TEST(Pdu, KeepsANameWithoutAPrefixWhereOneOctetDoesNotSuffice) {
  for (std::uint32_t const fifth : {0U, 256U, 0xFFFFFFFFU}) {
    Oid const name{1, 3, 6, 1, fifth};
    auto const message = encoded(header(Type::get), Get{"", {{name, false, {}}}});
    EXPECT_EQ(5, message.at(headerSize)); // sub-identifiers that stand there
    EXPECT_EQ(name, std::get<Get>(decoded(message).second).ranges.at(0).start);
  }
}

TEST(Pdu, TakesTheLongestName) {
  Oid const longest(longestOid, 1);
  auto const message = encoded(header(Type::get), Get{"", {{longest, false, longest}}});
  EXPECT_EQ(longest, std::get<Get>(decoded(message).second).ranges.at(0).end);
}

TEST(Pdu, RefusesALongerName) {
  std::string payload = "81 00 00 00";
  for (int i = 0; i != 129; ++i)
    payload += " 00 00 00 01";
  EXPECT_THAT(refusal(Type::get, payload + " 00 00 00 00"), HasSubstr("128"));
  payload = "7c 01 00 00"; // five of the prefix and 124 more
  for (int i = 0; i != 124; ++i)
    payload += " 00 00 00 01";
  EXPECT_THAT(refusal(Type::get, payload + " 00 00 00 00"), HasSubstr("128"));
}

TEST(Pdu, RefusesWhatDoesNotFitItsLayout) {
  EXPECT_THAT(refusal(Type::get, "01 00 00 00"), HasSubstr("ends within"));
  EXPECT_THAT(refusal(Type::get, "01 00 00 00 00 00 00 01"), HasSubstr("ends within"));
  EXPECT_THAT(refusal(Type::ping, "ff ff ff ff", true), HasSubstr("beyond the end"));
  EXPECT_THAT(refusal(Type::ping, "00 00 00 05 61 62 63 64", true), HasSubstr("beyond the end"));
  EXPECT_THAT(refusal(Type::ping, "00 00 00 01 61", true), HasSubstr("ends within"));
  EXPECT_THAT(refusal(Type::ping, "00 00 00 00"), HasSubstr("left over"));
  EXPECT_THAT(refusal(Type::close, "01 00 00 00 00 00 00 00"), HasSubstr("left over"));
  EXPECT_THAT(refusal(Type::response, "00 00 00 00"), HasSubstr("ends within"));
  EXPECT_THAT(refusal(Type::testSet, "00 03 00 00 01 00 00 00 00 00 00 01"),
              HasSubstr("a value of type 3"));
  EXPECT_THAT(refusal(Type::testSet, "00 40 00 00 00 00 00 00 00 00 00 03 61 62 63 00"),
              HasSubstr("four octets"));
}

TEST(Pdu, RefusesMoreNamesThanARequestOfSnmpHas) {
  auto const most = std::vector<SearchRange>(mostVarBinds, {{1}, false, {}});
  EXPECT_EQ(mostVarBinds,
            std::get<Get>(decoded(encoded(header(Type::get), Get{"", most})).second).ranges.size());
  auto const more = std::vector<SearchRange>(mostVarBinds + 1, {{1}, false, {}});
  auto const message = encoded(header(Type::get), Get{"", more});
  auto const body = decodeBody(header(Type::get), std::span(message).subspan(headerSize));
  EXPECT_THAT(std::get<Malformed>(body).reason, HasSubstr("6553"));
}

TEST(Pdu, RefusesTypesThatItDoesNotKnow) {
  for (auto const type : {0, 12, 14, 15, 16, 17, 19, 255})
    EXPECT_EQ(fmt::format("a message of type {}", type), refusal(static_cast<Type>(type), ""));
}

TEST(Pdu, RefusesHeadersThatLeadNowhere) {
  auto const reason = [](std::string const & text) {
    auto const frame = headerOf(octets(text));
    auto const * fault = std::get_if<Malformed>(&frame);
    return fault == nullptr ? "" : fault->reason;
  };
  EXPECT_THAT(reason("00 0d 10 00 " + ids + "00 00 00 00"), HasSubstr("version 0"));
  EXPECT_THAT(reason("02 0d 10 00 " + ids + "00 00 00 00"), HasSubstr("version 2"));
  EXPECT_THAT(reason("01 0d 10 00 " + ids + "00 00 00 06"), HasSubstr("6 octets"));
  EXPECT_THAT(reason("01 0d 10 00 " + ids + "00 10 00 04"), HasSubstr("1048580 octets"));
  EXPECT_THAT(reason("01 0d 10 00 " + ids + "ff ff ff fc"), HasSubstr("4294967292 octets"));
  EXPECT_EQ("", reason("01 0d 10 00 " + ids + "00 10 00 00"));
}

TEST(Pdu, WritesBehindWhatIsThere) {
  std::string out = "before";
  encode(out, header(Type::ping), Ping{});
  encode(out, header(Type::commitSet), CommitSet{});
  auto const first = encoded(header(Type::ping), Ping{});
  auto const second = encoded(header(Type::commitSet), CommitSet{});
  EXPECT_EQ("before" + std::string(first.begin(), first.end()) +
                std::string(second.begin(), second.end()),
            out);
}

TEST(Pdu, NamesErrorsAsTheRfcDoes) {
  EXPECT_EQ("duplicateRegistration", errorText(Error::duplicateRegistration));
  EXPECT_EQ("notOpen", errorText(Error::notOpen));
  EXPECT_EQ("error 999", errorText(static_cast<Error>(999)));
  EXPECT_EQ("1.3.6.1.2.1.10.131", oidText(tunnelMib));
  EXPECT_EQ("", oidText({}));
}

} // namespace
