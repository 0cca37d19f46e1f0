// The codec of vici, against octets written by hand after the protocol's public description.
#include "sources/vici/Message.h"
#include "tests/sources/vici/ViciBytes.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace Sources::Vici;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using ViciBytes::Message;
using ViciBytes::octets;

/// Writes down what it is handed.
class Recorder final : public Visitor {
public:
  void sectionBegins(std::string_view name) override {
    heard.push_back(fmt::format("{} {{", name));
  }
  void sectionEnds() override { heard.emplace_back("}"); }
  void value(std::string_view key, std::string_view value) override {
    heard.push_back(fmt::format("{} = {}", key, value));
  }
  void item(std::string_view list, std::string_view value) override {
    heard.push_back(fmt::format("{} has {}", list, value));
  }
  std::vector<std::string> heard;
};

std::vector<std::string> elements(std::string const & message) {
  Recorder recorder;
  decodeElements(octets(message), recorder);
  return recorder.heard;
}

/// What is wrong with the message; empty when nothing is.
std::string fault(std::string const & message) {
  try {
    elements(message);
    return "";
  } catch (Malformed const & malformed) {
    return malformed.what();
  }
}

std::string packetFault(std::string const & packet) {
  try {
    decodePacket(octets(packet));
    return "";
  } catch (Malformed const & malformed) {
    return malformed.what();
  }
}

/// The types and names of the packets that are whole.
std::vector<std::string> takeAll(Segments & segments) {
  std::vector<std::string> packets;
  while (auto const packet = segments.next())
    packets.push_back(fmt::format("{} {} {}", static_cast<int>(packet->type), packet->name,
                                  packet->message.size()));
  return packets;
}

TEST(ViciSegment, IsALengthAPacketTypeItsNameAndItsMessage) {
  EXPECT_EQ(encodeSegment(PacketType::request, "version"), "\0\0\0\x09\0\x07version"s);
  EXPECT_EQ(encodeSegment(PacketType::registerEvent, "list-sa"), "\0\0\0\x09\x03\x07list-sa"s);
  EXPECT_EQ(encodeSegment(PacketType::confirmed), "\0\0\0\x01\x05"s);
  EXPECT_EQ(encodeSegment(PacketType::event, "e", "\2"), "\0\0\0\x04\x07\x01"
                                                         "e\2"s);
  EXPECT_EQ(encodeSegment(PacketType::response, {}, std::string(0x01020304 - 1, 'x')).substr(0, 5),
            "\1\2\3\4\1"s);
}

TEST(ViciPacket, HasANameWhereItsTypeHasOne) {
  for (auto const type : {0, 3, 4, 7}) {
    auto const octet = std::string(1, static_cast<char>(type));
    auto const text = octet + "\x03"s + "abcdef";
    auto const packet = decodePacket(octets(text));
    EXPECT_EQ(static_cast<int>(packet.type), type);
    EXPECT_EQ(packet.name, "abc");
    EXPECT_EQ(packet.message.size(), 3u);
    EXPECT_EQ(packetFault(octet + "\x03"s + "ab"), "2 octets where 3 should stand");
    EXPECT_EQ(packetFault(octet), "0 octets where 1 should stand");
  }
  for (auto const type : {1, 2, 5, 6}) {
    auto const text = std::string(1, static_cast<char>(type)) + "\x03"s + "ab";
    auto const packet = decodePacket(octets(text));
    EXPECT_EQ(static_cast<int>(packet.type), type);
    EXPECT_EQ(packet.name, "");
    EXPECT_EQ(packet.message.size(), 3u);
  }
}

TEST(ViciPacket, OfAnUnknownTypeOrWithoutOneIsRefused) {
  EXPECT_EQ(packetFault("\x08"s), "a packet of the unknown type 8");
  EXPECT_EQ(packetFault("\xff"s), "a packet of the unknown type 255");
  EXPECT_EQ(packetFault(""), "0 octets where 1 should stand");
}

TEST(ViciPacket, HasANameOfUpTo255Octets) {
  std::string const longest(longestName, 'n');
  auto const segment = encodeSegment(PacketType::event, longest, "m");
  auto const packet = decodePacket(octets(segment).subspan(4));
  EXPECT_EQ(packet.name, longest);
  EXPECT_EQ(packet.message.size(), 1u);
}

