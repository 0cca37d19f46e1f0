// The platform's encoders never fail for the values that rows have, and its decoder of octets never
// raises. Here they can be made to, and tell how much room they are given: the test program is
// linked so that calls of theirs come by.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// While it lives, the encoder of that name returns `length` for every value, and writes nothing.
class FailingEncoder {
public:
  FailingEncoder(std::string_view encoder, int length);
  FailingEncoder(FailingEncoder const &) = delete;
  FailingEncoder & operator=(FailingEncoder const &) = delete;
  ~FailingEncoder();

private:
  std::optional<int> & result_;
};

/// The capacity of the buffer in the last call of the encoder of that name.
std::size_t lastCapacityOf(std::string_view encoder);

/// While it lives, octets that begin with `first` are out of range for AsnOctetStringToSnmpBytes().
class OctetsOutOfRange {
public:
  explicit OctetsOutOfRange(std::uint8_t first);
  OctetsOutOfRange(OctetsOutOfRange const &) = delete;
  OctetsOutOfRange & operator=(OctetsOutOfRange const &) = delete;
  ~OctetsOutOfRange();
};
