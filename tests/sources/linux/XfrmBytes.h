// XFRM messages put together byte by byte, in the layout that 64-bit kernels have: what the
// decoders read was not written by the structures that they read it with.
#pragma once

#include "platform/Plexa.h"
#include "tests/sources/linux/LinkBytes.h"
#include <cstdint>
#include <string>

namespace XfrmBytes {

using namespace LinkBytes;

/// Message types.
inline constexpr std::uint16_t newState = 0x10;
inline constexpr std::uint16_t delState = 0x11;
inline constexpr std::uint16_t newPolicy = 0x13;
inline constexpr std::uint16_t delPolicy = 0x14;
inline constexpr std::uint16_t expire = 0x18;
inline constexpr std::uint16_t updPolicy = 0x19;
inline constexpr std::uint16_t updState = 0x1a;
inline constexpr std::uint16_t polExpire = 0x1b;
inline constexpr std::uint16_t flushStates = 0x1c;
inline constexpr std::uint16_t flushPolicies = 0x1d;
/// Attributes.
inline constexpr std::uint16_t algAuth = 1;
inline constexpr std::uint16_t algCrypt = 2;
inline constexpr std::uint16_t algComp = 3;
inline constexpr std::uint16_t tmpl = 5;
inline constexpr std::uint16_t sa = 6;
inline constexpr std::uint16_t policy = 7;
inline constexpr std::uint16_t policyType = 16;
inline constexpr std::uint16_t algAead = 18;
inline constexpr std::uint16_t algAuthTrunc = 20;
inline constexpr std::uint16_t mark = 21;
inline constexpr std::uint16_t ifId = 31;

inline Octets bigEndian(std::uint16_t number) {
  return {static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
}
inline Octets bigEndian(std::uint32_t number) {
  return joined({bigEndian(static_cast<std::uint16_t>(number >> 16)),
                 bigEndian(static_cast<std::uint16_t>(number))});
}

/// 16 octets, whatever the family; zeros for "".
inline Octets address(std::string const & text) {
  auto const value = Plexa::IpGenAddr::fromString(text).value_or(Plexa::IpGenAddr());
  auto const octets = value.octets();
  Octets result(octets.begin(), octets.end());
  result.resize(16);
  return result;
}

struct Selector {
  std::string source = "10.0.0.1";
  std::string destination = "10.0.0.2";
  std::uint8_t sourceLength = 32;
  std::uint8_t destinationLength = 32;
  std::uint8_t protocol = 0;
  std::uint16_t sourcePort = 0;
  std::uint16_t sourceMask = 0;
  std::uint16_t destinationPort = 0;
  std::uint16_t destinationMask = 0;
  std::uint16_t family = 2; // 10 for IPv6
  std::int32_t interface = 0;
};
inline Octets selector(Selector const & of) {
  return joined({address(of.destination),
                 address(of.source),
                 bigEndian(of.destinationPort),
                 bigEndian(of.destinationMask),
                 bigEndian(of.sourcePort),
                 bigEndian(of.sourceMask),
                 native(of.family),
                 {of.destinationLength, of.sourceLength, of.protocol, 0, 0, 0},
                 native(of.interface),
                 native<std::uint32_t>(0)});
}

struct PolicyInfo {
  Selector selector = {};
  std::uint32_t priority = 0;
  std::uint32_t index = 9;
  std::uint8_t direction = 1;
  std::uint8_t action = 0;
};
inline Octets policyInfo(PolicyInfo const & of) {
  return joined({selector(of.selector),
                 Octets(64 + 32), // limits and what is used of them
                 native(of.priority),
                 native(of.index),
                 {of.direction, of.action, 0, 0, 0, 0, 0, 0}});
}

struct Template {
  std::uint8_t protocol = 50;
  std::uint8_t mode = 0;
  std::string source = "";
  std::string destination = "";
  std::uint32_t reqid = 0;
  std::uint32_t spi = 0;
  std::uint8_t optional = 0;
  std::uint16_t family = 2;
};
inline Octets templateOctets(Template const & of) {
  return joined({address(of.destination),
                 bigEndian(of.spi),
                 {of.protocol, 0, 0, 0},
                 native(of.family),
                 {0, 0},
                 address(of.source),
                 native(of.reqid),
                 {of.mode, 0, of.optional, 0},
                 native(UINT32_MAX),
                 native(UINT32_MAX),
                 native(UINT32_MAX)});
}

struct StateInfo {
  std::string source = "10.0.0.1";
  std::string destination = "10.0.0.2";
  std::uint8_t protocol = 50;
  std::uint8_t mode = 0;
  std::uint32_t spi = 0x100;
  std::uint32_t reqid = 0;
  std::uint64_t hardBytes = UINT64_MAX;
  std::uint64_t hardPackets = UINT64_MAX;
  std::uint64_t bytes = 0;
  std::uint64_t packets = 0;
  std::uint16_t family = 2;
};
inline Octets stateInfo(StateInfo const & of) {
  auto const no = native<std::uint64_t>(0);
  return joined({selector({.source = of.source, .destination = of.destination}),
                 address(of.destination),
                 bigEndian(of.spi),
                 {of.protocol, 0, 0, 0},
                 address(of.source),
                 // soft and hard limits of bytes, of packets, of seconds
                 no,
                 native(of.hardBytes),
                 no,
                 native(of.hardPackets),
                 no,
                 no,
                 no,
                 no,
                 native(of.bytes),
                 native(of.packets),
                 no,
                 no,
                 Octets(12), // statistics
                 native<std::uint32_t>(0),
                 native(of.reqid),
                 native(of.family),
                 {of.mode, 0, 0, 0, 0, 0, 0, 0, 0, 0}});
}

/// An algorithm with a key of so many octets, each 0xa5.
inline Octets algorithm(std::size_t key = 32) {
  Octets name(64);
  std::copy_n("cbc(aes)", 8, name.begin());
  return joined({name, native(static_cast<std::uint32_t>(key * 8)), Octets(key, 0xa5)});
}

/// A whole message: what it begins with, then attributes.
inline Octets xfrmMessage(std::uint16_t type, Octets const & body, Octets const & attributes = {}) {
  auto const length = static_cast<std::uint32_t>(16 + body.size() + attributes.size());
  return joined({native(length), native(type), native<std::uint16_t>(0), native<std::uint32_t>(0),
                 native<std::uint32_t>(0), body, attributes});
}

} // namespace XfrmBytes