TEST(ViciSegments, GiveEachPacketHoweverItsOctetsCome) {
  auto const all = encodeSegment(PacketType::event, "one", "xx") +
                   encodeSegment(PacketType::confirmed) + encodeSegment(PacketType::event, "two");
  for (std::size_t piece = 1; piece <= all.size(); ++piece) {
    Segments segments;
    std::vector<std::string> packets;
    for (std::size_t at = 0; at < all.size(); at += piece) {
      segments.take(octets(all).subspan(at, std::min(piece, all.size() - at)));
      for (auto const & packet : takeAll(segments))
        packets.push_back(packet);
    }
    EXPECT_THAT(packets, ElementsAre("7 one 2", "5  0", "7 two 0")) << piece;
  }
}

TEST(ViciSegments, WaitForTheRestOfAPacket) {
  auto const all = encodeSegment(PacketType::event, "one", "xx");
  for (std::size_t size = 0; size != all.size(); ++size) {
    Segments segments;
    segments.take(octets(all).first(size));
    EXPECT_FALSE(segments.next()) << size;
  }
}

TEST(ViciSegments, TakeAPacketOfTheLargestSizeAndNoneBeyond) {
  Segments segments;
  segments.take(octets("\x00\x08\x00\x00\x01"s));
  segments.take(octets(std::string(largestPacket - 2, 'x')));
  EXPECT_FALSE(segments.next());
  segments.take(octets("x"));
  EXPECT_EQ(takeAll(segments), (std::vector<std::string>{"1  524287"}));
  segments.take(octets("\x00\x08\x00\x01"s));
  EXPECT_THROW(segments.next(), Malformed) << "though nothing of it has come";
}

TEST(ViciSegments, RefuseASegmentWithoutAPacket) {
  Segments segments;
  segments.take(octets("\0\0\0\0"s));
  EXPECT_THROW(segments.next(), Malformed);
}

TEST(ViciMessage, IsHandedOverElementByElement) {
  auto const message = "\1\1s\3\1k\0\1v\4\1l\5\0\1a\5\0\0\6\1\1t\2\2\3\1z\0\0"s;
  EXPECT_THAT(elements(message),
              ElementsAre("s {", "k = v", "l has a", "l has ", "t {", "}", "}", "z = "));
  EXPECT_THAT(elements(""), ElementsAre());
}

TEST(ViciMessage, HasTextsOfAnyOctetsAndAnyLength) {
  std::string const name(255, 'n');
  std::string const value(65535, '\0');
  auto const heard = elements(Message().section(name).value(name, value).end());
  EXPECT_THAT(heard, ElementsAre(name + " {", name + " = " + value, "}"));
}

TEST(ViciMessage, CutOffAnywhereIsRefused) {
  std::string const message =
      Message().section("s").value("k", "v").list("l", {"a", ""}).section("t").end().end();
  for (std::size_t size = 1; size != message.size(); ++size)
    EXPECT_NE(fault(message.substr(0, size)), "") << size;
  EXPECT_EQ(fault(message), "");
}

TEST(ViciMessage, IsRefusedWhenItsElementsDoNotFitIntoEachOther) {
  EXPECT_EQ(fault("\2"s), "the end of a section that has no start");
  EXPECT_EQ(fault("\1\1s"s), "a section without an end");
  EXPECT_EQ(fault("\4\1l"s), "a list without an end");
  EXPECT_EQ(fault("\5\0\1a"s), "an element of type 5 outside a list");
  EXPECT_EQ(fault("\6"s), "an element of type 6 outside a list");
  for (auto const * type : {"1", "2", "3", "4", "9"})
    EXPECT_EQ(fault("\4\1l"s + static_cast<char>(*type - '0')),
              "an element of type "s + type + " within a list");
  EXPECT_EQ(fault("\7"s), "an element of the unknown type 7");
  EXPECT_EQ(fault("\0"s), "an element of the unknown type 0");
}

TEST(ViciMessage, MayHaveEightSectionsInEachOther) {
  Message deep;
  for (std::size_t i = 0; i != deepestSection; ++i)
    deep.section("s");
  Message deeper = deep;
  for (std::size_t i = 0; i != deepestSection; ++i)
    deep.end();
  EXPECT_EQ(fault(deep), "");
  EXPECT_EQ(fault(deeper.section("s")), "more than 8 sections in each other");
}

} // namespace
