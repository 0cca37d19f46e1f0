// The linker's --wrap leads the calls of NAME to __wrap_NAME, and those of __real_NAME to NAME. The
// names, as the linker sees them, come from CMakeLists.txt.
#include "tests/handlers/FailingEncoder.h"
#include "platform/Snmp.h"
#include <map>
#include <string>

namespace {

using Octet = std::uint8_t;

std::optional<int> unsignedResult;
std::optional<int> signedResult;
std::optional<int> addressResult;

std::map<std::string_view, std::optional<int> *> const results{
    {"U32ToAsnUnsigned", &unsignedResult},
    {"S32ToAsnInteger", &signedResult},
    {"PlexaIpGenAddrToAsnOctetString", &addressResult}};

} // namespace

int realUnsigned(std::uint32_t, Octet *, std::size_t) __asm__("__real_" U32_TO_ASN_UNSIGNED);
int realSigned(std::int32_t, Octet *, std::size_t) __asm__("__real_" S32_TO_ASN_INTEGER);
int realAddress(Plexa::IpGenAddr const &, Octet *,
                std::size_t) __asm__("__real_" ADDRESS_TO_ASN_OCTET_STRING);
int wrappedUnsigned(std::uint32_t, Octet *, std::size_t) __asm__("__wrap_" U32_TO_ASN_UNSIGNED);
int wrappedSigned(std::int32_t, Octet *, std::size_t) __asm__("__wrap_" S32_TO_ASN_INTEGER);
int wrappedAddress(Plexa::IpGenAddr const &, Octet *,
                   std::size_t) __asm__("__wrap_" ADDRESS_TO_ASN_OCTET_STRING);

int wrappedUnsigned(std::uint32_t value, Octet * buffer, std::size_t capacity) {
  return unsignedResult ? *unsignedResult : realUnsigned(value, buffer, capacity);
}
int wrappedSigned(std::int32_t value, Octet * buffer, std::size_t capacity) {
  return signedResult ? *signedResult : realSigned(value, buffer, capacity);
}
int wrappedAddress(Plexa::IpGenAddr const & value, Octet * buffer, std::size_t capacity) {
  return addressResult ? *addressResult : realAddress(value, buffer, capacity);
}

FailingEncoder::FailingEncoder(std::string_view encoder, int length)
    : result_(*results.at(encoder)) {
  result_ = length;
}

FailingEncoder::~FailingEncoder() {
  result_.reset();
}
