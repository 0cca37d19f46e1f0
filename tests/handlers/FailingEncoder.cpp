// The linker's --wrap leads the calls of NAME to __wrap_NAME, and those of __real_NAME to NAME. The
// names, as the linker sees them, come from CMakeLists.txt.
#include "tests/handlers/FailingEncoder.h"
#include "platform/Snmp.h"
#include <map>
#include <string>

namespace {

using Octet = std::uint8_t;

struct Encoder {
  std::optional<int> result;
  std::size_t capacity = 0; // of the last call

  template <class Real, class Value>
  int operator()(Real * real, Value const & value, Octet * buffer, std::size_t size) {
    capacity = size;
    return result ? *result : real(value, buffer, size);
  }
};

Encoder ofUnsigned;
Encoder ofSigned;
Encoder ofAddress;
Encoder ofBytes;
std::optional<Octet> outOfRange;

std::map<std::string_view, Encoder *> const encoders{{"U32ToAsnUnsigned", &ofUnsigned},
                                                     {"S32ToAsnInteger", &ofSigned},
                                                     {"PlexaIpGenAddrToAsnOctetString", &ofAddress},
                                                     {"BytesToAsnOctetString", &ofBytes}};

} // namespace

int realUnsigned(std::uint32_t, Octet *, std::size_t) __asm__("__real_" U32_TO_ASN_UNSIGNED);
int realSigned(std::int32_t, Octet *, std::size_t) __asm__("__real_" S32_TO_ASN_INTEGER);
int realAddress(Plexa::IpGenAddr const &, Octet *,
                std::size_t) __asm__("__real_" ADDRESS_TO_ASN_OCTET_STRING);
int realBytes(Snmp::Bytes const &, Octet *,
              std::size_t) __asm__("__real_" BYTES_TO_ASN_OCTET_STRING);
Snmp::Bytes realOctets(Octet const *, std::size_t) __asm__("__real_" OCTETS_TO_BYTES);
int wrappedUnsigned(std::uint32_t, Octet *, std::size_t) __asm__("__wrap_" U32_TO_ASN_UNSIGNED);
int wrappedSigned(std::int32_t, Octet *, std::size_t) __asm__("__wrap_" S32_TO_ASN_INTEGER);
int wrappedAddress(Plexa::IpGenAddr const &, Octet *,
                   std::size_t) __asm__("__wrap_" ADDRESS_TO_ASN_OCTET_STRING);
int wrappedBytes(Snmp::Bytes const &, Octet *,
                 std::size_t) __asm__("__wrap_" BYTES_TO_ASN_OCTET_STRING);
Snmp::Bytes wrappedOctets(Octet const *, std::size_t) __asm__("__wrap_" OCTETS_TO_BYTES);

int wrappedUnsigned(std::uint32_t value, Octet * buffer, std::size_t capacity) {
  return ofUnsigned(realUnsigned, value, buffer, capacity);
}
int wrappedSigned(std::int32_t value, Octet * buffer, std::size_t capacity) {
  return ofSigned(realSigned, value, buffer, capacity);
}
int wrappedAddress(Plexa::IpGenAddr const & value, Octet * buffer, std::size_t capacity) {
  return ofAddress(realAddress, value, buffer, capacity);
}
int wrappedBytes(Snmp::Bytes const & value, Octet * buffer, std::size_t capacity) {
  return ofBytes(realBytes, value, buffer, capacity);
}
Snmp::Bytes wrappedOctets(Octet const * octets, std::size_t size) {
  if (outOfRange && size != 0 && octets[0] == *outOfRange)
    throw Zel::RangeException("octets of a test");
  return realOctets(octets, size);
}

FailingEncoder::FailingEncoder(std::string_view encoder, int length)
    : result_(encoders.at(encoder)->result) {
  result_ = length;
}

FailingEncoder::~FailingEncoder() {
  result_.reset();
}

std::size_t lastCapacityOf(std::string_view encoder) {
  return encoders.at(encoder)->capacity;
}

OctetsOutOfRange::OctetsOutOfRange(std::uint8_t first) {
  outOfRange = first;
}

OctetsOutOfRange::~OctetsOutOfRange() {
  outOfRange.reset();
}
