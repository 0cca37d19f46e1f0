// The platform's encoders never fail for the values that rows have. Here they can be made to: the
// test program is linked so that calls of theirs come by.
#pragma once

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
