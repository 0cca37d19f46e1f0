// SNMP value types and encodings, and the meeting point of MIB modules and their host.
#include "platform/Snmp.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <cstring>
#include <limits>

namespace Snmp {

std::uint32_t Bytes::hash(std::uint32_t seed) const {
  return Zel::Hash(seed).mix(span()).result();
}

void strepWrite(std::string & out, Bytes const & bytes) {
  out += '\'';
  for (auto const byte : bytes.span())
    fmt::format_to(std::back_inserter(out), "{:02x}", byte);
  out += '\'';
}

namespace {
std::uint8_t hexDigit(char digit) {
  constexpr std::string_view digits = "0123456789abcdef";
  auto const value = digits.find(digit);
  if (value == std::string_view::npos)
    throw Zel::StrepError(fmt::format("\"{}\" is no hexadecimal digit", digit));
  return static_cast<std::uint8_t>(value);
}
} // namespace

void strepRead(Zel::StrepReader & in, Bytes & bytes) {
  in.require("'");
  auto const text = in.until('\'');
  if (text.size() % 2 != 0)
    throw Zel::StrepError("an odd number of hexadecimal digits");
  std::vector<std::uint8_t> octets;
  for (std::size_t i = 0; i != text.size(); i += 2)
    octets.push_back(static_cast<std::uint8_t>(hexDigit(text[i]) << 4 | hexDigit(text[i + 1])));
  bytes = Bytes(octets);
}

std::ostream & operator<<(std::ostream & out, Bytes const & bytes) {
  return out << valueToStrep(bytes);
}

std::string valueToStrep(Bytes const & bytes) {
  return Zel::valueToStrep(bytes);
}
std::string valueToStrep(InetAddress const & address) {
  return Zel::valueToStrep(address);
}

InetAddress InetAddress::fromIpGenAddr(Plexa::IpGenAddr const & address) {
  LUMO_ASSERT(!address.octets().empty(), "an address of no known family has no InetAddressType");
  return fromIpGenAddrOrUnknown(address);
}

InetAddress InetAddress::fromIpGenAddrOrUnknown(Plexa::IpGenAddr const & address) {
  if (address.octets().empty())
    return {};
  // RFC 4001 numbers the two families as AddressFamily does.
  return {static_cast<std::uint32_t>(address.family()), Bytes(address.octets())};
}

std::uint32_t InetAddress::hash(std::uint32_t seed) const {
  return Zel::Hash(seed).mix(addressType_).mix(address_.span()).result();
}

namespace {

int encodeLong(long value, std::uint8_t * buffer, std::size_t capacity) {
  if (capacity < sizeof value)
    return -1;
  std::memcpy(buffer, &value, sizeof value);
  return sizeof value;
}

int encodeOctets(std::span<std::uint8_t const> octets, std::uint8_t * buffer,
                 std::size_t capacity) {
  if (capacity < octets.size())
    return -1;
  std::copy(octets.begin(), octets.end(), buffer);
  return static_cast<int>(octets.size());
}

} // namespace

int U32ToAsnUnsigned(std::uint32_t value, std::uint8_t * buffer, std::size_t capacity) {
  return encodeLong(static_cast<long>(value), buffer, capacity);
}
int S32ToAsnInteger(std::int32_t value, std::uint8_t * buffer, std::size_t capacity) {
  return encodeLong(value, buffer, capacity);
}
int BytesToAsnOctetString(Bytes const & bytes, std::uint8_t * buffer, std::size_t capacity) {
  return encodeOctets(bytes.span(), buffer, capacity);
}
int PlexaIpGenAddrToAsnOctetString(Plexa::IpGenAddr const & address, std::uint8_t * buffer,
                                   std::size_t capacity) {
  return encodeOctets(address.octets(), buffer, capacity);
}

std::int32_t AsnIntegerToS32(long value) {
  if (value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max())
    throw Zel::RangeException(fmt::format("{} does not fit into 32 bits with a sign", value));
  return static_cast<std::int32_t>(value);
}

Bytes AsnOctetStringToSnmpBytes(std::uint8_t const * octets, std::size_t size) {
  return Bytes(std::span(octets, size));
}

namespace {
// Made on first use: modules enrol while libraries are being loaded, in no order of ours.
std::vector<HandlerRegistration *> & registrations() {
  static std::vector<HandlerRegistration *> list;
  return list;
}
std::vector<std::pair<std::string, std::string>> & contexts() {
  static std::vector<std::pair<std::string, std::string>> list;
  return list;
}
} // namespace

void registerMibContext(Zel::String const & module, Zel::String const & context) {
  std::pair const entry(module, context);
  if (std::ranges::find(contexts(), entry) == contexts().end())
    contexts().push_back(entry);
}
void unregisterMibContext(Zel::String const & module, Zel::String const & context) {
  std::erase(contexts(), std::pair(module, context));
}

AutoRegistree::AutoRegistree(HandlerRegistration * registration) : registration_(registration) {
  registrations().push_back(registration);
}
AutoRegistree::~AutoRegistree() {
  std::erase(registrations(), registration_);
}

std::vector<HandlerRegistration *> handlerRegistrations() {
  return registrations();
}
std::vector<std::pair<std::string, std::string>> mibContexts() {
  return contexts();
}

} // namespace Snmp

namespace SnmpUtil {

namespace {
Snmp::Config::PtrConst & config() {
  static Snmp::Config::PtrConst config;
  return config;
}
std::function<Zel::Ptr<Zel::Entity>(std::string_view)> & entityRoot() {
  static std::function<Zel::Ptr<Zel::Entity>(std::string_view)> resolve;
  return resolve;
}
} // namespace

Snmp::Config::PtrConst getSnmpConfig() {
  if (!config())
    config() = Zel::makePtr<Snmp::Config>();
  return config();
}
Zel::Ptr<Zel::Entity> getEntityRelative(std::string_view path) {
  return entityRoot() ? entityRoot()(path) : nullptr;
}
void snmpConfigIs(Snmp::Config::PtrConst newConfig) {
  config() = std::move(newConfig);
}
void entityRootIs(std::function<Zel::Ptr<Zel::Entity>(std::string_view path)> resolve) {
  entityRoot() = std::move(resolve);
}

} // namespace SnmpUtil
